// Changes of one record of a client's batch, as the commands `set` and `unset` make them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lqregistry/OBGui.h"
#include "lqregistry/pstring.h"
#include "records/record_rules.h"

struct RecordChange {
  std::string path;
  std::string name;
  std::string type = STRINGTYPE;
  std::optional<std::string> value = std::nullopt;
  std::optional<pstring> secret = std::nullopt;  // makes the record a protected one
  bool isRemoval = false;                        // the client is to remove the value
  bool isDisabled = false;
  std::optional<std::int64_t> until = std::nullopt;  // expiry, seconds since the epoch
};

// The record that the change makes.
OBGui::RegistryKeyInfo recordOf(const RecordChange& change);

// Adds the record, or puts it in the place of the one with its path and name; with an expiry, its companion
// record likewise.
void setRecord(OBGui::KeyList& keys, const RecordChange& change);

// Takes the record out; false when there is none.
bool unsetRecord(OBGui::KeyList& keys, const std::string& path, const std::string& name);
