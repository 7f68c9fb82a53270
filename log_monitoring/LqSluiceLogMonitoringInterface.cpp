// The log-monitoring checks: what applies to this machine, which helper procedure does it, what is logged.
#include "lqregistry/LqSluiceLogMonitoringInterface.h"

#include <atomic>
#include <cstdint>
#include <string>

#include "lqregistry/CWmLibrary.h"
#include "lqregistry/ClientProperties.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/ObDebug.h"

LqCriticalSection criticalSecForClientId;

namespace {

constexpr const char* kClientIdTag = "LqSluiceLogMonitoringInterface_getClientId";
constexpr const char* kCheckTag = "LqSluiceLogMonitoringInterface_CheckLogMonitoringData";
constexpr const char* kAlertTag = "LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule";

constexpr int kDone = 0;
constexpr int kFailed = 1;

constexpr std::size_t kMaxNameBytes = 256;
constexpr int kIndexServerPackage = 1306;
constexpr const char* kAnalyticsProperty = "AnalyticSearchEngineEnabled";

constexpr const char* kWorkDirectory = "/LM/";
constexpr const char* kWorkFiles = "LM*";

constexpr const char* kHelperLibrary = "libLqLMHelper.so";
constexpr const char* kSpaceCheck = "LMSpaceCheck";
constexpr const char* kAlertRule = "processLogMonitoringAlertRule";
using SpaceCheck = void (*)(std::uint64_t clientId);
using AlertRule = void (*)();

// The helper library of one call, loaded when one of its procedures is asked for, released with the object.
class Helper {
 public:
  Helper(const ObEvent& event, const char* tag) : event_(event), tag_(tag) {}

  // Loads the library and finds the procedure in it; null, with a line that says why, when there is none.
  template <class Procedure>
  Procedure find(LQPI_PlatformBase& base, const char* name) {
    return reinterpret_cast<Procedure>(load(base) ? procedure(name) : nullptr);
  }

  const char* path() const { return path_.c_str(); }

  // Runs a procedure of the helper; false, with an error line, when it throws: that must not reach the host.
  template <class Work>
  bool call(const char* name, Work work) const {
    try {
      work();
      return true;
    } catch (...) {
      event_.Error(tag_, "Procedure [%s] of library [%s] ended with an exception", name, path());
      return false;
    }
  }

 private:
  bool load(LQPI_PlatformBase& base) {
    const char* const home = base.getBaseHomeDirectory();
    path_ = std::string(home == nullptr ? "" : home) + "/" + kHelperLibrary;
    // Without a base directory there is no library; what lies in the file system's root is nobody's helper.
    const CWmError error =
        home == nullptr ? CWmError(kLqErrLibrary, "no base directory is known") : library_.Load(path_, false);
    if (error.IsError()) {
      event_.DebugLvl(kLogAlways, kLogContext, tag_, "Failed to load library [%s] error [%s]", path(),
                      error.AsString());
    }
    return !error.IsError();
  }

  void* procedure(const char* name) const {
    void* found = nullptr;
    const CWmError error = library_.GetProcedure(name, found);
    if (error.IsError()) {
      event_.DebugLvl(kLogAlways, kLogContext, tag_,
                      "Failed to load procedure [%s] from library [%s], error[%s].", name, path(),
                      error.AsString());
    }
    return found;
  }

  CWmLibrary library_{true};
  const ObEvent& event_;
  const char* tag_;
  std::string path_;
};

bool isAnalyticsEnabled(unsigned long clientId) {
  ApplNativeProperty property;
  const ClientProperties properties(clientId);
  return properties.getNativeProperty(kAnalyticsProperty, kPropertyBoolean, "", 0, property) == 0 &&
         property.getBooleanValue();
}

int checkSpace(Helper& helper, LQPI_PlatformBase& base, const ObEvent& event, unsigned long clientId) {
  event.DebugLvl(kLogVerbose, kLogContext, kCheckTag, "Analytics engine is enabled");
  const auto check = helper.find<SpaceCheck>(base, kSpaceCheck);
  if (check == nullptr) return kFailed;
  if (!helper.call(kSpaceCheck, [check, clientId] { check(clientId); })) return kFailed;
  event.DebugLvl(kLogAlways, kLogContext, kCheckTag,
                 "Call to procedure [%s] from library [%s] using Client Id = [%ld] Completed.", kSpaceCheck,
                 helper.path(), static_cast<long>(clientId));
  return kDone;
}

int clearWorkDirectory(LQPlatformInfo& info, const ObEvent& event) {
  std::string home;
  // An empty home would make it the work directory of the file system's root.
  if (!info.getDirectory(lqsettings::kVelmorHome.key, lqsettings::kVelmorHome.name, home) || home.empty()) {
    event.Error(kCheckTag, "Failed to identify velmor home directory.");
    return kFailed;
  }
  // What cannot be deleted now is tried again by the next check.
  static_cast<void>(FXFile::DeleteMatchingFiles(home + kWorkDirectory, kWorkFiles, 0));
  return kDone;
}

}  // namespace

unsigned long LqSluiceLogMonitoringInterface_getClientId() {
  static std::atomic<std::uint64_t> l_clientId{0};  // 0: not known yet
  if (const std::uint64_t known = l_clientId) return known;
  // Not tested again under the lock: whoever waited looks the id up too, and stores the same, which spares
  // the first call a second test and harms nobody.
  const LqCriticalSectionLock lock(criticalSecForClientId);
  const ObEvent event;
  LQPlatformInfo info(LQPI_Focus::getFocus());
  const char* const machine = info.getPhysicalMachine();
  if (machine == nullptr) {
    event.Error(kClientIdTag, "Failed to get the local client name.");
    return 0;
  }
  const std::string name = std::string(machine).substr(0, kMaxNameBytes);
  std::uint64_t id = l_clientId;
  const int failure = LQClient(name, false, 0).getClientId(id, nullptr);
  l_clientId = id;  // whatever the look-up made of it, even one that failed
  if (failure != 0) {
    event.Error(kClientIdTag, "Failed to get the local client Id for client: [%s]", name.c_str());
    return 0;
  }
  return l_clientId;
}

int LqSluiceLogMonitoringInterface_CheckLogMonitoringData() {
  const ObEvent event;
  Helper helper(event, kCheckTag);
  LQPlatformInfo info(LQPI_Focus::getFocus());
  LQPI_PlatformBase base;
  const bool isServer = (info.getLQPlatformType() & kPlatformServer) != 0;
  const bool hasSpoolhand = base.IsFullSHInstalled();
  event.DebugLvl(kLogVerbose, kLogContext, kCheckTag, "Spoolhand is installed %d", hasSpoolhand ? 1 : 0);
  std::int64_t disabled = 0;
  info.getNumber(lqsettings::kLogPruneDisabled.key, lqsettings::kLogPruneDisabled.name, disabled);
  if (disabled != 0) {
    // "diabled" is how administrators know this line.
    event.DebugLvl(kLogAlways, kLogContext, kCheckTag, "LM Pruning is diabled");
    return kDone;
  }
  if (hasSpoolhand || isServer) {
    // An id that could not be found is 0, and the helper gets it all the same.
    const unsigned long clientId = LqSluiceLogMonitoringInterface_getClientId();
    const bool isEnabled = isAnalyticsEnabled(clientId) || isServer;
    if (isEnabled && checkSpace(helper, base, event, clientId) != kDone) return kFailed;
  }
  return isServer ? clearWorkDirectory(info, event) : kDone;
}

int LqSluiceLogMonitoringInterface_processLogMonitoringAlertRule() {
  const ObEvent event;
  Helper helper(event, kAlertTag);
  LQPI_Base installation;
  LQPI_PlatformBase base;
  // Asked for only to see that there is an installation.
  if (installation.getVelmorDirectory() == nullptr) {
    event.DebugLvl(kLogAlways, kLogContext, kAlertTag, "Failed to get the velmor directory path");
    return kFailed;
  }
  if (!base.IsThisPackageInstalled(kIndexServerPackage)) {
    event.DebugLvl(kLogDetail, kLogContext, kAlertTag, "Index Server is not installed");
    return kFailed;
  }
  event.DebugLvl(kLogDetail, kLogContext, kAlertTag, "Index Server is installed");
  const auto process = helper.find<AlertRule>(base, kAlertRule);
  if (process == nullptr) return kFailed;
  if (!helper.call(kAlertRule, process)) return kFailed;
  event.DebugLvl(kLogAlways, kLogContext, kAlertTag, "Call to procedure [%s] from library [%s]", kAlertRule,
                 helper.path());
  return kDone;
}
