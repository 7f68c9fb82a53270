// What lqreg's commands do. Results go to standard output, complaints to standard error; each command gives
// the program's exit code.
#pragma once

#include <string>

#include "lqregistry/LQPlatformInfo.h"

inline constexpr int kExitDone = 0;
inline constexpr int kExitNotFound = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitUnavailable = 3;
inline constexpr int kExitFile = 4;  // of an export or import

class RegistryCommands {
 public:
  // For the keys of `instance`; when it is empty, absolute keys only.
  explicit RegistryCommands(const std::string& instance);

  int get(const std::string& key, const std::string& name);
  int set(const std::string& key, const std::string& name, const std::string& value);
  int removeValue(const std::string& key, const std::string& name);
  // A key that holds something is removed only when `recursive` says so.
  int removeKey(const std::string& key, bool recursive);
  int list(const std::string& key);
  // Of the instance's root, or of all there is, when `key` is empty.
  int tree(std::string key);

  // Writes all keys and values of the instance as a batch of key records, the form of a client's upload; to
  // standard output when `file` is empty.
  int exportTo(const std::string& file);
  // Writes what such a batch holds into the instance. What the batch does not name stays as it is.
  int importFrom(const std::string& file);

 private:
  // Says why the last call failed and what to do about it; the exit code for that.
  int complain(const std::string& key) const;
  // Complains when there is no instance, for the commands that are of one.
  bool hasInstance() const;

  LQPlatformInfo registry_;
};

// Says something on standard error, made harmless for a terminal.
void complainAbout(const std::string& text);
