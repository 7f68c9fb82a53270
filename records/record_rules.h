// What a key record asks for: where in the registry it lies, whether it is to be written or removed. The one
// place for these rules, which applying a list and reports of what it did share; expiry.h has the rule for
// records whose time is over.
#pragma once

#include <strings.h>

#include <string>

#include "lqregistry/LqExport.h"
#include "lqregistry/OBGui.h"

// Type words: of an ordinary value, of one that is protected, and of a record that names a sub-key. A client
// writes a record by the word exactly as it stands; any other word, or another case, is an ordinary value.
inline constexpr const char* STRINGTYPE = "STRING";
inline constexpr const char* ENCRYPTEDTYPE = "ENCRYPTED";
inline constexpr const char* KEYTYPE = "KEY";

// Values are read into a buffer of this size: longer ones, their end included, count as unreadable.
inline constexpr int kValueBuffer = 10240;

// The registry's form of a record's key path: "~" for the empty path, "~" in front of one that is neither
// absolute nor relative to the instance root already. Only a path that begins with "SOFTWARE" is absolute.
LQ_EXPORT std::string normalisedKeyPath(const std::string& keyPath);

// The path of a sub-key.
LQ_EXPORT std::string subKeyPath(const std::string& path, const std::string& name);

// Whether the record names a sub-key, and no value.
inline bool isKey(const OBGui::RegistryKeyInfo& record) {
  return record.valueType.get() == KEYTYPE;
}

// Whether a record that names a sub-key may create it. Creating keys remotely is what this guards: one name
// alone, in any letter case.
inline bool isCreatableKey(const OBGui::RegistryKeyInfo& record) {
  return strcasecmp(record.valueName->c_str(), "Local") == 0;
}

// The key that the record names, or that holds its value; a key's record names its parent and itself.
inline std::string keyOf(const OBGui::RegistryKeyInfo& record) {
  if (!isKey(record)) return record.keyPath.get();
  return record.keyPath->empty() ? record.valueName.get() : subKeyPath(record.keyPath, record.valueName);
}

// Whether the record is to be removed from the client; otherwise it is to be written.
inline bool isToBeRemoved(const OBGui::RegistryKeyInfo& key) {
  return key.deleteFlag == 1 || key.enabledFlag == 0;
}
