// Which batches a client was handed: their digests, by which it tells later which of them it holds.
//
// A row for each batch that differs from the one before it, whether the client asked for it or it was pushed,
// the newest twenty a client. A batch that stays the same through a revision counts as the newer revision's.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "overhub/store/database.h"

struct HandedBatch {
  std::int64_t number = 0;  // of the row, one more with each batch that differs
  std::int64_t revision = 0;
  std::string digest;
  std::int64_t time = 0;  // when it was handed out first, in seconds since the epoch
};

// With the client's row taken. An empty digest is none.
void noteHandedBatch(soci::session& session, std::int64_t client, std::int64_t revision,
                     const std::string& digest, std::int64_t now);

std::optional<HandedBatch> newestHandedBatch(soci::session& session, std::int64_t client);
// The newest with this digest; nothing for an empty one.
std::optional<HandedBatch> findHandedBatch(soci::session& session, std::int64_t client,
                                           const std::string& digest);

// Each client's newest, by its id.
std::unordered_map<std::int64_t, HandedBatch> newestHandedBatches(soci::session& session);
