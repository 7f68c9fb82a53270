// Random histories of a fleet: whatever administrators change and whatever becomes of the machines' passes,
// after two passes that were applied each machine holds what the server says, or the server says why not.
//
// What the server says is told here by a model of its own, which knows nothing of revisions, hand-outs and
// proofs. LQ_HISTORIES sets how many are played on each engine, LQ_HISTORIES_SEED the first one's seed.
#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>
#include <sstream>

#include "overhub/store/setting_place.h"
#include "overhub/store/undo.h"
#include "tests/overhub/simulated_client.h"
#include "tests/overhub/store_fixture.h"

namespace {

constexpr const char* kSubKey = "Local";
constexpr const char* kLocalValue = "local";
constexpr const char* kSubKeyPlace = "~/A/Local";

// The values of the fleet; of those in one place each is written in several ways. A client needs the last
// ones to come back.
struct Value {
  const char* place;
  std::vector<const char*> paths;
  const char* name;
  bool isWayBack = false;
};
const std::vector<Value> kValues{
    {"~/A", {"~/A", "A", "~//A/"}, "x"},
    {"~/B", {"~/B", "~B"}, "x"},
    {"~/A", {"A", "~/A"}, "y"},
    {"~", {"", "~", "~/"}, "z"},
    {kSubKeyPlace, {kSubKeyPlace, "A/Local"}, "y"},
    {"SOFTWARE/C", {"SOFTWARE/C", "SOFTWARE//C"}, "w"},
    {"~/QMachineMaint", {"QMachineMaint"}, "nTimer_AdditionalSettingsRefresh"},
    {"~/Spoolhand", {"Spoolhand", "~/Spoolhand"}, "nDisableLMPrune"},
    {"~/Packages", {"Packages"}, "bFULLSPOOLHAND"},
    {"~/Packages", {"~/Packages"}, "nPACKAGE_7"},
    {"~/EventManager", {"EventManager"}, "dOBLOGDIR"},
    {"SOFTWARE/Velmor/ClientProperties/7",
     {"SOFTWARE/Velmor/ClientProperties/7"},
     "AnalyticSearchEngineEnabled"},
    {"~/EventManager", {"EventManager"}, "bEnableRegistrySync", true},
    {"~/Overhub", {"Overhub", "~Overhub"}, "sOHHOSTNAME", true},
    {"~/Overhub", {"Overhub"}, "sOHCLIENTNAME", true},
    {"~/Overhub", {"~//Overhub"}, "sSESSIONIDENTITY", true},
    {"~/Overhub", {"Overhub/"}, "sSESSIONKEY", true},
    {"~/Session", {"Session"}, "bANTICHATTER", true},
    {"~/Machine", {"Machine"}, "sPHYSICALNAME", true},
    {"~/Machine", {"~Machine"}, "sHOSTNAME", true},
    {"~/Machine", {"Machine"}, "nPLATFORMTYPE", true},
    {"~/Hosts/pc", {"Hosts/pc"}, "sCLIENTNAME", true},
    {"~/Base", {"Base"}, "dBASEHOME", true},
    {"~/Base", {"~/Base"}, "dVELMORHOME", true},
    {"SOFTWARE/Velmor/Clients/pc", {"SOFTWARE/Velmor/Clients/pc"}, "nCLIENTID", true},
};

constexpr int kOrdinary = 12;  // no client needs the first ones

enum class Kind { kValue, kSecret, kDisabled, kRemoval };

// What one scope says of one value, or, by kSubKey, of the sub-key.
struct Said {
  Kind kind = Kind::kValue;
  std::string value;
  std::int64_t until = 0;

  bool isLive() const { return kind == Kind::kValue || kind == Kind::kSecret; }
  bool operator==(const Said&) const = default;
};

struct What {
  std::string place;
  std::string name;
  bool isSubKey = false;
  auto operator<=>(const What&) const = default;
};

// What is said, and to whom.
struct Rules {
  std::map<std::string, std::map<What, Said>> said;  // by scope
  std::map<std::string, int> groups;                 // their numbers
  std::set<std::pair<std::string, std::string>> members;
  std::set<std::int64_t> withdrawn;  // the machines to which nothing is said

  static bool isMeant(const std::string& pattern, const std::string& name) {
    if (pattern.ends_with('*')) return name.starts_with(pattern.substr(0, pattern.size() - 1));
    if (pattern.starts_with('*')) return name.ends_with(pattern.substr(1));
    return pattern == name;
  }

  // The nearest first.
  std::vector<std::string> scopesOf(const std::string& name, std::int64_t id) const {
    if (withdrawn.contains(id)) return {};
    std::map<int, std::string, std::greater<>> byNumber;
    for (const auto& [group, pattern] : members)
      if (groups.contains(group) && isMeant(pattern, name)) byNumber[groups.at(group)] = "g:" + group;
    std::vector<std::string> scopes{"c:" + std::to_string(id)};
    for (const auto& [number, scope] : byNumber) scopes.push_back(scope);
    scopes.emplace_back("@all");
    return scopes;
  }

  // What counts for a machine; of what is over for everybody the nearest.
  std::map<What, Said> countingFor(const std::string& name, std::int64_t id, std::int64_t now) const {
    std::map<What, Said> counts;
    for (const bool isOver : {false, true})
      for (const std::string& scope : scopesOf(name, id))
        if (const auto here = said.find(scope); here != said.end())
          for (const auto& [what, words] : here->second)
            if ((words.until != 0 && words.until < now) == isOver) counts.emplace(what, words);
    return counts;
  }
};

// Puts back in `is` what differs between the two.
template <class Key, class Value>
void putBack(const std::map<Key, Value>& before, const std::map<Key, Value>& after,
             std::map<Key, Value>& is) {
  for (const auto& [key, value] : after)
    if (!before.contains(key)) is.erase(key);
  for (const auto& [key, value] : before)
    if (!after.contains(key) || !(after.at(key) == value)) is[key] = value;
}
template <class Key>
void putBack(const std::set<Key>& before, const std::set<Key>& after, std::set<Key>& is) {
  for (const Key& key : after)
    if (!before.contains(key)) is.erase(key);
  for (const Key& key : before)
    if (!after.contains(key)) is.insert(key);
}

// The names that would end in one place and stay in another.
std::set<std::string> conflictsIn(const std::map<What, Said>& counts, std::int64_t now) {
  std::map<std::string, std::set<std::int64_t>> ends;
  for (const auto& [what, words] : counts)
    if (words.isLive() && (words.until == 0 || words.until >= now)) ends[what.name].insert(words.until);
  std::set<std::string> names;
  for (const auto& [name, times] : ends)
    if (times.size() > 1) names.insert(name);
  return names;
}

// The names that cannot be handed out, now or once one of the ends that are to come has passed.
std::set<std::string> conflictsFrom(const Rules& rules, const std::string& name, std::int64_t id,
                                    std::int64_t now) {
  std::set<std::int64_t> moments{now};
  for (const auto& [scope, here] : rules.said)
    for (const auto& [what, words] : here)
      if (words.until >= now) moments.insert(words.until + 1);
  std::set<std::string> names;
  for (const std::int64_t moment : moments)
    names.merge(conflictsIn(rules.countingFor(name, id, moment), moment));
  return names;
}

struct Machine {
  std::string name;
  std::int64_t id = 0;
  SimulatedClient client;
  SimulatedClient::Registry own;  // what was there before the server said anything
  std::set<What> everSaid;        // that counted for it in anything that it was handed
  std::set<What> everLive;
  bool isSubKeyEverRemoved = false;
  bool isCacheBehind = false;
  std::int64_t clockError = 0;
  std::vector<SimulatedClient> snapshots;
  std::vector<std::int64_t> late;  // acknowledgements that are still on their way
  std::optional<HandOut> pushed;   // and a push that is
};

class History {
 public:
  History(EngineKind engine, unsigned seed) : hub_(engine), random_(seed) {
    // Few values, so that what is said of one meets what was said of it before.
    for (int n = 2 + pick(4); n > 0; --n) few_.push_back(kValues[static_cast<std::size_t>(pick(kOrdinary))]);
    for (int n = 1 + pick(2); n > 0; --n) join();
  }

  // The first thing that is wrong, or nothing.
  std::string play() {
    for (int part = 2 + pick(6); part > 0; --part) {
      for (int steps = 3 + pick(10); steps > 0 && wrong_.empty(); --steps) step();
      for (Machine& machine : machines_) settle(machine, part == 1);
    }
    if (wrong_.empty()) return {};
    return wrong_ + "\nafter:\n" + story_.str();
  }

 private:
  int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }
  bool isOneIn(int n) { return pick(n) == 0; }
  template <class T>
  const T& oneOf(const std::vector<T>& list) {
    return list[static_cast<std::size_t>(pick(static_cast<int>(list.size())))];
  }
  void tell(const std::string& text) { story_ << "  " << text << '\n'; }
  void expect(bool isSo, const std::string& text) {
    if (!isSo && wrong_.empty()) wrong_ = text;
  }
  const Store& anyServer() { return isOneIn(2) ? hub_.one() : hub_.two(); }
  Machine& anyMachine() {
    return machines_[static_cast<std::size_t>(pick(static_cast<int>(machines_.size())))];
  }

  void step() {
    const int kind = pick(100);
    if (kind < 31) return edit();
    if (kind < 34) return undo();
    if (kind < 42) return regroup();
    if (kind < 43) return withdrawAll(anyMachine());
    if (kind < 45) return isOneIn(3) && machines_.size() > 1 ? leave() : join();
    if (kind < 50) return wait();
    if (kind < 78) return pass(anyMachine());
    if (kind < 88) return push(anyMachine());
    if (kind < 91) return refresh(anyMachine());
    if (kind < 95) return snapshot(anyMachine());
    goBack(anyMachine());
  }

  // --- changes ---

  std::string anyScope() {
    std::vector<std::string> scopes{"@all"};
    for (const auto& group : rules_.groups) scopes.push_back("g:" + group.first);
    for (const Machine& machine : machines_) scopes.push_back("c:" + std::to_string(machine.id));
    return oneOf(scopes);
  }

  std::string anySpeaker() {
    std::vector<std::string> scopes;
    for (const auto& [scope, said] : rules_.said)
      if (!said.empty()) scopes.push_back(scope);
    return scopes.empty() ? std::string("@all") : oneOf(scopes);
  }

  void edit() {
    Rules after = rules_;
    ChangeSet changes;
    std::string text;
    for (int n = 1 + pick(3); n > 0; --n) {
      const bool isWithdrawal = isOneIn(2);
      const std::string scope = isWithdrawal ? anySpeaker() : anyScope();
      auto& said = after.said[scope];
      if (isWithdrawal && !said.empty()) {
        const auto which = std::next(said.begin(), pick(static_cast<int>(said.size())));
        changes.withdraw(scope, {which->first.place, which->first.name, which->first.isSubKey});
        text += scope + " withdraws " + which->first.place + " " + which->first.name + "; ";
        said.erase(which);
      } else if (isOneIn(8)) {
        saySubKey(scope, said, changes);
        text += scope + " says sub-key " + std::to_string(static_cast<int>(said.at(subKey()).kind)) + "; ";
      } else {
        const Value& value = isOneIn(10) ? oneOf(kValues) : oneOf(few_);
        text += sayValue(scope, value, said, changes);
      }
    }
    make(changes, after, text);
  }

  static bool saysWayBack(const Rules& rules) {
    return std::any_of(rules.said.begin(), rules.said.end(), [](const auto& scope) {
      return std::any_of(kValues.begin(), kValues.end(), [&scope](const Value& value) {
        return value.isWayBack && scope.second.contains({value.place, value.name});
      });
    });
  }

  static What subKey() { return {"~/A", kSubKey, true}; }

  void saySubKey(const std::string& scope, std::map<What, Said>& said, ChangeSet& changes) {
    const Kind kind = oneOf(std::vector{Kind::kValue, Kind::kValue, Kind::kDisabled, Kind::kRemoval});
    OBGui::RegistryKeyInfo record = recordFor(isOneIn(2) ? "A" : "~/A", kSubKey, "");
    record.valueType = std::string("KEY");
    record.deleteFlag = kind == Kind::kRemoval ? 1 : 0;
    record.enabledFlag = kind == Kind::kDisabled ? 0 : 1;
    changes.put(settingOf(scope, record));
    said[subKey()] = {kind, "0", 0};
  }

  std::string sayValue(const std::string& scope, const Value& value, std::map<What, Said>& said,
                       ChangeSet& changes) {
    Said words;
    const int kind = pick(10);
    words.kind = kind < 6   ? Kind::kValue
                 : kind < 7 ? Kind::kSecret
                 : kind < 9 ? Kind::kDisabled
                            : Kind::kRemoval;
    words.value = std::to_string(++counter_);
    if (words.kind != Kind::kRemoval && isOneIn(3)) words.until = (hub_.now() / 40 + pick(4)) * 40 - 1;
    OBGui::RegistryKeyInfo record = recordFor(oneOf(value.paths), value.name, words.value);
    record.deleteFlag = words.kind == Kind::kRemoval ? 1 : 0;
    record.enabledFlag = words.kind == Kind::kDisabled ? 0 : 1;
    if (words.kind == Kind::kSecret) {
      record.value = std::string(kHiddenSecret);
      record.valueType = std::string("ENCRYPTED");
      record.encryptedValue = pstring(words.value);
      words.value = "secret " + words.value;
    }
    Setting setting = settingOf(scope, record);
    setting.expires = words.until;
    changes.put(setting);
    said[{value.place, value.name}] = words;
    return scope + " says " + record.keyPath.get() + " " + value.name + " kind " +
           std::to_string(static_cast<int>(words.kind)) + "=" + words.value + " until " +
           std::to_string(words.until) + "; ";
  }

  void regroup() {
    static const std::vector<std::string> kNames{"red", "blue", "green"};
    static const std::vector<std::string> kPatterns{"web*", "*1", "web1", "db2", "db*"};
    Rules after = rules_;
    ChangeSet changes;
    const std::string& group = oneOf(kNames);
    std::string text = "group " + group;
    if (!rules_.groups.contains(group) || isOneIn(6)) {
      const int number = ++counter_ * (isOneIn(2) ? 1 : -1);
      changes.groups.push_back({group, number});
      after.groups[group] = number;
      text += " number " + std::to_string(number);
    } else if (isOneIn(5)) {
      changes.groups.push_back({group, std::nullopt});
      after.groups.erase(group);
      after.said.erase("g:" + group);
      std::erase_if(after.members, [&group](const auto& member) { return member.first == group; });
      text += " ends";
    }
    if (after.groups.contains(group)) {
      const std::string& pattern = oneOf(kPatterns);
      const bool isMember = !after.members.contains({group, pattern});
      changes.members.push_back({{group, pattern}, isMember});
      if (isMember) {
        after.members.insert({group, pattern});
      } else {
        after.members.erase({group, pattern});
      }
      text += (isMember ? " with " : " without ") + pattern;
    }
    make(changes, after, text);
  }

  void withdrawAll(const Machine& machine) {
    Rules after = rules_;
    ChangeSet changes;
    const bool isWithdrawn = after.withdrawn.insert(machine.id).second;
    if (!isWithdrawn) after.withdrawn.erase(machine.id);
    changes.withdrawals.push_back({machine.id, isWithdrawn});
    make(changes, after, machine.name + (isWithdrawn ? " gets nothing" : " gets everything again"));
  }

  // Refused when what a revision changed was changed after it, too.
  void undo() {
    if (made_.empty()) return;
    const auto& [revision, before, changed] =
        made_[made_.size() - 1 - static_cast<std::size_t>(pick(std::min(4, static_cast<int>(made_.size()))))];
    Rules after = rules_;
    for (const auto* const rules : {&before, &changed})
      for (const auto& scope : rules->said) {
        const auto isIt = [&scope](const Machine& machine) {
          return scope.first == "c:" + std::to_string(machine.id);
        };
        if (scope.first.starts_with("c:") && std::none_of(machines_.begin(), machines_.end(), isIt)) continue;
        const auto saidIn = [&scope](const Rules& of) {
          const auto found = of.said.find(scope.first);
          return found == of.said.end() ? std::map<What, Said>() : found->second;
        };
        putBack(saidIn(before), saidIn(changed), after.said[scope.first]);
      }
    putBack(before.groups, changed.groups, after.groups);
    putBack(before.members, changed.members, after.members);
    putBack(before.withdrawn, changed.withdrawn, after.withdrawn);
    const auto build = [number = revision](soci::session& session, ChangeSet& changes) {
      LeftOut leftOut;
      return buildUndo(session, number, changes, leftOut);
    };
    make(build, after, "undo " + std::to_string(revision));
  }

  // Makes a change, which is refused when the model says so, and only then.
  template <class Change>
  void make(const Change& change, const Rules& after, const std::string& text) {
    const std::string refusal = hub_.change(change);
    tell(text + (refusal.empty() ? "" : " -- refused: " + refusal));
    const bool isNeeded = contains(refusal, "what a client needs to come back");
    bool isConflict = false;  // for somebody, which this brings
    for (const Machine& machine : machines_) {
      const auto before = conflictsFrom(rules_, machine.name, machine.id, hub_.now());
      for (const std::string& name : conflictsFrom(after, machine.name, machine.id, hub_.now()))
        isConflict = isConflict || !before.contains(name);
    }
    if (refusal.empty()) {
      expect(!saysWayBack(after), "what clients need to come back was changed");
      expect(!isConflict, "a value that ends in one key and stays in another was set");
      if (hub_.result.revision != 0) made_.push_back({hub_.result.revision, rules_, after});
      rules_ = after;
    } else if (contains(refusal, "undo that one first") || contains(refusal, "to put back")) {
      expect(text.starts_with("undo"), "refused: " + refusal);
    } else if (isNeeded) {
      expect(saysWayBack(after), "refused, and no client needs it: " + refusal);
    } else {
      expect(contains(refusal, "clients end a value by its name") && isConflict, "refused: " + refusal);
    }
  }

  void join() {
    static const std::vector<std::string> kNames{"web1", "web2", "db1", "db2"};
    const std::string& name = oneOf(kNames);
    const auto isIt = [&name](const Machine& machine) { return machine.name == name; };
    if (std::any_of(machines_.begin(), machines_.end(), isIt)) return;
    if (!conflictsFrom(rules_, name, 0, hub_.now()).empty()) return;  // it would be refused
    Machine machine;
    machine.name = name;
    machine.id = hub_.add(name);
    for (const Value& value : kValues)
      if (value.isWayBack || isOneIn(3)) machine.own[{value.place, value.name}] = kLocalValue;
    machine.own[{"~/A", "foreign"}] = kLocalValue;
    machine.own[{kSubKeyPlace, "foreign"}] = kLocalValue;
    machine.client.registry = machine.own;
    machine.clockError = isOneIn(3) ? pick(7) - 3 : 0;
    machines_.push_back(machine);
    tell(name + " joins as " + std::to_string(machine.id));
  }

  void leave() {
    const auto machine = machines_.begin() + pick(static_cast<int>(machines_.size()));
    ChangeSet changes;
    changes.removedClients.push_back(machine->id);
    Rules after = rules_;
    after.said.erase("c:" + std::to_string(machine->id));
    after.withdrawn.erase(machine->id);
    const std::string name = machine->name;
    machines_.erase(machine);
    make(changes, after, name + " leaves");
  }

  void wait() {
    hub_.setTime(hub_.now() + 1 + pick(60));
    tell("it is " + std::to_string(hub_.now()));
  }

  // --- machines ---

  // What counts for the machine, as the server hands it out or refuses it.
  bool isHandedOut(Machine& machine, const HandOut& out) {
    const auto counts = rules_.countingFor(machine.name, machine.id, hub_.now());
    const bool isConflict = !conflictsIn(counts, hub_.now()).empty();
    expect(out.refusal.empty() != isConflict, machine.name + " was told \"" + out.refusal + "\"");
    if (!out.refusal.empty()) return false;
    for (const auto& [what, words] : counts) {
      machine.everSaid.insert(what);
      if (words.isLive()) machine.everLive.insert(what);
      if (what.isSubKey && !words.isLive()) machine.isSubKeyEverRemoved = true;
    }
    return true;
  }

  HandOut ask(const Machine& machine) {
    HandOut out;
    const CWmError error = handOut(anyServer(), machine.name, machine.id, out);
    expect(!error.IsError(), error.AsString());
    return out;
  }
  std::int64_t attach(const Machine& machine) {
    std::int64_t proving = 0;
    const CWmError error = noteAttached(anyServer(), machine.name, "10.0.0.1", proving);
    expect(!error.IsError(), error.AsString());
    return proving;
  }
  void say(const Machine& machine, std::int64_t number, bool isApplied) {
    const CWmError error =
        acknowledge(anyServer(), machine.name, number, machine.id, OBGui::taskStatusOf(isApplied));
    expect(!error.IsError(), error.AsString());
  }

  // One pass, which ends in one of the ways that passes do.
  void pass(Machine& machine) {
    enum Fate {
      kWhole,
      kReplyLost,
      kKilledBeforeCache,
      kKilledBeforeAck,
      kAckLate,
      kCacheNotStored,
      kFailed,
      kHalfFailed,
      kStaticListBetween
    };
    static const std::vector<Fate> kFates{
        kWhole,  kWhole,          kReplyLost,      kKilledBeforeCache, kKilledBeforeAck,  kAckLate,
        kFailed, kCacheNotStored, kCacheNotStored, kHalfFailed,        kStaticListBetween};
    Fate fate = oneOf(kFates);
    // A cache that cannot be written twice in a row, while everything is said to be applied, nobody can help.
    if (machine.isCacheBehind && fate == kCacheNotStored) fate = kWhole;
    if (isOneIn(20)) {
      machine.client.cache.clear();
      tell(machine.name + " drops its cache");
    }
    HandOut out = ask(machine);
    tell(machine.name + " passes, fate " + std::to_string(fate) + ", hand-out " + std::to_string(out.number) +
         " of " + std::to_string(out.batch.keys->size()) + " records");
    if (!isHandedOut(machine, out) || fate == kReplyLost) return;
    OBGui::KeyList& keys = out.batch.keys.edit();
    if (fate == kHalfFailed || fate == kFailed) {
      OBGui::KeyList done(keys.begin(),
                          keys.begin() + (fate == kFailed ? 0 : pick(static_cast<int>(keys.size()) + 1)));
      machine.client.apply(done, hub_.now() + machine.clockError);
      markExpired(keys, hub_.now() + machine.clockError);
    } else {
      machine.client.apply(keys, hub_.now() + machine.clockError);
    }
    if (fate == kKilledBeforeCache) return;
    machine.isCacheBehind = fate == kCacheNotStored;
    if (fate != kCacheNotStored) machine.client.keep(keys);
    if (fate == kKilledBeforeAck) return;
    if (fate == kStaticListBetween) {
      HandOut list;
      const CWmError error = handOutStaticList(anyServer(), machine.name, list);
      expect(!error.IsError(), error.AsString());
    }
    const std::int64_t number = attach(machine);
    if (fate == kAckLate) return machine.late.push_back(number);
    say(machine, number, fate != kFailed && fate != kHalfFailed);
    if (isOneIn(2)) sayLate(machine);
  }

  void sayLate(Machine& machine) {
    for (const std::int64_t number : machine.late) {
      say(machine, number, true);
      tell(machine.name + " said late " + std::to_string(number));
    }
    machine.late.clear();
  }

  // A push takes its time, and others pass meanwhile.
  void push(Machine& machine) {
    if (machine.pushed) return deliver(machine);
    HandOut out;
    const CWmError error = handOutForPush(anyServer(), machine.name, 0, out);
    expect(!error.IsError(), error.AsString());
    const bool isLost = isOneIn(4);
    tell(machine.name + " is pushed" + (isLost ? ", in vain" : ""));
    if (!isHandedOut(machine, out) || isLost) return;
    machine.pushed = std::move(out);
    if (isOneIn(2)) deliver(machine);
  }

  void deliver(Machine& machine) {
    if (!machine.pushed) return;
    tell(machine.name + " gets what is pushed");
    machine.client.apply(machine.pushed->batch.keys.edit(), hub_.now() + machine.clockError);
    const CWmError error = notePushed(anyServer(), machine.name, *machine.pushed);
    expect(!error.IsError(), error.AsString());
    machine.pushed.reset();
    say(machine, 0, true);
  }

  void refresh(Machine& machine) {
    machine.client.refresh(hub_.now() + machine.clockError);
    tell(machine.name + " refreshes");
  }

  void snapshot(Machine& machine) {
    machine.snapshots.push_back(machine.client);
    tell(machine.name + " is copied");
  }

  void goBack(Machine& machine) {
    if (machine.snapshots.empty()) return snapshot(machine);
    machine.client = oneOf(machine.snapshots);
    machine.isCacheBehind = false;
    hub_.resend(machine.id);
    tell(machine.name + " is set back");
  }

  // --- the end ---

  // Two passes that are applied, and then it holds what the server says; once more, and nothing is left over.
  void settle(Machine& machine, bool isEnd) {
    if (!wrong_.empty()) return;
    deliver(machine);
    sayLate(machine);
    machine.isCacheBehind = false;
    for (int n = 0; n < 2; ++n) {
      HandOut out = ask(machine);
      if (!isHandedOut(machine, out)) {
        const Contact contact = hub_.contact(machine.id);
        expect(!contact.refusal.empty() && contact.refusal == out.refusal,
               machine.name + ": nobody is told why");
        return;
      }
      machine.client.apply(out.batch.keys.edit(), hub_.now());
      machine.client.keep(out.batch.keys);
      say(machine, attach(machine), true);
    }
    const auto counts = rules_.countingFor(machine.name, machine.id, hub_.now());
    compare(machine, counts, "after two passes");
    compareCache(machine, counts);
    const SimulatedClient::Registry before = machine.client.registry;
    machine.client.refresh(hub_.now());
    expect(machine.client.registry == before, machine.name + ": a refresh changes the registry");
    compareCache(machine, counts);
    tell(machine.name + " is settled");
    if (isEnd) checkRetired(machine, counts);
  }

  void expectAt(const Machine& machine, const std::string& place, const std::string& name,
                const std::vector<std::string>& allowed, const std::string& when) {
    const auto found = machine.client.registry.find({place, name});
    const std::string is = found == machine.client.registry.end() ? "(none)" : found->second;
    const bool isLogs = name == lqsettings::kLogDirectory.name && is == SimulatedClient::kDefaultLogs &&
                        std::find(allowed.begin(), allowed.end(), "(none)") != allowed.end();
    if (isLogs || std::find(allowed.begin(), allowed.end(), is) != allowed.end()) return;
    expect(false, machine.name + " " + when + " holds " + place + " " + name + " = " + is + ", and not " +
                      allowed.front());
  }

  void compare(const Machine& machine, const std::map<What, Said>& counts, const std::string& when) {
    const auto isOver = [this](const Said& words) { return words.until != 0 && words.until < hub_.now(); };
    const auto ownAt = [&machine](const std::string& place, const std::string& name) {
      const auto own = machine.own.find({place, name});
      return own == machine.own.end() ? std::string("(none)") : own->second;
    };
    for (const Value& value : kValues) {
      const What what{value.place, value.name};
      const auto said = counts.find(what);
      const bool isLive = said != counts.end() && said->second.isLive() && !isOver(said->second);
      const std::string own = ownAt(value.place, value.name);
      std::vector<std::string> allowed;
      if (isLive) {
        allowed = {said->second.value};
      } else if (said != counts.end() || machine.everLive.contains(what)) {
        allowed = {"(none)"};
      } else {
        allowed = {own};  // never the server's, and so it stays
        if (machine.everSaid.contains(what) || (machine.isSubKeyEverRemoved && what.place == kSubKeyPlace))
          allowed.emplace_back("(none)");
      }
      expectAt(machine, what.place, what.name, allowed, when);
      const bool hasEnd = isLive && said->second.until != 0;
      expectAt(machine, what.place, what.name + "_UNTIL",
               {hasEnd ? std::to_string(said->second.until) : "(none)"}, when);
    }
    expectAt(machine, "~/A", "foreign", {kLocalValue}, when);
    const auto subKeySaid = counts.find(subKey());
    if (subKeySaid != counts.end()) {
      const bool isLive = subKeySaid->second.isLive();
      expectAt(machine, kSubKeyPlace, SimulatedClient::kMarker, {isLive ? "0" : "(none)"}, when);
      if (!isLive) expectAt(machine, kSubKeyPlace, "foreign", {"(none)"}, when);
    } else if (!machine.everLive.contains(subKey())) {
      expectAt(machine, kSubKeyPlace, SimulatedClient::kMarker, {"(none)"}, when);
    }
    if (!machine.isSubKeyEverRemoved) expectAt(machine, kSubKeyPlace, "foreign", {kLocalValue}, when);
  }

  // The cache holds what is to be, and what is switched off.
  void compareCache(const Machine& machine, const std::map<What, Said>& counts) {
    std::map<std::string, std::string> expected;
    std::map<std::string, std::string> is;
    for (const auto& [what, words] : counts) {
      const bool isOver = words.until != 0 && words.until < hub_.now();
      if (isOver || words.kind == Kind::kRemoval) continue;
      const std::string name = what.place + " " + what.name + (what.isSubKey ? "/" : "");
      expected[name] = !words.isLive() ? "off" : what.isSubKey ? "" : words.value;
      if (words.isLive() && words.until != 0) expected[name + "_UNTIL"] = std::to_string(words.until);
    }
    for (const OBGui::RegistryKeyInfo& key : machine.client.cache) {
      const std::string name =
          SimulatedClient::keyAt(key.keyPath) + " " + key.valueName.get() + (isKey(key) ? "/" : "");
      expect(!is.contains(name), machine.name + " has " + name + " twice in its cache");
      is[name] = key.enabledFlag == 0 ? "off" : SimulatedClient::valueIn(key);
    }
    for (const auto& [name, value] : expected)
      expect(is.contains(name) && is[name] == value,
             machine.name + ": its cache has no " + name + " = " + value);
    for (const auto& [name, value] : is)
      expect(expected.contains(name), machine.name + ": its cache still has " + name);
  }

  // What nobody says any more is the machine's own again.
  void checkRetired(Machine& machine, const std::map<What, Said>& counts) {
    std::vector<What> free;
    for (const Value& value : kValues)
      if (!counts.contains({value.place, value.name})) free.push_back({value.place, value.name});
    for (const What& what : free) machine.client.registry[{what.place, what.name}] = "mine";
    HandOut out = ask(machine);
    machine.client.apply(out.batch.keys.edit(), hub_.now());
    machine.client.keep(out.batch.keys);
    machine.client.refresh(hub_.now());
    const auto subKeySaid = counts.find(subKey());
    const bool isSubKeyGone = subKeySaid != counts.end() && !subKeySaid->second.isLive();
    for (const What& what : free)
      if (!isSubKeyGone || what.place != kSubKeyPlace)
        expectAt(machine, what.place, what.name, {"mine"}, "once the removals were sent");
    std::size_t most = 0;
    for (const auto& said : counts) most += said.first.isSubKey ? 1 : 2;
    expect(out.batch.keys->size() <= most, machine.name + ": a batch of " +
                                               std::to_string(out.batch.keys->size()) + " records for " +
                                               std::to_string(counts.size()) + " settings");
  }

  TestStore hub_;
  std::mt19937 random_;
  struct Made {
    std::int64_t revision;
    Rules before;
    Rules after;
  };

  Rules rules_;
  std::vector<Made> made_;
  std::vector<Value> few_;
  std::vector<Machine> machines_;
  int counter_ = 0;
  std::string wrong_;
  std::ostringstream story_;
};

unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::atoi(text));
}

class Histories : public testing::TestWithParam<EngineKind> {};

TEST_P(Histories, EachMachineHoldsWhatTheServerSaysOrIsNamed) {
  const unsigned first = fromEnvironment("LQ_HISTORIES_SEED", 1);
  const unsigned count = fromEnvironment("LQ_HISTORIES", GetParam() == EngineKind::kSqlite ? 40 : 5);
  for (unsigned seed = first; seed < first + count; ++seed)
    if (const std::string wrong = History(GetParam(), seed).play(); !wrong.empty())
      FAIL() << "seed " << seed << ": " << wrong;
}

INSTANTIATE_TEST_SUITE_P(Store, Histories, testing::Values(EngineKind::kSqlite, EngineKind::kPostgresql),
                         nameOf);

}  // namespace
