// Runs a push in stages (overhub/store/rollouts.h): begins a stage, has its machines called, looks at what
// the store hears of them, and begins the next once none of them is left that could still fail. Where too
// many have failed it stops, and has the stage go back if that was asked for.
//
// All that counts is in the store, so that whoever takes the push up goes on from there.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "overhub/commands/listing.h"
#include "overhub/commands/pass_calls.h"
#include "overhub/store/rollout_proof.h"
#include "overhub/store/rollouts.h"

class StagedPush {
 public:
  // `runner` has begun it, or taken it up. With `isQuiet` nothing is said on standard output on the way.
  StagedPush(const Store& store, Rollout rollout, std::string runner, bool isQuiet)
      : store_(store), rollout_(std::move(rollout)), runner_(std::move(runner)), isQuiet_(isQuiet) {}

  // Runs it to its end, or until it stops. An error is the store's, or that somebody else has taken it up.
  CWmError run(ClientLink::Way way, int parallel);

  bool areAllInEffect() const { return count(RolloutResult::inEffect) == machines_.size(); }
  // Adds what became of each machine, and of the push.
  void addTo(Listing& list) const;
  // The same in a sentence, with what can be done.
  std::string summary() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Machine {
    RolloutMachine told;
    Client client;
  };

  CWmError write(const Database::Work& work);
  CWmError renewWhereDue();
  CWmError load();
  CWmError runStage(PassCalls& calls);
  CWmError look();
  CWmError stop(PassCalls& calls);
  CWmError goBack(PassCalls& calls);
  CWmError eraseReturned(const PassCalls& calls, std::vector<Machine*>& left);
  CWmError note(const std::vector<Machine*>& machines);
  void giveUp(const PassCalls& calls, std::vector<Machine*>& changed);
  bool hasFailed() const;
  std::size_t count(RolloutResult result, std::int64_t stage = kAnyStage) const;
  std::vector<Machine*> machinesOfStage();
  FleetStatus statusOf(soci::session& session, const std::vector<Machine*>& machines) const;
  std::string stageText() const;
  void tellStage() const;
  void pauseAfter(Clock::time_point began) const;

  static constexpr std::int64_t kAnyStage = 0;

  const Store& store_;
  Rollout rollout_;
  std::string runner_;
  bool isQuiet_;
  std::vector<Machine> machines_;
  Clock::time_point renewed_ = Clock::now();
};
