#include "lqregistry/sync_task.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"

namespace {

constexpr const char* kOnStartTag = "int RegistryDownload_OnStart(LqPeriodicTaskStatus*)";
constexpr const char* kOnTimerTag = "int RegistryDownload_OnTimer(LqPeriodicTaskStatus*)";
constexpr int kTaskOk = 0;
constexpr int kTaskFailed = -1;
constexpr int kTaskSwitch = 7;

constexpr const char* kServerLibrary = "RegistryMgrSvr.dll";
constexpr const char* kServerFunction = "GetRegKeysFromDB";
constexpr const char* kFallbackLogDirectory = "/tmp";

using InstanceName = std::array<char, kInstanceNameBuffer>;

}  // namespace

int RegistryDownload_OnStart(LqPeriodicTaskStatus* status) {
  // An error line, because those stand in every log whatever its level: who wonders why nothing was
  // synchronised at start finds here that the first pass waits for the timer.
  ObEvent().Error(kOnStartTag, "Skipping registry syncronize from space check on service start");
  status->setLastRunTime(std::time(nullptr));
  return kTaskOk;
}

int RegistryDownload_OnTimer(LqPeriodicTaskStatus*) {
  const ObEvent event;
  LQPlatformInfo info(LQPI_Focus::getFocus());
  std::int64_t enabled = 0;
  info.getNumber(lqsettings::kSyncEnabled.key, lqsettings::kSyncEnabled.name, enabled);
  if (enabled == 0) {
    event.DebugLvl(kTaskSwitch, kOnTimerTag, "Registry sync is disbaled. Sync will not happen");
    return kTaskOk;
  }
  event.DebugLvl(kTaskSwitch, kOnTimerTag, "Registry sync is enabled");
  LQPI_Session session(0, 1);
  session.setFocus(LQPI_Focus::getFocus());
  if (session.IsAntiChatterFlagOn() != 0) {
    event.DebugLvl(kLogMilestone, kOnTimerTag,
                   "Skipping syncronize client Registry Keys call as client is not docked yet");
    return kTaskOk;
  }
  if (!fnLqSyncRegistryKeysInfo()) {
    event.Error(kOnTimerTag, "Failed to syncronize client Registry Keys");
    return kTaskFailed;
  }
  return kTaskOk;
}

bool fnLqSyncRegistryKeysInfo() {
  InstanceName name{};
  if (RegKeyGetVMName(name.data()) != kInstanceNameFound) return false;
  LqRegistryManagerClnt client(name.data());
  OBGui::RegisterSubsystem();
  return client.downLoadAndUpdateClient() == kResultOk;
}

bool updateRegistryKeys(OBGui::KeyList* keys, unsigned clientId) {
  constexpr const char* kTag = "updateRegistryKeys";
  if (keys == nullptr) {
    ObEvent().Error(kTag, "No key list given");
    return false;
  }
  InstanceName name{};
  if (RegKeyGetVMName(name.data()) != kInstanceNameFound) {
    ObEvent().Error(kTag, "Failed to get VM name");
    return false;
  }
  LqRegistryManagerClnt client(name.data());
  OBGui::RegisterSubsystem();
  OBGui::RegistryTaskResp response;
  response.client.edit().clientId = static_cast<std::int64_t>(clientId);
  return client.updateRegistryAndSendResponse(*keys, response);
}

void PrepareLqSyncRegistryKeys(std::string& libraryName, std::string& functionName) {
  libraryName = kServerLibrary;
  functionName = kServerFunction;
}

unsigned RegKeyGetVMName(char* name) {
  const char* instance =
      std::getenv(lqsettings::kInstanceVariable);  // NOLINT(concurrency-mt-unsafe): nobody sets it
  if (instance == nullptr) instance = LQPI_Focus::getFocus();
  if (instance == nullptr) return kInstanceNameMissing;
  // The buffer's size is the interface's; a longer name must not run over the caller's stack.
  const std::size_t length = std::strlen(instance);
  if (length >= kInstanceNameBuffer) {
    ObEvent().Error("RegKeyGetVMName", "The instance name is longer than %zu characters",
                    kInstanceNameBuffer - 1);
    return kInstanceNameMissing;
  }
  std::memcpy(name, instance, length + 1);
  return kInstanceNameFound;
}

int GetModuleFileName(const char*, char* path, unsigned) {
  std::array<char, kInstanceNameBuffer> directory{};
  LQPI_EventManager eventManager(0, 1);
  if (const char* logs = eventManager.getLogFilesDirectory())
    std::snprintf(directory.data(), directory.size(), "%s", logs);
  if (directory[0] == '\0') std::snprintf(directory.data(), directory.size(), "%s", kFallbackLogDirectory);
  return std::sprintf(path, "%s/PzCmd.log", directory.data());
}
