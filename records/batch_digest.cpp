#include "records/batch_digest.h"

#include "lqregistry/LqDigest.h"

std::string batchDigest(const OBGui::KeyList& keys, std::string_view sessionKey) {
  LqDigest digest(sessionKey);
  for (const OBGui::RegistryKeyInfo& key : keys) {
    if (key.encryptedValue->isUnreadable()) return {};
    digest.add(key.keyPath.get());
    digest.add(key.valueName.get());
    digest.add(key.valueType.get());
    digest.add(key.value.get());
    digest.add(key.encryptedValue->reveal());
    // What a record asks for; an unset flag is sent as no flag and reads as 0.
    digest.add(key.deleteFlag == 1 ? "1" : "0");
    digest.add(key.enabledFlag == 0 ? "0" : "1");
  }
  return digest.finish();
}
