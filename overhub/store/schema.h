// The tables of the store, and their version.
//
// What says which settings machines are to hold is never overwritten: a row is valid from one revision up to
// another, at first up to kOpen, and a change closes it and writes the next one. So what a machine was to
// hold at any revision can be asked at any time.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "lqregistry/CWmError.h"

class Engine;
namespace soci {
class session;
}

// The revision up to which a row is valid that no change has closed. A number and not NULL, so that a row may
// be open only once is for the engine to see to.
inline constexpr std::int64_t kOpen = std::numeric_limits<std::int64_t>::max();

// The counters (a row each in the table `counters`): the highest revision and the highest id of a client.
inline const std::string kRevisionCounter = "revision";
inline const std::string kClientIdCounter = "client_id";

namespace schema {

// The version of the store that there is; 0: there is none. An error for one of a newer version than this
// program's, or for a database that holds something else.
CWmError look(soci::session& session, const Engine& engine, std::int64_t& version);

// Makes the tables; nothing when there are some.
CWmError prepare(soci::session& session, const Engine& engine);

// Whether a store that is there is of a version before this program's.
bool isOld(std::int64_t version);
// Brings it up to date, step by step, in the one transaction of its caller, and with the store's key in
// force; of several who do so at once the later ones find it done. `version` gets the one that it is of then.
CWmError upgrade(soci::session& session, const Engine& engine, std::int64_t& version);

}  // namespace schema
