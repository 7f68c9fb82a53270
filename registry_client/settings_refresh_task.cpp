#include "lqregistry/settings_refresh_task.h"

#include <atomic>
#include <string>
#include <utility>

#include "lqregistry/LQClient.h"
#include "lqregistry/LqCriticalSection.h"
#include "lqregistry/LqPassLock.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"

namespace {

constexpr const char* kTag = "additionalSettingsRefresh";
constexpr const char* kTask = "refresh";
constexpr const char* kTimerTag = "int AdditionalSettingsRefresh_OnTimer(LqPeriodicTaskStatus*)";
constexpr const char* kClientIdTag = "long unsigned int getClientId()";

constexpr std::int64_t kDefaultMinutes = 60;
constexpr std::int64_t kSecondsPerMinute = 60;
constexpr std::size_t kMaxNameBytes = 256;

constexpr unsigned kPassDone = 1;

LqCriticalSection csClientId;
std::atomic<std::uint64_t> cachedClientId{0};  // 0: not known yet; written under csClientId

}  // namespace

int AdditionalSettingsRefresh_OnTimer(LqPeriodicTaskStatus* status) {
  std::int64_t minutes = 0;
  LQPlatformInfo().getNumber(lqsettings::kRefreshMinutes.key, lqsettings::kRefreshMinutes.name, minutes);
  if (minutes == 0) minutes = kDefaultMinutes;
  // Multiplied without a sign, so that a senseless setting wraps instead of overflowing.
  status->setFrequency(static_cast<std::uint32_t>(static_cast<std::uint64_t>(minutes) * kSecondsPerMinute));
  ObDebug logger;
  logger.DebugLvl(2, kLogContext, kTimerTag, "Timer for Task [AdditionalSettingsRefresh] is set to [%ld].",
                  static_cast<long>(minutes));
  return additionalSettingsRefresh() != 0 ? 0 : -1;
}

unsigned additionalSettingsRefresh() {
  ObDebug logger;
  OBGui::RegistryTaskResp message;
  logger.DebugLvl(0, kLogContext, kTag, "Cleaning temporary key.");
  // Until the cache is stored: what a download stores meanwhile would be overwritten with what was read
  // before it.
  const LqPassLock lock(kTask);
  if (!lock.isHeld()) {
    logger.Error(kTag, "The refresh was not begun: %s", lock.reason().c_str());
    return kPassDone;
  }
  const std::string xml = LqRegistryManagerClnt::getAdditionalSettingsCache();
  if (xml.empty()) {
    // From the cache file, really; administrators know the line as it stands.
    logger.DebugLvl(0, kLogContext, kTag, "Failed to get Additional Settings XML from registry.");
    return kPassDone;
  }
  if (CNMessageBase::Initialize() != 0) {
    logger.Debug(kTag, "Unable to initialize XML Object.");
    return kPassDone;
  }
  OBGui::RegisterSubsystem();
  if (message.unserialize(xml) != 0) {
    logger.Debug(kTag, "Unable to unserialize xml.");
    return kPassDone;
  }

  LqRegistryManagerClnt client("");  // works on the instance in focus
  OBGui::KeyList working = message.keys.get();
  std::erase_if(working, [](const auto& key) { return key.valueName.get() == kExcludedSetting; });
  if (client.updateRegistryKeysForClient(working) != kResultOk)
    logger.Debug(kTag, "Failed to update registry keys.");

  // Tested as the records stand now: applying has marked those that have expired. What was removed from the
  // registry is dropped here, so that it is not removed again.
  OBGui::KeyList& kept = message.keys.edit();
  kept.clear();
  for (OBGui::RegistryKeyInfo& key : working)
    if (key.deleteFlag != 1) kept.push_back(std::move(key));
  std::string text;
  if (message.serialize(text, false) == 0) {
    LqRegistryManagerClnt::setAdditionalSettingsCache(std::move(text));
  } else {
    logger.Error(kTag, "The cache is left as it was: its protected values cannot be protected");
  }
  return kPassDone;
}

std::uint64_t getClientId() {
  if (const std::uint64_t known = cachedClientId) return known;
  const LqCriticalSectionLock lock(csClientId);
  if (const std::uint64_t known = cachedClientId) return known;
  const ObDebug logger;
  LQPlatformInfo info(LQPI_Focus::getFocus());
  const char* const machine = info.getPhysicalMachine();
  if (machine == nullptr) {
    logger.Error(kClientIdTag, "Failed to get the local client name.");
    return 0;
  }
  const std::string name = std::string(machine).substr(0, kMaxNameBytes);
  std::uint64_t id = 0;
  if (LQClient(name, false, 0).getClientId(id, nullptr) != 0) {
    logger.Error(kClientIdTag, "Failed to get the local client Id for client: [%s]", name.c_str());
    return 0;
  }
  cachedClientId = id;
  return id;
}
