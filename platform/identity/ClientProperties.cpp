// Client properties as this machine's registry knows them: one key per client id, one value per property.
#include "lqregistry/ClientProperties.h"

#include <strings.h>

#include <charconv>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"

namespace {

constexpr const char* kYesWords[] = {"true", "yes", "on"};
constexpr int kRead = 0;
constexpr int kNotRead = 1;

}  // namespace

bool ApplNativeProperty::getBooleanValue() const {
  for (const char* word : kYesWords)
    if (strcasecmp(text_.c_str(), word) == 0) return true;
  const char* const end = text_.data() + text_.size();
  std::int64_t number = 0;
  const auto [stop, error] = std::from_chars(text_.data(), end, number);
  return error == std::errc() && stop == end && number != 0;
}

int ApplProperties::getNativeProperty(const std::string& name, int type, const std::string& defaultText,
                                      int flag, ApplNativeProperty& property) const {
  if (type != kPropertyBoolean || flag != 0) return kNotRead;
  LQPlatformInfo info;
  std::string text;
  if (!info.getString(key_, name, text)) {
    const int error = info.getRegError();
    if (error != kRegKeyMissing && error != kRegValueMissing) return kNotRead;
    text = defaultText;
  }
  property.text_ = std::move(text);
  return kRead;
}

ClientProperties::ClientProperties(std::uint64_t clientId)
    : ApplProperties(lqsettings::kClientPropertiesKey + std::to_string(clientId)) {}
