#include "overhub/store/batch_edit.h"

#include <algorithm>
#include <utility>

#include "records/expiry.h"
#include "records/secret_values.h"

namespace {

OBGui::KeyList::iterator findRecord(OBGui::KeyList& keys, const std::string& path, const std::string& name) {
  return std::find_if(keys.begin(), keys.end(), [&](const OBGui::RegistryKeyInfo& key) {
    return key.keyPath.get() == path && key.valueName.get() == name;
  });
}

void putRecord(OBGui::KeyList& keys, OBGui::RegistryKeyInfo record) {
  const auto found = findRecord(keys, record.keyPath, record.valueName);
  if (found != keys.end()) {
    *found = std::move(record);
  } else {
    keys.push_back(std::move(record));
  }
}

}  // namespace

OBGui::RegistryKeyInfo recordOf(const RecordChange& change) {
  OBGui::RegistryKeyInfo record;
  record.keyPath = change.path;
  record.valueName = change.name;
  record.valueType = change.type;
  if (change.value) record.value = *change.value;
  if (change.secret) {
    record.valueType = ENCRYPTEDTYPE;
    record.value = kHiddenSecret;
    record.encryptedValue = *change.secret;
  }
  record.deleteFlag = change.isRemoval ? 1 : 0;
  record.enabledFlag = change.isDisabled ? 0 : 1;
  return record;
}

void setRecord(OBGui::KeyList& keys, const RecordChange& change) {
  putRecord(keys, recordOf(change));
  if (!change.until) return;
  RecordChange expiry;
  expiry.path = change.path;
  expiry.name = change.name + std::string(_UNTIL);
  expiry.value = std::to_string(*change.until);
  putRecord(keys, recordOf(expiry));
}

bool unsetRecord(OBGui::KeyList& keys, const std::string& path, const std::string& name) {
  const auto found = findRecord(keys, path, name);
  if (found == keys.end()) return false;
  keys.erase(found);
  return true;
}
