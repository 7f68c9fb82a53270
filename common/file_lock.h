// Locks between the processes of this machine, on a file: free again when the process ends, however it ends.
//
// They are of the kind that belongs to the open file and that the kernel can be asked about, because `lqhost`
// has to know whether a resident host is there without taking its lock for a moment.
#pragma once

#include <chrono>
#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/FXFile.h"

namespace programs {

// An exclusive lock on a file, which is created if need be; held while the object lives.
class FileLock {
 public:
  FileLock() = default;  // holds nothing

  // Takes the lock unless somebody else holds it.
  static FileLock tryFor(const std::string& path);
  // Waits for whoever holds it. For locks that are held for a moment only.
  static FileLock waitFor(const std::string& path);
  // Waits at most for `limit`.
  static FileLock waitFor(const std::string& path, std::chrono::milliseconds limit);

  bool isHeld() const { return state_ == State::kHeld; }
  // Somebody else has it, which is no error.
  bool isHeldElsewhere() const { return state_ == State::kHeldElsewhere; }
  // Why the file cannot be had or locked; it names the file.
  const CWmError& error() const { return error_; }

  // Makes `text` the lock file's contents, for whoever wants to know who holds it.
  CWmError write(const std::string& text) const;

  // Whether somebody holds the lock, without getting in the way of who is about to take it. A file that is
  // there and cannot be looked at counts as held.
  static bool isTaken(const std::string& path);

 private:
  enum class State { kHeld, kHeldElsewhere, kNotHeld };
  FileLock(const std::string& path, int command);

  std::string path_;
  auto_handle handle_;
  State state_ = State::kNotHeld;
  CWmError error_;
};

}  // namespace programs
