#include "overhub/store/rollouts.h"

#include <algorithm>
#include <array>
#include <utility>

#include "overhub/store/change.h"
#include "overhub/store/query.h"

namespace {

using soci::into;
using soci::use;

// How many that are over are remembered at least.
constexpr std::int64_t kKept = 20;

// Of a machine, by epoch and number.
constexpr const char* kNewestReport =
    "COALESCE((SELECT r.epoch || ' ' || r.sequence FROM reports r WHERE r.client = rollout_machines.client),"
    " '')";

constexpr std::array kStates{RolloutState::running, RolloutState::stopped, RolloutState::done,
                             RolloutState::ended};
constexpr std::array kResults{RolloutResult::held, RolloutResult::waiting, RolloutResult::inEffect,
                              RolloutResult::failed, RolloutResult::back};

RolloutState stateOf(const std::string& name) {
  const auto found = std::find_if(kStates.begin(), kStates.end(),
                                  [&name](RolloutState state) { return name == rolloutStateName(state); });
  return found == kStates.end() ? RolloutState::ended : *found;
}

RolloutResult resultOf(const std::string& name) {
  const auto found = std::find_if(kResults.begin(), kResults.end(), [&name](RolloutResult result) {
    return name == rolloutResultName(result);
  });
  return found == kResults.end() ? RolloutResult::waiting : *found;
}

template <class... Uses>
std::vector<Rollout> select(soci::session& session, const std::string& rest, Uses&&... uses) {
  std::vector<Rollout> rollouts;
  Rollout row;
  std::string state;
  const auto keep = [&] {
    row.state = stateOf(state);
    rollouts.push_back(row);
  };
  forEachRow(session,
             "SELECT number, time, who, target, revision, stage, stages, stop_at, wait, demand, state FROM "
             "rollouts " +
                 rest,
             keep, into(row.number), into(row.time), into(row.who), into(row.target), into(row.revision),
             into(row.stage), into(row.stages), into(row.stopAt), into(row.wait), into(row.demand),
             into(state), std::forward<Uses>(uses)...);
  return rollouts;
}

void forgetOld(soci::session& session, std::int64_t newest) {
  const std::int64_t last = newest - kKept;
  session << "DELETE FROM rollouts WHERE number <= :last AND state IN ('done', 'ended')", use(last, "last");
  session << "DELETE FROM rollout_machines WHERE rollout NOT IN (SELECT number FROM rollouts)";
}

// Takes the row, so that of two who want it one waits, and finds out who is at it.
CWmError findFree(soci::session& session, std::int64_t number, const std::string& runner, std::int64_t now) {
  std::string state;
  std::string other;
  std::int64_t leasedUntil = 0;
  session << "UPDATE rollouts SET state = state WHERE number = :number", use(number, "number");
  session << "SELECT state, runner, leased_until FROM rollouts WHERE number = :number", use(number, "number"),
      into(state), into(other), into(leasedUntil);
  const std::string push = "push " + std::to_string(number);
  if (state.empty()) return {kLqErrRequestRefused, "there is no " + push + " in stages"};
  if (stateOf(state) == RolloutState::done || stateOf(state) == RolloutState::ended)
    return {kLqErrRequestRefused, push + " is over"};
  if (other != runner && leasedUntil > now) {
    return {kLqErrRequestRefused, other + " is at " + push + "; it can be taken up " +
                                      std::to_string(leasedUntil - now) + " s after that was cut off"};
  }
  return {};
}

// No hand-out to them is made meanwhile.
void takeContacts(soci::session& session, std::int64_t rollout) {
  session
      << "UPDATE contacts SET refusal = refusal WHERE client IN (SELECT client FROM rollout_machines WHERE"
         " rollout = :rollout)",
      use(rollout, "rollout");
}

void holdAll(soci::session& session, std::int64_t rollout) {
  takeContacts(session, rollout);
  session << "UPDATE rollout_machines SET state = 'held', why = '', held = COALESCE((SELECT c.handed_revision"
             " FROM contacts c WHERE c.client = rollout_machines.client), 0) WHERE rollout = :rollout",
      use(rollout, "rollout");
}

std::string pushText(std::int64_t number) {
  return "push " + std::to_string(number);
}

std::string wayOn(std::int64_t number) {
  std::string text = "\"overhub push --resume ";
  text += std::to_string(number);
  text += "\" goes on with it, --end gives it up";
  return text;
}

CWmError checkFree(soci::session& session, const std::vector<RolloutMachine>& machines) {
  std::unordered_map<std::int64_t, std::pair<std::int64_t, std::string>> taken;
  std::int64_t client = 0;
  std::int64_t rollout = 0;
  std::string clientName;
  forEachRow(
      session,
      "SELECT m.client, m.rollout, c.name FROM rollout_machines m JOIN rollouts r ON r.number = m.rollout "
      "JOIN"
      " clients c ON c.id = m.client WHERE r.state IN ('running', 'stopped')",
      [&] {
        taken[client] = {rollout, clientName};
      },
      into(client), into(rollout), into(clientName));
  for (const RolloutMachine& machine : machines) {
    const auto found = taken.find(machine.client);
    if (found == taken.end()) continue;
    const auto& [number, name] = found->second;
    return {kLqErrRequestRefused,
            name + " is in " + pushText(number) + ", which is not over; " + wayOn(number)};
  }
  return {};
}

}  // namespace

const char* rolloutStateName(RolloutState state) {
  switch (state) {
    case RolloutState::running:
      return "running";
    case RolloutState::stopped:
      return "stopped";
    case RolloutState::done:
      return "done";
    case RolloutState::ended:
      break;
  }
  return "ended";
}

const char* rolloutResultName(RolloutResult result) {
  switch (result) {
    case RolloutResult::held:
      return "held";
    case RolloutResult::waiting:
      return "waiting";
    case RolloutResult::inEffect:
      return "inEffect";
    case RolloutResult::failed:
      return "failed";
    case RolloutResult::back:
      break;
  }
  return "back";
}

CWmError beginRollout(soci::session& session, Rollout& rollout, const std::vector<RolloutMachine>& machines,
                      const std::string& runner, std::int64_t now) {
  // Of two that begin at once one waits at this row.
  session << "UPDATE counters SET value = value WHERE name = :name", use(kRevisionCounter, "name");
  CWmError error = checkFree(session, machines);
  if (error.IsError()) return error;
  session << "SELECT COALESCE(MAX(number), 0) FROM rollouts", into(rollout.number);
  ++rollout.number;
  rollout.time = now;
  rollout.stage = 1;
  rollout.state = RolloutState::running;
  const std::string state = rolloutStateName(rollout.state);
  const std::int64_t leasedUntil = now + kRolloutLease;
  session
      << "INSERT INTO rollouts (number, time, who, target, revision, stage, stages, stop_at, wait, demand,"
         " state, runner, leased_until) VALUES (:number, :time, :who, :target, :revision, :stage, :stages,"
         " :stop_at, :wait, :demand, :state, :runner, :leased)",
      use(rollout.number, "number"), use(rollout.time, "time"), use(rollout.who, "who"),
      use(rollout.target, "target"), use(rollout.revision, "revision"), use(rollout.stage, "stage"),
      use(rollout.stages, "stages"), use(rollout.stopAt, "stop_at"), use(rollout.wait, "wait"),
      use(rollout.demand, "demand"), use(state, "state"), use(runner, "runner"), use(leasedUntil, "leased");
  std::int64_t position = 0;
  RolloutMachine row;
  soci::statement insert =
      (session.prepare
           << "INSERT INTO rollout_machines (rollout, client, position, stage, state, why, held,"
              " handed, reported) VALUES (:rollout, :client, :position, :stage, 'held', '', 0, 0, '')",
       use(rollout.number, "rollout"), use(row.client, "client"), use(position, "position"),
       use(row.stage, "stage"));
  for (const RolloutMachine& machine : machines) {
    row = machine;
    insert.execute(true);
    ++position;
  }
  holdAll(session, rollout.number);
  forgetOld(session, rollout.number);
  return {};
}

std::optional<Rollout> findRollout(soci::session& session, std::int64_t number) {
  const auto found = select(session, "WHERE number = :number", use(number, "number"));
  return found.empty() ? std::nullopt : std::optional(found.front());
}

std::vector<Rollout> openRollouts(soci::session& session) {
  return select(session, "WHERE state IN ('running', 'stopped') ORDER BY number");
}

std::vector<RolloutMachine> machinesOf(soci::session& session, std::int64_t rollout) {
  std::vector<RolloutMachine> machines;
  RolloutMachine row;
  std::string result;
  const auto keep = [&] {
    row.result = resultOf(result);
    machines.push_back(row);
  };
  forEachRow(
      session,
      "SELECT client, stage, state, why, handed, reported FROM rollout_machines WHERE rollout = :rollout"
      " ORDER BY position",
      keep, into(row.client), into(row.stage), into(result), into(row.why), into(row.handed),
      into(row.reported), use(rollout, "rollout"));
  return machines;
}

CWmError takeUpRollout(soci::session& session, const Rollout& rollout, const std::string& runner,
                       std::int64_t now) {
  CWmError error = findFree(session, rollout.number, runner, now);
  if (error.IsError()) return error;
  const std::int64_t leasedUntil = now + kRolloutLease;
  session
      << "UPDATE rollouts SET state = 'running', stage = 1, revision = :revision, stop_at = :stop_at,"
         " wait = :wait, demand = :demand, runner = :runner, leased_until = :leased WHERE number = :number",
      use(rollout.revision, "revision"), use(rollout.stopAt, "stop_at"), use(rollout.wait, "wait"),
      use(rollout.demand, "demand"), use(runner, "runner"), use(leasedUntil, "leased"),
      use(rollout.number, "number");
  holdAll(session, rollout.number);
  return {};
}

CWmError giveUpRollout(soci::session& session, std::int64_t number, std::int64_t now) {
  CWmError error = findFree(session, number, "", now);
  if (!error.IsError()) endRollout(session, number, RolloutState::ended);
  return error;
}

CWmError renewRollout(soci::session& session, std::int64_t number, const std::string& runner,
                      std::int64_t now) {
  CWmError error = findFree(session, number, runner, now);
  if (error.IsError()) return error;
  const std::int64_t leasedUntil = now + kRolloutLease;
  session << "UPDATE rollouts SET runner = :runner, leased_until = :leased WHERE number = :number",
      use(runner, "runner"), use(leasedUntil, "leased"), use(number, "number");
  return {};
}

void beginStage(soci::session& session, const Rollout& rollout, std::int64_t stage) {
  const std::string machines =
      " (SELECT client FROM rollout_machines WHERE rollout = :rollout AND stage = :stage)";
  session
      << "INSERT INTO confirmations (client, confirmed, asks, told, released) SELECT client, 0, 0, 0, -1"
         " FROM rollout_machines WHERE rollout = :rollout AND stage = :stage ON CONFLICT (client) DO NOTHING",
      use(rollout.number, "rollout"), use(stage, "stage");
  session
      << "UPDATE confirmations SET back_from = 0, back_to = 0, released = COALESCE((SELECT r.back_since FROM"
         " reports r WHERE r.client = confirmations.client), released) WHERE client IN" +
             machines,
      use(rollout.number, "rollout"), use(stage, "stage");
  if (rollout.demand != HostReport::kDemandNothing) {
    session << "UPDATE confirmations SET demanded = :demanded, demand = :demand WHERE client IN" + machines,
        use(rollout.revision, "demanded"), use(rollout.demand, "demand"), use(rollout.number, "rollout"),
        use(stage, "stage");
  }
  session << "UPDATE rollout_machines SET state = 'waiting', why = '', held = 0, handed = COALESCE((SELECT"
             " c.handed FROM contacts c WHERE c.client = rollout_machines.client), 0), reported = " +
                 std::string(kNewestReport) + " WHERE rollout = :rollout AND stage = :stage",
      use(rollout.number, "rollout"), use(stage, "stage");
  session << "UPDATE rollouts SET stage = :stage WHERE number = :rollout", use(stage, "stage"),
      use(rollout.number, "rollout");
}

void noteResult(soci::session& session, std::int64_t rollout, const RolloutMachine& machine) {
  const std::string result = rolloutResultName(machine.result);
  session << "UPDATE rollout_machines SET state = :state, why = :why WHERE rollout = :rollout AND client ="
             " :client",
      use(result, "state"), use(machine.why, "why"), use(rollout, "rollout"), use(machine.client, "client");
}

void stopStage(soci::session& session, const Rollout& rollout, bool isTakenBack) {
  takeContacts(session, rollout.number);
  const std::string handed =
      "(SELECT c.handed_revision FROM contacts c WHERE c.client = rollout_machines.client)";
  const std::string isOfStage = " rollout = :rollout AND stage = :stage AND " + handed;
  session << "UPDATE rollout_machines SET held = " + handed +
                 ", state = CASE WHEN state = 'waiting' THEN 'held' ELSE state END WHERE" + isOfStage +
                 " > 0 AND " + handed + " < :revision",
      use(rollout.number, "rollout"), use(rollout.stage, "stage"), use(rollout.revision, "revision");
  session << "UPDATE rollout_machines SET reported = " + std::string(kNewestReport) +
                 " WHERE rollout = :rollout AND stage = :stage",
      use(rollout.number, "rollout"), use(rollout.stage, "stage");
  if (!isTakenBack) return;
  const std::int64_t newest = newestRevision(session);
  const std::int64_t before = rollout.revision - 1;
  session
      << "UPDATE confirmations SET back_from = :first, back_to = :last, confirmed = CASE WHEN confirmed >"
         " :most THEN :before ELSE confirmed END WHERE client IN (SELECT client FROM rollout_machines WHERE" +
             isOfStage + " >= :revision)",
      use(rollout.revision, "first"), use(newest, "last"), use(before, "most"), use(before, "before"),
      use(rollout.number, "rollout"), use(rollout.stage, "stage"), use(rollout.revision, "revision");
}

void endRollout(soci::session& session, std::int64_t number, RolloutState state) {
  const std::string name = rolloutStateName(state);
  session << "UPDATE rollouts SET state = :state, runner = '', leased_until = 0 WHERE number = :number",
      use(name, "state"), use(number, "number");
  if (state != RolloutState::stopped)
    session << "UPDATE rollout_machines SET held = 0 WHERE rollout = :rollout", use(number, "rollout");
}

std::optional<Hold> holdOf(soci::session& session, std::int64_t client) {
  std::optional<Hold> found;
  Hold row;
  forEachRow(
      session, "SELECT rollout, held FROM rollout_machines WHERE client = :client AND held > 0",
      [&] { found = row; }, into(row.rollout), into(row.revision), use(client, "client"));
  return found;
}

std::unordered_map<std::int64_t, Hold> allHolds(soci::session& session) {
  std::unordered_map<std::int64_t, Hold> holds;
  std::int64_t client = 0;
  Hold row;
  forEachRow(
      session, "SELECT client, rollout, held FROM rollout_machines WHERE held > 0",
      [&] { holds[client] = row; }, into(client), into(row.rollout), into(row.revision));
  return holds;
}
