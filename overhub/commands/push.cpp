// `overhub push`: has clients apply their batches now.
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>
#include <vector>

#include "common/machine_identity.h"
#include "overhub/commands/change_options.h"
#include "overhub/commands/client_requests.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/record_check.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/stage_sizes.h"
#include "overhub/commands/staged_push.h"
#include "overhub/commands/store_place.h"
#include "overhub/commands/target.h"
#include "overhub/store/acknowledgements.h"
#include "overhub/store/file_access.h"
#include "overhub/store/hand_out.h"
#include "overhub/store/scope.h"
#include "records/record_rules.h"

namespace {

constexpr const char* kFooter =
    R"(Prints "applied" or "failed", which "acks" lists too; for several machines in a table.

Examples:
  overhub push web-1
  overhub push @berlin --parallel 32
  overhub push web-1 web-1.xml             (a file that "uploads web-1 --out" has written, or one like it)
  overhub push @berlin --stages 1,10%,100% --parallel 32 --stop-at-failures 2 --confirm 5m
  overhub push --resume

In stages, machines fetch their batches themselves when they are called, or with their next pass. Those whose stage
has not come get nothing new until then, not with their own passes either. A machine is in effect when its report
shows it, and fails when that says otherwise or does not come in time. With --confirm the machines of a stage that
fails go back to what they held before. Exit code 0: all are in effect; 1: they are not.)";

// A file may hold more than a person can type.
CWmError checkPushed(const OBGui::RegistryKeyInfo& record) {
  if (record.encryptedValue->isUnreadable()) {
    return {kLqErrRequestRefused, "its secret \"" + record.valueName.get() + "\" in \"" +
                                      record.keyPath.get() +
                                      "\" was protected with another key than the store's"};
  }
  OBGui::RegistryKeyInfo typed = record;
  if (!isKey(record)) {
    typed.valueType = std::string(STRINGTYPE);  // clients take every other word for that
    const std::string ended = valueOfExpiry(record.valueName.get());
    if (!ended.empty()) typed.valueName = ended;
  }
  return checkRecord(typed);
}

// The records of a file, as settings of the client's own.
int readFile(const std::string& client, const std::string& file, std::vector<Setting>& settings) {
  std::string text;
  if (const CWmError error = file_access::readWhole(file, text); error.IsError())
    return complain(kExitRefused, error.AsString());
  OBGui::RegistryTaskResp given;
  if (std::string error; given.unserialize(text, &error) != 0)
    return complain(kExitRefused, file + " is not a batch such as \"overhub uploads " + client +
                                      " --out FILE\" writes: " + error);
  OBGui::KeyList& keys = given.keys.edit();
  // An upload holds who its machine is to the server; another machine must not become that one.
  const std::size_t left = std::erase_if(keys, [](const auto& key) {
    return programs::isMachineIdentity(key.keyPath.get(), key.valueName.get());
  });
  if (left != 0) warn(std::to_string(left) + " values that say which machine it is are not pushed");
  // Keys come with the values in them; no client takes them from a server.
  std::erase_if(keys,
                [](const auto& key) { return isKey(key) && !isToBeRemoved(key) && !isCreatableKey(key); });
  CWmError error;
  for (const OBGui::RegistryKeyInfo& key : keys)
    if (!error.IsError()) error = checkPushed(key);
  if (!error.IsError()) error = settingsOf(keys, settings);
  return error.IsError() ? complain(kExitRefused, file + ": " + error.AsString()) : kExitOk;
}

// Makes what the file holds the client's own settings, in one revision.
int setFromFile(const Store& store, const std::string& client, const std::string& file,
                const ChangeOptions& change) {
  std::vector<Setting> settings;
  if (const int exitCode = readFile(client, file, settings); exitCode != kExitOk) return exitCode;
  return change.make(store, "push " + client + " " + file, [&](soci::session& session, ChangeSet& changes) {
    Client found;
    CWmError error = oneClient(session, client, found);
    for (Setting& setting : settings) {
      setting.scope = machineScope(found.id);
      changes.put(setting);
    }
    return error;
  });
}

// What a push may take beside its waits for the client, in seconds.
constexpr std::int64_t kLeaseMargin = 60;

RequestOutcome sendBatch(const Store& store, ClientLink& link) {
  const std::string& name = link.client().name;
  HandOut out;
  CWmError error = handOutForPush(store, name, link.longestSeconds() + kLeaseMargin, out);
  if (error.IsError()) return failedRequest(error);
  if (!out.refusal.empty()) return failedRequest(kExitRefused, out.refusal);
  OBGui::RegistryTaskResp answer;
  RequestOutcome outcome = link.ask(out.batch, answer);
  error = notePushed(store, name, out);
  if (error.IsError()) return failedRequest(error);
  if (outcome.exitCode != kExitOk) return outcome;
  const std::int64_t status = answer.taskStatus;
  if (status != OBGui::kTaskSuccess && status != OBGui::kTaskFailed)
    return link.answeredWith("the task status " + std::to_string(status));
  outcome.verdict = outcomeText(status);
  // A push does not reach the client's cache and proves no hand-out.
  constexpr std::int64_t kNoHandOut = 0;
  error = acknowledge(store, name, kNoHandOut, answer.client->clientId, status);
  if (error.IsError()) outcome.complaint = error.AsString();
  outcome.exitCode = error.IsError()                 ? exitCodeOf(error)
                     : status == OBGui::kTaskSuccess ? kExitOk
                                                     : kExitRefused;
  return outcome;
}

constexpr std::int64_t kDefaultWait = 600;  // seconds
constexpr std::int64_t kWaitMargin = 60;    // beyond the time that machines have to be confirmed
constexpr std::int64_t kMaxWait = std::int64_t{30} * 86400;

struct Push {
  ClientRequests requests;
  std::string file;
  ChangeOptions change;
  std::string stages;
  std::optional<std::int64_t> stopAt;
  std::optional<std::int64_t> wait;
  std::optional<std::string> resumed;  // empty: the only one that there is
  std::optional<std::int64_t> ended;
  Listing list{"machines",
               {{"Machine", "machine", Listing::Kind::text},
                {"Stage", "stage", Listing::Kind::number},
                {"Result", "result", Listing::Kind::text},
                {"Text", "text", Listing::Kind::text}}};

  bool isStaged() const { return !stages.empty() || resumed || ended; }
};

int pushAtOnce(const Store& store, const Push& wanted) {
  if (wanted.stopAt || wanted.wait || wanted.list.isForPrograms())
    return complain(kExitUsage, "--stop-at-failures, --wait and --json are for a push in --stages");
  std::vector<Client> clients;
  int exitCode = wanted.requests.find(store, clients);
  if (exitCode != kExitOk) return exitCode;
  if (wanted.file.empty() && (wanted.change.isGiven() || wanted.change.isConfirmGiven())) {
    return complain(kExitUsage,
                    "without a FILE a push changes nothing, so there is nothing that --why, "
                    "--dry-run, --expect or --force could be about; --confirm goes with --stages, too");
  }
  if (!wanted.file.empty()) {
    if (clients.size() != 1)
      return complain(kExitUsage, "a file is pushed to one client; what it says is set for it");
    exitCode = setFromFile(store, clients.front().name, wanted.file, wanted.change);
    if (exitCode != kExitOk || wanted.change.isDryRun()) return exitCode;
  }
  return wanted.requests.make(store, clients, [&store](ClientLink& link) { return sendBatch(store, link); });
}

// Puts what the command line says into a push in stages; of one that goes on, what it says nothing of stays.
CWmError readTerms(const Push& wanted, Rollout& rollout) {
  if (wanted.change.isConfirmGiven())
    if (CWmError error = wanted.change.readDemand(rollout.demand); error.IsError())
      return {kLqErrArgument, error.AsString()};
  rollout.stopAt = wanted.stopAt.value_or(rollout.stopAt);
  if (wanted.wait) {
    rollout.wait = *wanted.wait;
  } else if (rollout.wait < rollout.demand + kWaitMargin) {
    rollout.wait = std::max(kDefaultWait, rollout.demand + kWaitMargin);
  }
  return rollout.wait <= kMaxWait ? CWmError() : CWmError{kLqErrArgument, "--wait takes 30 days at most"};
}

CWmError beginStaged(const Store& store, const Push& wanted, const std::vector<Client>& clients,
                     const std::string& runner, Rollout& rollout) {
  std::vector<std::size_t> ends;
  CWmError error = readStages(wanted.stages, clients.size(), ends);
  if (!error.IsError()) error = readTerms(wanted, rollout);
  if (error.IsError()) return error;
  rollout.who = whoTypes();
  rollout.target = wanted.requests.target();
  rollout.stages = static_cast<std::int64_t>(ends.size());
  std::vector<RolloutMachine> machines;
  machines.reserve(clients.size());
  for (const Client& client : clients) {
    const auto end = std::upper_bound(ends.begin(), ends.end(), machines.size());
    RolloutMachine& machine = machines.emplace_back();
    machine.client = client.id;
    machine.stage = end - ends.begin() + 1;
  }
  const Database& database = store.database();
  return database.write([&](soci::session& session) {
    rollout.revision = newestRevision(session);
    return beginRollout(session, rollout, machines, runner, database.now(session));
  });
}

// The one that a person names, or the only one that is not over.
CWmError findStaged(soci::session& session, const std::string& name, Rollout& rollout) {
  if (!name.empty()) {
    std::int64_t number = 0;
    const auto [end, fault] = std::from_chars(name.data(), name.data() + name.size(), number);
    const bool isNumber = fault == std::errc() && end == name.data() + name.size();
    const auto found = isNumber ? findRollout(session, number) : std::nullopt;
    if (!found) return {kLqErrRequestRefused, "there is no push " + name + " in stages"};
    rollout = *found;
    return {};
  }
  const std::vector<Rollout> open = openRollouts(session);
  if (open.empty()) return {kLqErrRequestRefused, "no push in stages is left to go on with"};
  if (open.size() > 1) {
    std::string numbers;
    for (const Rollout& each : open)
      numbers += (numbers.empty() ? "" : ", ") + std::to_string(each.number) + " to " + each.target;
    return {kLqErrRequestRefused, "several are left to go on with, so say which: " + numbers};
  }
  rollout = open.front();
  return {};
}

CWmError resumeStaged(const Store& store, const Push& wanted, const std::string& runner, Rollout& rollout) {
  const Database& database = store.database();
  return database.write([&](soci::session& session) {
    CWmError error = findStaged(session, *wanted.resumed, rollout);
    if (!error.IsError()) error = readTerms(wanted, rollout);
    if (error.IsError()) return error;
    rollout.revision = newestRevision(session);
    return takeUpRollout(session, rollout, runner, database.now(session));
  });
}

int endStaged(const Store& store, std::int64_t number) {
  const Database& database = store.database();
  const CWmError error = database.writeOnce(
      [&](soci::session& session) { return giveUpRollout(session, number, database.now(session)); });
  if (error.IsError()) return storeFailed(error);
  print("push " + std::to_string(number) + ": ended; no machine is held back by it any more\n");
  return kExitOk;
}

int pushInStages(const Store& store, Push& wanted) {
  const int ways = (wanted.stages.empty() ? 0 : 1) + (wanted.resumed ? 1 : 0) + (wanted.ended ? 1 : 0);
  if (ways > 1 || !wanted.file.empty() || wanted.change.isGiven() ||
      (wanted.stages.empty() && !wanted.requests.target().empty())) {
    return complain(
        kExitUsage,
        "a push in stages takes either a TARGET with --stages, or --resume, or --end, and neither "
        "a FILE nor what goes with one");
  }
  if (wanted.ended) return endStaged(store, *wanted.ended);
  const std::string runner = whoTypes() + ", process " + std::to_string(::getpid());
  Rollout rollout;
  CWmError error;
  if (wanted.resumed) {
    error = resumeStaged(store, wanted, runner, rollout);
  } else {
    std::vector<Client> clients;
    if (const int exitCode = wanted.requests.find(store, clients); exitCode != kExitOk) return exitCode;
    error = beginStaged(store, wanted, clients, runner, rollout);
  }
  if (error.IsError()) return storeFailed(error);
  const std::string number = std::to_string(rollout.number);
  const bool isForPrograms = wanted.list.isForPrograms();
  if (!isForPrograms) {
    print("push " + number + " of revision " + std::to_string(rollout.revision) + " in " +
          std::to_string(rollout.stages) + " stages; if it is interrupted, \"overhub push --resume " +
          number + "\" goes on with it\n");
  }
  StagedPush push(store, rollout, runner, isForPrograms);
  error = push.run(wanted.requests.way(), wanted.requests.parallel());
  if (error.IsError()) return storeFailed(error);
  push.addTo(wanted.list);
  print(wanted.list.output());
  if (!isForPrograms) print(push.summary() + "\n");
  return push.areAllInEffect() ? kExitOk : kExitRefused;
}

int push(const Store& store, Push& wanted) {
  return wanted.isStaged() ? pushInStages(store, wanted) : pushAtOnce(store, wanted);
}

}  // namespace

void addPush(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Push>();
  auto options = line.add("push", "Have clients apply their batches now",
                          onStore(place, [wanted](const Store& store) { return push(store, *wanted); }));
  constexpr bool kMayLackTarget = true;
  wanted->requests.describe(options, kMayLackTarget);
  options.option("FILE", wanted->file, "Set what this file holds for the one client first, in one revision");
  options
      .option("--stages STAGES", wanted->stages,
              "Go on to the next stage once the one before is in effect: " + std::string(kStageForms))
      .option("--stop-at-failures N", wanted->stopAt, 1,
              "Stop once so many machines have failed; otherwise 1")
      .option("--wait SECONDS", wanted->wait, 1,
              "How long a machine may take to be in effect, or to go back; otherwise 600, or a minute more "
              "than --confirm says")
      .maybeWithValue("--resume [PUSH]", wanted->resumed,
                      "Go on with a push in stages that was interrupted or stopped, from its first stage on, "
                      "with what is set by now")
      .option("--end PUSH", wanted->ended, 1, "Give up a push in stages: it holds back no machine any more");
  wanted->change.describe(options);
  wanted->list.describe(options);
  options.footer(kFooter);
}
