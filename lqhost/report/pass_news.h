// What a pass, a refresh or a push adds to what the host has to report.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "lqhost/pass/batch_facts.h"
#include "lqhost/pass/pass_outcome.h"
#include "lqhost/pass/refresh_outcome.h"
#include "lqhost/pass/registry_writes.h"
#include "records/host_report.h"

namespace host {

struct PassNews {
  const char* cause = HostReport::kCauseSync;
  std::string outcome;              // a word; empty: what the last pass came to still holds
  std::string outcomeText;          // the same for people
  std::string cache;                // a word; empty: nothing new of it
  std::optional<BatchFacts> batch;  // the one that came, if one did
  bool isWhole = false;  // the batch was everything: problems of before are over unless they are told again
  std::unordered_set<std::string> settled;  // places of which what is told is all there is
  std::vector<RecordProblem> problems;
  HostReport::DriftList drifts;
  HostReport::Memory memory;  // without a state: nothing new of it
  std::int64_t nextSync = 0;  // 0: nothing is scheduled
  std::int64_t nextRefresh = 0;
};

// `batch` and `writes` are those of the pass.
PassNews newsOf(const PassResult& pass, const std::optional<BatchFacts>& batch, const RegistryWrites& writes);
PassNews newsOf(const RefreshResult& refresh);
PassNews newsOfPush(bool isApplied, const BatchFacts& batch, const RegistryWrites& writes);

}  // namespace host
