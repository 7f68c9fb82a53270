#include "overhub/commands/staged_push.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <thread>
#include <unordered_map>

#include "common/age_text.h"
#include "overhub/commands/reporting.h"
#include "overhub/store/confirmations.h"

namespace {

// How often is looked, at least so long after a look began, and so many times as long as it took.
constexpr std::chrono::milliseconds kPause{250};
constexpr int kPauseFactor = 5;
// How often the lease is renewed.
constexpr std::chrono::seconds kRenewal{kRolloutLease / 3};
// Whether a machine is missed does not matter here.
constexpr std::int64_t kNeverSilent = std::numeric_limits<std::int64_t>::max();

std::string joined(const std::string& first, const std::string& second) {
  return first.empty() || second.empty() ? first + second : first + "; " + second;
}

// On a terminal, one line that is written over.
void showProgress(const std::string& text) {
  if (::isatty(STDERR_FILENO) == 0) return;
  std::fprintf(stderr, "\r\x1b[K%s", text.c_str());
  std::fflush(stderr);
}

}  // namespace

CWmError StagedPush::run(ClientLink::Way way, int parallel) {
  PassCalls calls(store_, std::move(way), parallel);
  for (rollout_.stage = 1; rollout_.stage <= rollout_.stages; ++rollout_.stage) {
    CWmError error = runStage(calls);
    showProgress("");
    if (error.IsError()) return error;
    tellStage();
    if (!hasFailed()) continue;
    error = stop(calls);
    showProgress("");
    return error;
  }
  rollout_.stage = rollout_.stages;
  rollout_.state = RolloutState::done;
  return write([this](soci::session& session) {
    endRollout(session, rollout_.number, rollout_.state);
    return CWmError();
  });
}

// What whoever is at it may write, and nobody else.
CWmError StagedPush::write(const Database::Work& work) {
  const Database& database = store_.database();
  CWmError error = database.writeOnce([&](soci::session& session) {
    CWmError fault = renewRollout(session, rollout_.number, runner_, database.now(session));
    return fault.IsError() ? fault : work(session);
  });
  renewed_ = Clock::now();
  return error;
}

CWmError StagedPush::renewWhereDue() {
  if (Clock::now() - renewed_ < kRenewal) return {};
  return write([](soci::session&) { return CWmError(); });
}

CWmError StagedPush::load() {
  return store_.database().read([this](soci::session& session) -> CWmError {
    std::unordered_map<std::int64_t, Client> clients;
    for (Client& client : allClients(session)) clients.emplace(client.id, std::move(client));
    machines_.clear();
    for (RolloutMachine& told : machinesOf(session, rollout_.number))
      if (const auto found = clients.find(told.client); found != clients.end())
        machines_.push_back({std::move(told), found->second});
    return {};
  });
}

CWmError StagedPush::runStage(PassCalls& calls) {
  CWmError error = write([this](soci::session& session) {
    beginStage(session, rollout_, rollout_.stage);
    return CWmError();
  });
  if (!error.IsError()) error = load();
  const auto deadline = Clock::now() + std::chrono::seconds(rollout_.wait);
  for (bool areCalled = false; !error.IsError(); areCalled = true) {
    const auto began = Clock::now();
    error = look();
    if (error.IsError() || hasFailed() || count(RolloutResult::waiting, rollout_.stage) == 0) break;
    if (!areCalled) {
      for (const Machine* machine : machinesOfStage())
        if (machine->told.result == RolloutResult::waiting) calls.add(machine->client);
    }
    if (Clock::now() >= deadline) {
      std::vector<Machine*> changed;
      giveUp(calls, changed);
      error = note(changed);
      break;
    }
    showProgress(stageText());
    pauseAfter(began);
    error = renewWhereDue();
  }
  calls.forgetWaiting();
  return error;
}

FleetStatus StagedPush::statusOf(soci::session& session, const std::vector<Machine*>& machines) const {
  std::vector<Client> clients;
  clients.reserve(machines.size());
  for (const Machine* machine : machines) clients.push_back(machine->client);
  return fleetStatus(session, std::move(clients), store_.database().now(session), kNeverSilent);
}

// Finds out how far the machines of the stage have come.
CWmError StagedPush::look() {
  std::vector<Machine*> waiting = machinesOfStage();
  std::erase_if(waiting,
                [](const Machine* machine) { return machine->told.result != RolloutResult::waiting; });
  std::vector<Proof> proofs;
  CWmError error = store_.database().read([&](soci::session& session) -> CWmError {
    proofs.clear();
    const FleetStatus fleet = statusOf(session, waiting);
    const auto confirmed = allConfirmed(session);
    for (std::size_t i = 0; i < waiting.size(); ++i) {
      const auto found = confirmed.find(waiting[i]->client.id);
      proofs.push_back(proofOf(session, rollout_, waiting[i]->told, fleet.machines[i],
                               found == confirmed.end() ? 0 : found->second));
    }
    return {};
  });
  if (error.IsError()) return error;
  std::vector<Machine*> changed;
  for (std::size_t i = 0; i < waiting.size(); ++i) {
    RolloutMachine& told = waiting[i]->told;
    told.why = std::move(proofs[i].why);
    if (told.result == proofs[i].result) continue;
    told.result = proofs[i].result;
    changed.push_back(waiting[i]);
  }
  return note(changed);
}

void StagedPush::giveUp(const PassCalls& calls, std::vector<Machine*>& changed) {
  const std::string limit = "not in effect within " + programs::durationText(rollout_.wait);
  for (Machine* machine : machinesOfStage()) {
    if (machine->told.result != RolloutResult::waiting) continue;
    machine->told.result = RolloutResult::failed;
    machine->told.why =
        limit + ": " + joined(machine->told.why, calls.standingOf(machine->client.id).complaint);
    changed.push_back(machine);
  }
}

CWmError StagedPush::stop(PassCalls& calls) {
  rollout_.state = RolloutState::stopped;
  CWmError error = write([this](soci::session& session) {
    stopStage(session, rollout_, rollout_.goesBack());
    return CWmError();
  });
  if (!error.IsError()) error = load();
  if (!error.IsError() && rollout_.goesBack()) error = goBack(calls);
  if (error.IsError()) return error;
  return write([this](soci::session& session) {
    endRollout(session, rollout_.number, rollout_.state);
    return CWmError();
  });
}

// Has the machines of the stage that hold what failed go back. Who cannot be called is not waited for: it
// goes back with its next pass.
CWmError StagedPush::goBack(PassCalls& calls) {
  std::vector<Machine*> left = machinesOfStage();
  CWmError error = eraseReturned(calls, left);
  for (Machine* machine : left) {
    if (machine->told.result == RolloutResult::inEffect) machine->told.result = RolloutResult::waiting;
    calls.add(machine->client);
  }
  const std::vector<Machine*> told = left;
  const auto deadline = Clock::now() + std::chrono::seconds(rollout_.wait);
  while (!error.IsError() && !left.empty() && Clock::now() < deadline) {
    const auto began = Clock::now();
    showProgress(std::to_string(left.size()) + " machines are to go back");
    pauseAfter(began);
    error = renewWhereDue();
    if (!error.IsError()) error = eraseReturned(calls, left);
  }
  for (Machine* machine : left)
    machine->told.why = joined(machine->told.why, "has not gone back; is told so with its next pass");
  return error.IsError() ? error : note(told);
}

CWmError StagedPush::eraseReturned(const PassCalls& calls, std::vector<Machine*>& left) {
  std::vector<bool> isBack;
  CWmError error = store_.database().read([&](soci::session& session) -> CWmError {
    isBack.clear();
    const FleetStatus fleet = statusOf(session, left);
    for (std::size_t i = 0; i < left.size(); ++i)
      isBack.push_back(!hasToGoBack(session, rollout_, left[i]->told, fleet.machines[i]));
    return {};
  });
  if (error.IsError()) return error;
  std::vector<Machine*> still;
  for (std::size_t i = 0; i < left.size(); ++i) {
    RolloutMachine& told = left[i]->told;
    const PassCalls::Standing call = calls.standingOf(told.client);
    if (isBack[i]) {
      if (told.result != RolloutResult::failed) told.result = RolloutResult::back;
      if (told.result == RolloutResult::back) told.why.clear();
    } else if (call.isOver && !call.complaint.empty()) {
      told.why = joined(told.why, "goes back with its next pass: " + call.complaint);
    } else {
      still.push_back(left[i]);
    }
  }
  left = std::move(still);
  return {};
}

CWmError StagedPush::note(const std::vector<Machine*>& machines) {
  if (machines.empty()) return {};
  return write([&](soci::session& session) {
    for (const Machine* machine : machines) noteResult(session, rollout_.number, machine->told);
    return CWmError();
  });
}

bool StagedPush::hasFailed() const {
  return static_cast<std::int64_t>(count(RolloutResult::failed)) >= rollout_.stopAt;
}

std::size_t StagedPush::count(RolloutResult result, std::int64_t stage) const {
  return static_cast<std::size_t>(std::count_if(machines_.begin(), machines_.end(), [&](const Machine& each) {
    return each.told.result == result && (stage == kAnyStage || each.told.stage == stage);
  }));
}

std::vector<StagedPush::Machine*> StagedPush::machinesOfStage() {
  std::vector<Machine*> machines;
  for (Machine& machine : machines_)
    if (machine.told.stage == rollout_.stage) machines.push_back(&machine);
  return machines;
}

std::string StagedPush::stageText() const {
  const std::size_t inEffect = count(RolloutResult::inEffect, rollout_.stage);
  const std::size_t failed = count(RolloutResult::failed, rollout_.stage);
  const std::size_t waiting = count(RolloutResult::waiting, rollout_.stage);
  return "stage " + std::to_string(rollout_.stage) + " of " + std::to_string(rollout_.stages) + ": " +
         std::to_string(inEffect) + " in effect" +
         (failed == 0 ? "" : ", " + std::to_string(failed) + " failed") +
         (waiting == 0 ? "" : ", " + std::to_string(waiting) + " waiting");
}

void StagedPush::tellStage() const {
  if (isQuiet_) return;
  print(stageText() + "\n");
  std::fflush(stdout);
}

void StagedPush::pauseAfter(Clock::time_point began) const {
  std::this_thread::sleep_for(std::max<Clock::duration>(kPause, (Clock::now() - began) * kPauseFactor));
}

void StagedPush::addTo(Listing& list) const {
  using Kind = Listing::Kind;
  list.addFact({"Push", "push", Kind::number}, rollout_.number);
  list.addFact({"State", "state", Kind::text}, rolloutStateName(rollout_.state));
  list.addFact({"Revision", "revision", Kind::number}, rollout_.revision);
  list.addFact({"Stage", "stage", Kind::number}, rollout_.stage);
  list.addFact({"Stages", "stages", Kind::number}, rollout_.stages);
  for (const Machine& machine : machines_)
    list.addRow(
        {machine.client.name, machine.told.stage, rolloutResultName(machine.told.result), machine.told.why});
}

std::string StagedPush::summary() const {
  const std::string number = std::to_string(rollout_.number);
  std::string text = "push " + number + ": " + rolloutStateName(rollout_.state);
  if (rollout_.state == RolloutState::stopped)
    text += " in stage " + std::to_string(rollout_.stage) + " of " + std::to_string(rollout_.stages);
  const std::pair<RolloutResult, const char*> words[] = {{RolloutResult::inEffect, "in effect"},
                                                         {RolloutResult::failed, "failed"},
                                                         {RolloutResult::back, "gone back"},
                                                         {RolloutResult::waiting, "not known"},
                                                         {RolloutResult::held, "held back"}};
  std::string separator = "; ";
  for (const auto& [result, word] : words) {
    const std::size_t machines = count(result);
    if (machines == 0) continue;
    text += separator + std::to_string(machines) + " " + word;
    separator = ", ";
  }
  if (rollout_.state == RolloutState::stopped) {
    text += "; \"overhub push --resume " + number +
            "\" tries again from the first stage on, \"overhub push --end " + number +
            "\" lets all machines have it";
  }
  return text;
}
