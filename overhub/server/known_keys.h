// The session keys by which callers prove themselves, also while the store cannot be reached: then those that
// were seen before count, so that a client gets in and hears that it is to come again, rather than that its
// key is wrong.
//
// Keys are kept as the store has them, protected. Any thread.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "overhub/store/store.h"

class KnownKeys {
 public:
  explicit KnownKeys(const Store& store) : store_(store) {}

  // The key of a client as bytes, into `key`; false, with the reason in the log, when there is none that can
  // be used.
  bool find(const std::string& client, std::string& key);

 private:
  CWmError look(const std::string& client, std::string& protectedKey);

  const Store& store_;
  std::mutex mutex_;  // guards what follows
  std::map<std::string, std::string> seen_;
  std::chrono::steady_clock::time_point failedUntil_;  // the store is not asked before
};
