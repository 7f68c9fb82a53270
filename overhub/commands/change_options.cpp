#include "overhub/commands/change_options.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "common/host_name.h"
#include "common/text_table.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/time_argument.h"

namespace {

std::string counted(std::size_t number, const char* one) {
  return std::to_string(number) + " " + one + (number == 1 ? "" : "s");
}

// What --confirm may say: less than a pass and its report take would send every machine back, and what a
// machine keeps for longer than that nobody remembers.
constexpr std::int64_t kLeastConfirm = 10;
constexpr std::int64_t kMostConfirm = std::int64_t{30} * 86400;

std::string machines(const Effects& effects) {
  return effects.machines.empty() ? "no machine" : counted(effects.machines.size(), "machine");
}

void printEffects(const Effects& effects, bool isForced) {
  programs::TextTable table({"PATH", "NAME", "BEFORE", "AFTER", "MACHINES"});
  for (const Effect& effect : effects.values) {
    table.addRow({effect.identity.place, effect.identity.name, effect.before, effect.after,
                  std::to_string(effect.machines)});
  }
  if (!effects.values.empty()) print(table.text());
  print(machines(effects) + " would get something else than before\n");
  if (!effects.wayBack.empty())
    print(counted(effects.wayBack.size(), "machine") + " might no longer call, because of " +
          effects.wayBackValue + "; first of them " + effects.wayBack.front() + "\n");
  if (!effects.doubled.empty())
    print(effects.doubled + (isForced ? "\n" : "; it is refused without --force\n"));
  if (!effects.wayBackValue.empty() && !isForced)
    print("It is refused without --force: a client needs " + effects.wayBackValue +
          " to come back to its server\n");
}

}  // namespace

std::string whoTypes() {
  std::string user;
  const char* const original = std::getenv("SUDO_USER");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  if (original != nullptr && ::geteuid() == 0) {
    user = original;
  } else {
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
      user = entry.pw_name;
  }
  if (user.empty()) user = "user " + std::to_string(::geteuid());
  const std::string host = programs::ownHostName();
  return host.empty() ? user : user + "@" + host;
}

void ChangeOptions::describe(programs::CommandLine::Options options) {
  options.option("--why TEXT", why_, "The reason, for \"overhub log\"")
      .maybeWithValue(
          "--confirm [TIME]", confirm_,
          "Machines go back to what was before when a module refuses it or, with a TIME such as 5m, when "
          "no report has shown within it that it works, nor \"overhub confirm\" said so")
      .flag("--dry-run", isDryRun_, "Only show which machines would get what")
      .option("--expect REVISION", expected_, 0,
              "Refuse if what is changed here was changed after this revision, and say by whom")
      .flag("--force", isForced_,
            "Change also what a client needs to come back to its server, such as the server's host or the "
            "switch "
            "of the synchronisation");
}

CWmError ChangeOptions::readDemand(std::int64_t& demand) const {
  demand = HostReport::kDemandNothing;
  if (!confirm_) return {};
  demand = HostReport::kDemandVerdicts;
  if (confirm_->empty()) return {};
  TypedTime time;
  const bool isRead = !readTime("+" + *confirm_, time).IsError();
  demand = time.seconds;
  if (isRead && demand >= kLeastConfirm && demand <= kMostConfirm) return {};
  return {kLqErrRequestRefused,
          "--confirm takes 10 seconds to 30 days, such as 90, 5m, 2h or 1d, and not \"" + *confirm_ +
              "\"; without a time, write it at the end of the line"};
}

int ChangeOptions::make(const Store& store, const std::string& command, const ChangeBuilder& build) const {
  ChangeResult result;
  return make(store, command, build, result);
}

int ChangeOptions::make(const Store& store, const std::string& command, const ChangeBuilder& build,
                        ChangeResult& result) const {
  ChangeNote note;
  note.who = whoTypes();
  note.why = why_;
  note.command = command;
  if (const CWmError error = readDemand(note.confirm); error.IsError())
    return complain(kExitUsage, error.AsString());
  if (confirm_) note.command += " --confirm" + (confirm_->empty() ? "" : " " + *confirm_);
  note.isForced = isForced_;
  note.isDryRun = isDryRun_;
  note.expected = expected_;
  const CWmError error = makeChange(store.database(), note, build, result);
  if (error.IsError()) return storeFailed(error);
  if (result.isNothing) {
    print("nothing to change: all is so already\n");
  } else if (isDryRun_) {
    printEffects(result.effects, isForced_);
  } else {
    print("revision " + std::to_string(result.revision) + ": " +
          (result.effects.machines.empty()
               ? "nothing changes on the machines that are there\n"
               : machines(result.effects) + " will get something else at the next pass\n"));
  }
  return kExitOk;
}
