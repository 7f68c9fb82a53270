// The process's current instance, and the small views that each look at one section of the registry.
#include <atomic>
#include <mutex>
#include <set>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"

namespace {

std::atomic<const char*> currentFocus{nullptr};

// A copy of the text that stays for the life of the process; a host sets few different instances.
const char* intern(const char* text) {
  static std::mutex lock;
  static auto* const texts = new std::set<std::string>;
  const std::lock_guard guard(lock);
  return texts->emplace(text).first->c_str();
}

// An empty directory is none: joined with a name it would be the file system's root.
const char* directoryOrNull(LQPlatformInfo& info, const lqsettings::Setting& setting,
                            std::string& directory) {
  return info.getDirectory(setting.key, setting.name, directory) && !directory.empty() ? directory.c_str()
                                                                                       : nullptr;
}

bool isInstalled(LQPlatformInfo& info, const std::string& name) {
  std::int64_t installed = 0;
  return info.getNumber(lqsettings::kPackagesKey, name, installed) && installed != 0;
}

}  // namespace

const char* LQPI_Focus::getFocus() {
  return currentFocus.load(std::memory_order_acquire);
}

void LQPI_Focus::setFocus(const char* focus) {
  const bool none = focus == nullptr || *focus == '\0';
  currentFocus.store(none ? nullptr : intern(focus), std::memory_order_release);
}

void LQPI_Session::setFocus(const char* focus) {
  info_.setFocus(focus == nullptr ? "" : focus);
}

int LQPI_Session::IsAntiChatterFlagOn() {
  std::int64_t flag = 1;
  info_.getNumber(lqsettings::kAntiChatter.key, lqsettings::kAntiChatter.name, flag);
  return flag != 0 ? 1 : 0;
}

const char* LQPI_EventManager::getLogFilesDirectory() {
  return directoryOrNull(info_, lqsettings::kLogDirectory, directory_);
}

const char* LQPI_Base::getVelmorDirectory() {
  return directoryOrNull(info_, lqsettings::kVelmorHome, directory_);
}

const char* LQPI_PlatformBase::getBaseHomeDirectory() {
  return directoryOrNull(info_, lqsettings::kBaseHome, directory_);
}

bool LQPI_PlatformBase::IsFullSHInstalled() {
  return isInstalled(info_, lqsettings::kFullSpoolhand.name);
}

bool LQPI_PlatformBase::IsThisPackageInstalled(int package) {
  return isInstalled(info_, lqsettings::kPackagePrefix + std::to_string(package));
}
