// One key record against the local registry: test, write, delete. The only place where applying writes to it.
#include <array>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "records/record_conversion.h"
#include "records/record_rules.h"

namespace {

// The field that makes a sub-key exist.
constexpr const char* kMarkerField = ".internal.unique_id";
constexpr const char* kMarkerValue = "0";

constexpr const char* kCreateTag = "LqRegistryManager::createRegistryKey";

}  // namespace

bool LqRegistryManagerClnt::isRegistryKeyExists(const OBGui::RegistryKeyInfo* key) {
  if (key == nullptr) return false;
  unsigned type = getKeyType(key->valueType);
  std::array<char, kValueBuffer> value;  // not cleared: what is read into it is not looked at
  int size = kValueBuffer;
  if (platformInfo.getRegValue(normalisedKeyPath(key->keyPath), key->valueName, type, value.data(), size))
    return true;
  switch (platformInfo.getRegError()) {
    case kRegKeyMissing:
      regStatus = kRegStatusKeyMissing;
      break;
    case kRegValueMissing:
      regStatus = kRegStatusValueMissing;
      break;
    default:
      regStatus = kRegStatusReadFailed;
  }
  return false;
}

int LqRegistryManagerClnt::createRegistryKey(const OBGui::RegistryKeyInfo* key) {
  // Nothing to create is a success: a batch is not to fail for a record that asks for nothing. To delete
  // without a name is refused by deleteRegistryKey, because it could take away more than was meant.
  if (key == nullptr || key->valueName->empty()) return kResultOk;

  const auto failed = [this](const std::string& path) {
    regStatus = kRegStatusWriteFailed;
    if (!path.empty()) logger.Debug(kCreateTag, "Failed To Create A Registry Key, Path=%s", path.c_str());
    return kResultFailed;
  };

  std::string protectedText;
  const char* data = nullptr;
  int length = 0;
  if (!key->value->empty()) {
    const bool isProtected = key->valueType.get() == ENCRYPTEDTYPE;
    // Written all the same, it would take the place of a value that can perhaps be read.
    if (isProtected && key->encryptedValue->isUnreadable()) {
      logger.Error(kCreateTag,
                   "The protected value [%s] of key [%s] was protected with another key than this machine's, "
                   "or altered; what the registry holds stays",
                   key->valueName->c_str(), key->keyPath->c_str());
      regStatus = kRegStatusWriteFailed;
      return kResultFailed;
    }
    if (isProtected) protectedText = key->encryptedValue->getV8Password();
    // A secret that could not be protected must not end as an empty value in the place of the old one.
    if (isProtected && protectedText.empty() && !key->encryptedValue->empty()) {
      regStatus = kRegStatusWriteFailed;
      return kResultFailed;
    }
    const std::string& text = isProtected ? protectedText : key->value.get();
    data = text.data();
    length = static_cast<int>(text.size());
  }

  regStatus = kRegStatusOk;
  isRegistryKeyExists(key);
  const unsigned type = getKeyType(key->valueType);

  if (!isKey(*key)) {
    const std::string path = normalisedKeyPath(key->keyPath);
    if (regStatus == kRegStatusKeyMissing && !platformInfo.createRegKey(path)) return failed(path);
    return createRegistryKeyField(path, key->valueName, type, data, length);
  }

  // The path of a "KEY" record is taken as it stands, unlike in deleteRegistryKey.
  if (!isCreatableKey(*key)) {
    logger.DebugLvl(0, kCreateTag, "Modifying %s remotely is not allowed", key->valueName->c_str());
    return kResultFailed;
  }
  if (platformInfo.setString(subKeyPath(key->keyPath, key->valueName), kMarkerField, kMarkerValue, 0) == 0)
    return failed(key->keyPath);
  return kResultOk;
}

int LqRegistryManagerClnt::createRegistryKeyField(const std::string& keyPath, const std::string& valueName,
                                                  unsigned type, const char* data, int length) {
  if (platformInfo.setRegValue(keyPath, valueName, type, data, length)) return kResultOk;
  regStatus = kRegStatusWriteFailed;
  return kResultFailed;
}

int LqRegistryManagerClnt::deleteRegistryKey(const OBGui::RegistryKeyInfo* key) {
  if (key == nullptr || key->valueName->empty()) return kResultFailed;
  const std::string path = normalisedKeyPath(key->keyPath);
  if (isKey(*key)) {
    const bool deleted = platformInfo.delRegKey(subKeyPath(path, key->valueName));
    return deleted || platformInfo.getRegError() == kRegKeyMissing ? kResultOk : kResultFailed;
  }
  if (platformInfo.delRegField(path, key->valueName)) return kResultOk;
  // Deleting what is not there is what was asked for.
  const int error = platformInfo.getRegError();
  return error == kRegValueMissing || error == kRegKeyMissing ? kResultOk : kResultFailed;
}

std::uint64_t hextonum(const char* text) {
  std::uint64_t total = 0;
  for (; *text != '\0'; ++text) {
    const char c = *text;
    if (c >= '0' && c <= '9') {
      total = total * 16 + static_cast<std::uint64_t>(c - '0');
    } else if (c >= 'A' && c <= 'F') {
      total = total * 16 + static_cast<std::uint64_t>(c - 'A' + 10);
    } else if (c >= 'a' && c <= 'f') {
      total = total * 16 + static_cast<std::uint64_t>(c - 'a' + 10);
    }
  }
  return total;
}
