// The clients: who they are, where they are called, and what they were last seen doing.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "overhub/store/database.h"

struct Client {
  std::int64_t id = 0;
  std::string name;
  std::string host;  // where a person has said that it is called; empty: where it last came from
  std::int64_t validFrom = 0;
};

// What the store knows of a client's passes. hand_out.h tells how the numbers go together.
struct Contact {
  std::int64_t client = 0;
  std::string address;         // that it last came from
  std::int64_t firstSeen = 0;  // seconds since the epoch; 0: never
  std::int64_t lastSeen = 0;
  std::int64_t handed = 0;  // the number of its newest hand-out
  std::int64_t handedRevision = 0;
  std::int64_t handedTime = 0;
  std::int64_t records = 0;      // of that hand-out
  std::int64_t mostRecords = 0;  // of any
  std::int64_t proving = 0;      // the hand-out that the next acknowledgement proves; 0: none
  std::int64_t proven = 0;       // the newest that was
  std::int64_t provenRevision = 0;
  std::int64_t base = 0;     // what hand-outs from this number on carried may still be on the machine
  std::int64_t touched = 0;  // the newest revision that changed which groups it is in, or made it one
  std::int64_t doubted = 0;  // the revision at which it was last doubted what it holds
  bool isCacheUnknown = false;
  std::int64_t pushedUntil = 0;  // when the lease of a push that is under way is over; 0: none is
  std::int64_t outcome = 0;  // the task status of its newest acknowledgement; 0: none yet
  std::int64_t outcomeTime = 0;
  std::int64_t outcomeSince = 0;  // when acknowledgements began to say the same as that one
  std::string refusal;            // why it was handed nothing the last time; empty: it was
  std::int64_t refusedSince = 0;  // when that began
};

std::optional<Client> findClient(soci::session& session, const std::string& name);
// All that have not been removed; in no order.
std::vector<Client> allClients(soci::session& session);
// Whether the id was ever given to anybody, or is the server's own.
bool isIdTaken(soci::session& session, std::int64_t id);

void addClient(soci::session& session, const Client& client, const std::string& protectedKey);
// Its name is free and its key gone from the revision on; its id is not given again.
void removeClient(soci::session& session, std::int64_t id, std::int64_t revision);

// The clients from which everything is withdrawn: they are in no scope, until they are removed or that is
// taken back. By id, with the revision that it began with.
std::map<std::int64_t, std::int64_t> withdrawalsAt(soci::session& session, std::int64_t revision);
bool isWithdrawn(soci::session& session, std::int64_t id, std::int64_t revision);
void beginWithdrawal(soci::session& session, std::int64_t id, std::int64_t revision);
void endWithdrawal(soci::session& session, std::int64_t id, std::int64_t revision);

// A client's session key, as the text that protects it.
std::string protectedKeyOf(soci::session& session, std::int64_t id);
void setProtectedKey(soci::session& session, std::int64_t id, const std::string& protectedKey);
void setHost(soci::session& session, std::int64_t id, const std::string& host);

Contact contactOf(soci::session& session, std::int64_t id);
std::vector<Contact> allContacts(soci::session& session);
void setAddress(soci::session& session, std::int64_t id, const std::string& address, std::int64_t now);
void setPushedUntil(soci::session& session, std::int64_t id, std::int64_t time);
// That the client's scopes are others from the revision on.
void touchClient(soci::session& session, std::int64_t id, std::int64_t revision);
// What it may hold is not known any more: all that it was ever handed counts as held again, and what it has
// acknowledged proves nothing of what comes.
void doubtCache(soci::session& session, std::int64_t id);
