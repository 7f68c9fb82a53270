#include "lqhost/pass/cache_watch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lqhost/instance.h"
#include "lqhost/pass/cached_settings.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"

namespace host {

bool CacheWatch::Identity::operator==(const Identity& other) const {
  // The size tells nothing that the time of the last change does not.
  return number == other.number && changed.tv_sec == other.changed.tv_sec &&
         changed.tv_nsec == other.changed.tv_nsec;
}

CacheWatch::Identity CacheWatch::look() {
  struct stat file {};
  if (::stat(pathInBase(kSettingsCacheFile).c_str(), &file) != 0) return {};
  return {file.st_ino, file.st_ctim, file.st_size};
}

CacheWatch::CacheWatch() : before_(look()) {}

CacheFate CacheWatch::fate(std::size_t repliedRecords) const {
  const Identity now = look();
  if (now.size == 0) return CacheFate::kLost;
  if (!(now == before_)) return CacheFate::kStored;
  CachedSettings kept;
  if (readCachedSettings(kept).IsError()) return CacheFate::kUnreadable;
  return kept.records > repliedRecords ? CacheFate::kKept : CacheFate::kLost;
}

bool CacheWatch::sync() {
  const auto_handle file(::open(pathInBase(kSettingsCacheFile).c_str(), O_RDONLY | O_CLOEXEC));
  const auto_handle directory(::open(baseDirectory().c_str(), O_RDONLY | O_CLOEXEC));
  return file.isValid() && directory.isValid() && ::fsync(file.get()) == 0 && ::fsync(directory.get()) == 0;
}

}  // namespace host
