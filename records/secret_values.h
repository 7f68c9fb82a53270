// Which values are secret, and what a person sees in their place. The rules differ by who asks: a client
// keeps secret what it protects, a server also what was only meant to be, and of an upload there are values
// alone.
#pragma once

#include <strings.h>

#include <string_view>

#include "lqregistry/LqSettings.h"
#include "lqregistry/OBGui.h"
#include "records/record_rules.h"

// What stands in the place of a secret wherever a person looks. It also stands in a protected record's
// `value`, because a client writes nothing for a record whose `value` is empty.
inline constexpr const char* kHiddenSecret = "********";

// What the stored form of a protected value begins with.
inline constexpr std::string_view kProtectedPrefix = "V8:";

// Whether a client stores the record's value protected: it goes by the type word exactly as it stands.
inline bool isProtected(const OBGui::RegistryKeyInfo& record) {
  return record.valueType.get() == ENCRYPTEDTYPE;
}

// Whether the record's value is secret. In any letter case: whoever wrote "encrypted" by hand meant it.
inline bool isSecret(const OBGui::RegistryKeyInfo& record) {
  return record.encryptedValue.isSet() || strcasecmp(record.valueType->c_str(), ENCRYPTEDTYPE) == 0;
}

// Whether a value may not be shown, by itself: a session key, or the stored form of a protected value.
inline bool isSecretValue(std::string_view valueName, std::string_view value) {
  return valueName == lqsettings::kSessionKey.name || value.starts_with(kProtectedPrefix);
}
