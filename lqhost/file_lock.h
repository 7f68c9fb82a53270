// Locks between the processes of this machine, on a file: free again when the process ends, however it ends.
#pragma once

#include <chrono>
#include <string>

#include "lqregistry/FXFile.h"

namespace host {

// Held while the object lives; not held when the file cannot be had.
class FileLock {
 public:
  // Takes the lock unless somebody else holds it.
  static FileLock tryFor(const std::string& path);
  // Waits for whoever holds it. For locks that are held for a moment only.
  static FileLock waitFor(const std::string& path);
  // Waits at most for `limit`.
  static FileLock waitFor(const std::string& path, std::chrono::milliseconds limit);

  bool isHeld() const { return state_ == State::kHeld; }
  // Somebody else has it, as opposed to a file that cannot be had.
  bool isHeldElsewhere() const { return state_ == State::kHeldElsewhere; }

  // Whether somebody holds the lock, without getting in the way of who is about to take it. A file that is
  // there and cannot be looked at counts as held.
  static bool isTaken(const std::string& path);

 private:
  enum class State { kHeld, kHeldElsewhere, kUnavailable };
  FileLock(const std::string& path, int command);

  auto_handle handle_;
  State state_ = State::kUnavailable;
};

}  // namespace host
