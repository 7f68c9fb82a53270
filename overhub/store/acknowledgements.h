// The clients' acknowledgements: what each said of what it was handed, newest last. Those of the last ninety
// days are kept, at most a thousand a client.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "overhub/store/database.h"

struct Acknowledgement {
  std::int64_t time = 0;  // seconds since the epoch
  std::string client;
  std::int64_t namedId = 0;  // the id that the client said it has
  std::int64_t taskStatus = 0;
};

// Adds one; with the client's row taken, so that they have an order.
void addAcknowledgement(soci::session& session, std::int64_t clientId,
                        const Acknowledgement& acknowledgement);

// The newest so many of a client, newest first.
std::vector<Acknowledgement> newestAcknowledgements(soci::session& session, std::int64_t clientId,
                                                    const std::string& client, std::int64_t count);

// Such as "applied".
std::string outcomeText(std::int64_t taskStatus);
