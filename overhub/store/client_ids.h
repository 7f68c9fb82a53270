// The ids of clients: which one a new client gets, and which have been given. ids/ID names the client that
// has ID, ids/highest is the highest one handed out. So a new client costs the same however many there are.
//
// Used with the lock of lockForChange() held. Where ids/highest is missing or no number, as in a directory
// from before there was one, or after somebody removed it to have hand-made ids counted, it is all made anew
// from the client files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lqregistry/CWmError.h"
#include "overhub/store/data_store.h"

class ClientIds {
 public:
  explicit ClientIds(const DataStore& store) : store_(store) {}

  // Before anything else. Names in `skipped` the client files that could not be read when all was made anew.
  CWmError load(std::string& skipped);

  // The wanted id if it is free, which may fill a gap; without a wish the highest handed out plus 1. An error
  // when that cannot be had.
  CWmError choose(std::optional<std::int64_t> wanted, std::int64_t& id) const;

  // Hands the id out.
  CWmError assign(std::int64_t id, const std::string& client);

 private:
  std::string owner(std::int64_t id) const;
  CWmError rebuild(std::string& skipped);
  CWmError writeHighest() const;

  const DataStore& store_;
  std::int64_t highest_ = 0;  // handed out, the server's own included
};
