#include "lqhost/pass/cached_settings.h"

#include <sys/stat.h>

#include "lqhost/instance.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/settings_refresh_task.h"

namespace host {

CWmError readCachedSettings(CachedSettings& settings) {
  const std::string path = pathInBase(kSettingsCacheFile);
  struct stat file {};
  if (stat(path.c_str(), &file) != 0)
    return {kLqErrFile, path + ": there is no cache yet; it is written by the first synchronisation"};
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

}  // namespace host
