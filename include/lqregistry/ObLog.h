// Where the log goes: threshold, rotating file, standard error, and a capture that sees every line.
//
// Process-wide, callable from any thread. Without configuration, lines up to the default level go to standard
// error. Control characters in a line, and bytes that are not valid UTF-8, are written escaped (\xHH), so
// that a value from outside can neither forge a line nor drive the terminal of whoever reads the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "lqregistry/LqExport.h"
#include "lqregistry/ObDebug.h"

namespace oblog {

struct Settings {
  int threshold = kLqLogDefaultLevel;  // highest level that is written; errors always are
  bool toStandardError = true;
  std::string file;  // empty: no file. Created with mode 0600; its folder must exist. No link, pipe or device
  std::size_t maxFileBytes = 5U << 20;  // of it, and of each of the two rotated ones before it
};

// Replaces the settings. On an error (the file cannot be opened) the previous settings stay in force.
LQ_EXPORT CWmError Configure(const Settings& settings);

enum class Kind { kError, kPlain, kLevelled };

struct Line {
  Kind kind = Kind::kPlain;
  int level = 0;             // 0 for errors
  std::int64_t context = 0;  // 0 where the call gave none
  std::uint32_t logId = 0;
  std::string tag;
  std::string text;  // as formatted, unescaped
};

// While it lives, collects every line of the process up to `level`, in order, whatever the threshold is; what
// reaches file and standard error is unchanged. For tests and for programs that report what a pass said.
class LQ_EXPORT Capture {
 public:
  explicit Capture(int level = 10);
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::vector<Line> Lines() const;
  void Clear();

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace oblog
