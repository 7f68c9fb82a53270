// Whether a pass stored the settings cache, seen from outside: the product reports it only in the log.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>

namespace host {

enum class CacheFate {
  kStored,      // it was replaced, and holds something
  kLost,        // it could not be written: it is empty, or still the one of before
  kKept,        // it holds more records than the reply; the product keeps it then
  kUnreadable,  // it cannot be read; the product does not replace it then
};

// Looks at the cache file of the instance in focus when it is made, and again when asked.
class CacheWatch {
 public:
  CacheWatch();

  // Whether there was a cache with something in it.
  bool wasThere() const { return before_.size > 0; }

  // What became of it in a pass whose reply has this many records. Only a file that was not replaced is
  // read for that.
  CacheFate fate(std::size_t repliedRecords) const;

  // Puts what the file holds on disk, so that nobody relies on a cache that a power cut could take. False
  // when that failed.
  static bool sync();

 private:
  struct Identity {
    ino_t number = 0;
    timespec changed{};
    off_t size = 0;
    bool operator==(const Identity& other) const;
  };
  static Identity look();

  Identity before_;
};

}  // namespace host
