// What every command that changes something takes, and says when it has: why, a dry run, and whether somebody
// was faster.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/command_line.h"
#include "overhub/store/change.h"
#include "overhub/store/store.h"

// Who types, also behind sudo, and where: for revisions.
std::string whoTypes();

class ChangeOptions {
 public:
  // Adds --why, --confirm, --dry-run, --expect and --force.
  void describe(programs::CommandLine::Options options);

  bool isForced() const { return isForced_; }
  bool isDryRun() const { return isDryRun_; }
  // Whether any of them was given; --confirm apart, which may be about more than a change.
  bool isGiven() const { return !why_.empty() || isDryRun_ || isForced_ || expected_; }
  bool isConfirmGiven() const { return confirm_.has_value(); }
  // What --confirm demands of machines (confirmations.h).
  CWmError readDemand(std::int64_t& demand) const;

  // Makes the change, or only shows it; prints what it does. `command` is what the log will say; it holds no
  // secret. An exit code.
  [[nodiscard]] int make(const Store& store, const std::string& command, const ChangeBuilder& build) const;

  // The same, with what became of it for a command that says more.
  [[nodiscard]] int make(const Store& store, const std::string& command, const ChangeBuilder& build,
                         ChangeResult& result) const;

 private:
  std::string why_;
  std::optional<std::string> confirm_;  // empty: without a limit
  bool isDryRun_ = false;
  bool isForced_ = false;
  std::optional<std::int64_t> expected_;
};
