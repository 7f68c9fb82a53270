#include "lqhost/pass/cache_before.h"

#include <sys/stat.h>

#include "lqhost/instance.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "records/expiry.h"

namespace host {

CacheBefore::CacheBefore() {
  const std::string path = pathInBase(kSettingsCacheFile);
  if (FXFile::CheckTrusted(path).IsError()) return;
  // One that is not there is as good as one that says nothing.
  static_cast<void>(FXFile::LQCreateFile(path, FXFile::kGenericRead, FXFile::kShareRead, nullptr,
                                         FXFile::kOpenExisting, FXFile::kAttributeNormal, nullptr, file_));
}

OBGui::KeyList CacheBefore::records() const {
  std::string text;
  struct stat info {};
  OBGui::RegistryTaskResp cache;
  if (!file_.isValid() || ::fstat(file_.get(), &info) != 0 || FXFile::ReadToEnd(file_, text).IsError() ||
      cache.unserialize(text) != 0)
    return {};
  OBGui::KeyList records = std::move(cache.keys.edit());
  // What has expired since is removed by the pass, which is no correction of anything.
  markExpired(records, info.st_mtime);
  return records;
}

}  // namespace host
