// What a machine of a push in stages has shown so far: by its reports, not by what it acknowledged.
//
// It is in effect once what the push brought, or something newer, is confirmed on it (confirmations.h),
// unless it has gone back from that since. It has failed when, after a hand-out since its stage began, its
// newest report says so of that batch: what it said before is about the batch before.
#pragma once

#include <string>

#include "overhub/store/fleet_state.h"
#include "overhub/store/rollouts.h"

struct Proof {
  RolloutResult result = RolloutResult::waiting;  // waiting, inEffect or failed
  std::string why;                                // for people: what it waits for, or how it failed
};

// `confirmed`: the newest revision that is confirmed on it.
Proof proofOf(soci::session& session, const Rollout& rollout, const RolloutMachine& machine,
              const MachineStatus& now, std::int64_t confirmed);

// Whether it still has to go back after its stage has failed: until its report says that it did, or that
// there is nothing which it could go back from.
bool hasToGoBack(soci::session& session, const Rollout& rollout, const RolloutMachine& machine,
                 const MachineStatus& now);
