// What a key record asks for: where in the registry it lies, whether it has expired, whether it is to be
// written or removed. The one place for these rules, for applying a list and for hosts that report what it
// did.
#pragma once

#include <ctime>
#include <string>

#include "lqregistry/LqExport.h"
#include "lqregistry/OBGui.h"

// Type words of records whose value is protected, and of records that name a sub-key.
inline constexpr const char* ENCRYPTEDTYPE = "ENCRYPTED";
inline constexpr const char* KEYTYPE = "KEY";

// The registry's form of a record's key path: "~" for the empty path, "~" in front of one that is neither
// absolute nor relative to the instance root already. Only a path that begins with "SOFTWARE" is absolute.
LQ_EXPORT std::string normalisedKeyPath(const std::string& keyPath);

// The path of a sub-key.
LQ_EXPORT std::string subKeyPath(const std::string& path, const std::string& name);

// Sets deleteFlag to 1 on every record of the list whose expiry time has passed at `now`: an expired X_UNTIL,
// and every record named X. A time that is just `now` has not passed.
LQ_EXPORT void markExpired(OBGui::KeyList& keys, std::time_t now = std::time(nullptr));

// Whether the record is to be removed from the client; otherwise it is to be written.
inline bool isToBeRemoved(const OBGui::RegistryKeyInfo& key) {
  return key.deleteFlag == 1 || key.enabledFlag == 0;
}
