// Reading a registry that lies where nothing can be written.
//
// A registry in write-ahead mode needs an index of its log beside it even to be read. On a read-only file
// system none can be made. Opening the file as one that never changes would skip the log, and so show old
// values; instead file and log are copied, the log is played back in the copy, and the result is kept in
// memory. A copy does not follow the file: whoever holds one compares stamps and takes another.
#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>

#include "platform/registry/outcome.h"

namespace lqregistry {

// What changes when a registry file or its log is written or replaced.
struct FileStamp {
  struct Part {
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;
    bool operator==(const Part&) const = default;
  };
  std::array<Part, 2> parts;
  bool operator==(const FileStamp&) const = default;
};

FileStamp stampOf(const std::string& path);

// Opens `database` in memory with what the registry at `path` holds, log included; `stamp` is the file's. The
// caller closes it. kRegUnavailable when there is no room for the copy or the file is being written. The
// temporary folder (mode 0700, in TMPDIR or /tmp) is gone when this returns.
Outcome copyIntoMemory(const std::string& path, sqlite3*& database, FileStamp& stamp);

}  // namespace lqregistry
