// Pushes in stages: which machines are to get what is set now, and which of them wait until those before them
// are shown to work with it.
//
// A machine that waits for its stage is held: whether it asks or is pushed to, it is handed what it held when
// the push began, and nothing newer. One that had been handed nothing by then is not held, as there is
// nothing that could go on with it. When a stage begins, its machines are handed the newest like all others.
//
// clang-format off
//   running   somebody is at it, as long as the lease is renewed; otherwise it was interrupted
//   stopped   a stage failed; the machines of later ones are held
//   done      all stages have been gone through
//   ended     somebody has given it up; nobody is held any more
// clang-format on
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "overhub/store/database.h"
#include "records/host_report.h"

enum class RolloutState { running, stopped, done, ended };
// "running"; never changes, since programs read it.
const char* rolloutStateName(RolloutState state);

struct Rollout {
  std::int64_t number = 0;
  std::int64_t time = 0;  // when it began, in seconds since the epoch
  std::string who;
  std::string target;         // as it was typed
  std::int64_t revision = 0;  // which machines have to show to be in effect, or a newer one
  std::int64_t stage = 1;     // that is under way, or failed
  std::int64_t stages = 1;
  std::int64_t stopAt = 1;                           // so many machines that fail
  std::int64_t wait = 0;                             // seconds that a stage has
  std::int64_t demand = HostReport::kDemandNothing;  // of each machine; any: a stage that fails goes back
  RolloutState state = RolloutState::running;

  bool isOver() const { return state == RolloutState::done || state == RolloutState::ended; }
  bool goesBack() const { return demand != HostReport::kDemandNothing; }
};

enum class RolloutResult {
  held,      // its stage has not begun, or was stopped before it was handed anything
  waiting,   // has not shown yet that it works
  inEffect,  // has, or a person has said so
  failed,
  back,  // holds what it held before: its stage failed
};
// "inEffect"; never changes.
const char* rolloutResultName(RolloutResult result);

struct RolloutMachine {
  std::int64_t client = 0;
  std::int64_t stage = 1;
  RolloutResult result = RolloutResult::held;
  std::string why;          // for people
  std::int64_t handed = 0;  // the number of its newest hand-out when its stage began
  std::string reported;     // which report of it was the newest then, or when its stage was stopped
};

// Begins one: fills in `rollout`'s number and time. All machines are held from now on; they are tried in the
// order of the list. One that is in another push that is not over is a refusal that names both.
CWmError beginRollout(soci::session& session, Rollout& rollout, const std::vector<RolloutMachine>& machines,
                      const std::string& runner, std::int64_t now);
std::optional<Rollout> findRollout(soci::session& session, std::int64_t number);
// Those that are not over, the oldest first.
std::vector<Rollout> openRollouts(soci::session& session);
// Those of clients that have been removed are left out.
std::vector<RolloutMachine> machinesOf(soci::session& session, std::int64_t rollout);

// Takes up one that is not over, from its first stage on and with its revision, times and limits as they are
// given here; all its machines are held. A refusal when somebody is at it.
CWmError takeUpRollout(soci::session& session, const Rollout& rollout, const std::string& runner,
                       std::int64_t now);
// Ends one that is not over. A refusal when somebody is at it.
CWmError giveUpRollout(soci::session& session, std::int64_t number, std::int64_t now);
// For whoever is at it, within each lease. A refusal when somebody else has taken it up, or ended it.
inline constexpr std::int64_t kRolloutLease = 15;  // seconds
CWmError renewRollout(soci::session& session, std::int64_t number, const std::string& runner,
                      std::int64_t now);

// Lets the machines of a stage have the newest, what they went back from before included, and demands of them
// what the push does.
void beginStage(soci::session& session, const Rollout& rollout, std::int64_t stage);
void noteResult(soci::session& session, std::int64_t rollout, const RolloutMachine& machine);
// The machines of the stage that have been handed nothing newer are held again. With `isTakenBack` the others
// are told to go back with their next pass (confirmations.h), and what they had shown does not count.
void stopStage(soci::session& session, const Rollout& rollout, bool isTakenBack);
// Nobody is held by it any more where it is over; and nobody is at it.
void endRollout(soci::session& session, std::int64_t number, RolloutState state);

// What holds a machine.
struct Hold {
  std::int64_t rollout = 0;
  std::int64_t revision = 0;  // the newest that it is handed
};
std::optional<Hold> holdOf(soci::session& session, std::int64_t client);
// All that there are, by the client's id.
std::unordered_map<std::int64_t, Hold> allHolds(soci::session& session);
