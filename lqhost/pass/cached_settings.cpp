#include "lqhost/pass/cached_settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "lqhost/instance.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/settings_refresh_task.h"

namespace host {

CWmError readCachedSettings(CachedSettings& settings) {
  const std::string path = pathInBase(kSettingsCacheFile);
  struct stat file {};
  if (stat(path.c_str(), &file) != 0)
    return {kLqErrFile, path + ": there is no cache yet; it is written by the next synchronisation"};
  if (file.st_size == 0) {
    return {
        kLqErrFile,
        path + ": the cache is empty, because it could not be written; the next synchronisation tries again"};
  }
  OBGui::RegisterSubsystem();
  OBGui::RegistryTaskResp cache;
  std::string reason;
  if (cache.unserialize(LqRegistryManagerClnt::getAdditionalSettingsCache(), &reason) != 0)
    return {kLqErrFile,
            path + ": " + reason + "; remove the file, and the next synchronisation writes a new one"};
  settings = {std::move(cache.keys.edit()), 0, file.st_mtime};
  settings.records = settings.keys.size();
  std::erase_if(settings.keys, [](const auto& key) { return key.valueName.get() == kExcludedSetting; });
  return {};
}

CWmError dropCachedSettings(const LqPassLock& lock, const std::string& base, bool& wasThere) {
  std::string path = base;
  FXPath::Append(path, kSettingsCacheFile);
  if (!lock.isHeld()) return {kLqErrFile, path + " was not removed: " + lock.reason()};
  if (::unlink(path.c_str()) != 0) {
    if (errno == ENOENT) return {};
    return {kLqErrFile, path + " cannot be removed: " + std::system_category().message(errno)};
  }
  wasThere = true;
  ObEvent().Debug("host::dropCachedSettings", "%s is dropped", path.c_str());
  const auto_handle directory(::open(base.c_str(), O_RDONLY | O_CLOEXEC));
  if (directory.isValid() && ::fsync(directory.get()) == 0) return {};
  return {kLqErrFile,
          path + " was removed, and a power cut may bring it back: " + std::system_category().message(errno)};
}

}  // namespace host
