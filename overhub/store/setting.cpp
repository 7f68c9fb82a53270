#include "overhub/store/setting.h"

#include <charconv>
#include <limits>
#include <map>

#include "lqregistry/UtcText.h"
#include "overhub/store/setting_place.h"
#include "records/expiry.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

bool Setting::saysAs(const Setting& other) const {
  return identity == other.identity && path == other.path && type == other.type && value == other.value &&
         secret == other.secret && isRemoval == other.isRemoval && isDisabled == other.isDisabled &&
         expires == other.expires;
}

Setting settingOf(const std::string& scope, const OBGui::RegistryKeyInfo& record) {
  Setting setting;
  setting.scope = scope;
  setting.identity = {settingPlace(record.keyPath.get()), record.valueName, isKey(record)};
  setting.path = record.keyPath;
  setting.type = record.valueType;
  setting.value = record.value;
  setting.secret = record.encryptedValue->getV8Password();
  setting.isRemoval = record.deleteFlag == 1;
  setting.isDisabled = record.enabledFlag.isSet() && record.enabledFlag == 0;
  return setting;
}

namespace {

// The time that an end says, which is not 0; an error when it is no time.
CWmError readEnd(const OBGui::RegistryKeyInfo& end, std::int64_t& time) {
  const std::string& text = end.value;
  const auto [rest, fault] = std::from_chars(text.data(), text.data() + text.size(), time);
  if (fault == std::errc() && rest == text.data() + text.size() && time > 0) return {};
  return {kLqErrArgument, "\"" + end.valueName.get() + "\" in \"" + end.keyPath.get() +
                              "\" is the time of an end, and \"" + text + "\" is no time"};
}

CWmError endOfNothing(const OBGui::RegistryKeyInfo& end) {
  return {kLqErrArgument, "\"" + end.valueName.get() + "\" in \"" + end.keyPath.get() +
                              "\" says when a value ends that is not set there"};
}

}  // namespace

CWmError settingsOf(const OBGui::KeyList& records, std::vector<Setting>& settings) {
  settings.clear();
  std::map<Identity, std::size_t> places;
  std::vector<const OBGui::RegistryKeyInfo*> ends;
  for (const OBGui::RegistryKeyInfo& record : records) {
    if (!isKey(record) && !valueOfExpiry(record.valueName.get()).empty()) {
      ends.push_back(&record);
      continue;
    }
    Setting setting = settingOf("", record);
    const auto [place, isNew] = places.try_emplace(setting.identity, settings.size());
    // Of two records of one value the later one counts, as on a client.
    if (isNew) {
      settings.push_back(std::move(setting));
    } else {
      settings[place->second] = std::move(setting);
    }
  }
  for (const OBGui::RegistryKeyInfo* const end : ends) {
    if (isToBeRemoved(*end)) continue;
    std::int64_t time = 0;
    CWmError error = readEnd(*end, time);
    if (error.IsError()) return error;
    const auto value =
        places.find({settingPlace(end->keyPath.get()), valueOfExpiry(end->valueName.get()), false});
    if (value == places.end()) return endOfNothing(*end);
    settings[value->second].expires = time;
  }
  return {};
}

std::string valueOfExpiry(const std::string& name) {
  return name.size() > _UNTIL.size() && name.ends_with(_UNTIL) ? name.substr(0, name.size() - _UNTIL.size())
                                                               : std::string();
}

OBGui::RegistryKeyInfo recordOf(const Setting& setting) {
  OBGui::RegistryKeyInfo record;
  record.keyPath = setting.path;
  record.valueName = setting.identity.name;
  record.valueType = setting.type;
  if (!setting.value.empty() || (setting.isLive() && !setting.identity.isKey)) record.value = setting.value;
  if (setting.isSecret())
    static_cast<void>(pstring::fromStoredText(setting.secret, record.encryptedValue.edit()));
  record.deleteFlag = setting.isRemoval ? 1 : 0;
  record.enabledFlag = setting.isDisabled ? 0 : 1;
  return record;
}

OBGui::RegistryKeyInfo expiryRecordOf(const Setting& setting, bool isRemoval) {
  OBGui::RegistryKeyInfo record;
  record.keyPath = setting.path;
  record.valueName = setting.identity.name + std::string(_UNTIL);
  record.valueType = std::string(STRINGTYPE);
  record.value = std::to_string(isRemoval ? std::numeric_limits<std::int64_t>::max() : setting.expires);
  record.deleteFlag = isRemoval ? 1 : 0;
  record.enabledFlag = 1;
  return record;
}

std::string shownValue(const Setting& setting) {
  if (setting.isRemoval) return "(removed)";
  if (setting.identity.isKey) return "(sub-key)";
  const bool isHidden = setting.isSecret() || isSecretValue(setting.identity.name, setting.value);
  return isHidden ? kHiddenSecret : setting.value;
}

std::string shownInFull(const Setting* setting) {
  if (setting == nullptr) return "(not set)";
  std::string text = shownValue(*setting);
  if (setting->isDisabled) text += " (disabled)";
  if (setting->expires != 0) text += " until " + lqtext::utcText(setting->expires);
  return text;
}

std::string shownFlags(const Setting& setting) {
  if (!setting.isRemoval) return setting.isDisabled ? "disabled" : "";
  return setting.isDisabled ? "delete, disabled" : "delete";
}
