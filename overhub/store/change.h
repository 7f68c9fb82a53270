// A change of what machines are to hold: what it edits, what that does to which machine, and its revision.
//
// All changes go one way: one transaction takes the next revision number, which makes changes wait for each
// other; what is edited is found out in it, compared with what is there, and weighed for every machine that
// it reaches; only then it is written, with the revision that tells who made it, when and why.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "overhub/store/clients.h"
#include "overhub/store/groups.h"
#include "overhub/store/setting.h"
#include "records/host_report.h"

// What is to be from the revision on. What is so already is left out of it.
struct ChangeSet {
  struct SettingEdit {
    std::string scope;
    Identity identity;
    std::optional<Setting> after;  // nothing: the scope says nothing of it any more
  };
  struct GroupEdit {
    std::string name;
    std::optional<std::int64_t> number;  // nothing: there is no such group any more, nor what it said
  };
  struct MemberEdit {
    Member member;
    bool isMember = true;
  };
  struct NewClient {
    Client client;  // with id 0 it gets the highest ever given plus 1
    std::string protectedKey;
  };

  std::vector<SettingEdit> settings;
  std::vector<GroupEdit> groups;
  std::vector<MemberEdit> members;
  std::vector<NewClient> newClients;
  std::vector<std::int64_t> removedClients;
  struct Withdrawal {
    std::int64_t client = 0;
    bool isWithdrawn = true;  // everything, as if no scope said anything to it; otherwise no longer
  };
  std::vector<Withdrawal> withdrawals;

  void put(const Setting& setting) { settings.push_back({setting.scope, setting.identity, setting}); }
  void withdraw(const std::string& scope, const Identity& identity) {
    settings.push_back({scope, identity, std::nullopt});
  }
  bool isEmpty() const;
};

// One value as it becomes another on so many machines.
struct Effect {
  Identity identity;
  std::string before;  // as a person sees it; secrets hidden
  std::string after;
  std::int64_t machines = 0;  // 0: no machine hears it now
};

// What a change does.
struct Effects {
  std::vector<Effect> values;              // by place and name
  std::vector<std::string> machines;       // that get something else than before, ascending
  std::vector<std::string> wayBack;        // those that might not come back to their server
  std::string wayBackValue;                // a value of it; empty: none is touched, on no machine
  std::string endingWayBack;               // one of them that would end by itself; empty: none
  std::string conflict;                    // why it cannot be handed out to some machine; empty: it can
  std::string doubled;                     // what some machine may hear twice of one value; empty: nothing
  std::vector<std::int64_t> newScopesFor;  // the ids of clients that are in other groups than before
};

// Who makes a change, and how.
struct ChangeNote {
  std::string who;
  std::string why;
  std::string command;                                // as it was typed, without secrets
  bool isForced = false;                              // also what machines need to come back
  bool isDryRun = false;                              // weighed, and not made
  std::int64_t confirm = HostReport::kDemandNothing;  // what it demands of machines (confirmations.h)
  std::optional<std::int64_t> expected;  // refused when what it edits has been changed after this revision
};

struct ChangeResult {
  std::int64_t revision = 0;  // 0: there was nothing to change, or it was a dry run
  bool isNothing = false;
  Effects effects;
  std::vector<Client> newClients;
};

// Finds out, with what the store holds, what a change edits. May run more than once.
using ChangeBuilder = std::function<CWmError(soci::session& session, ChangeSet& changes)>;

// Makes the change. An error with kLqErrRequestRefused, which says why, when it may not be made; any other is
// the store's.
CWmError makeChange(const Database& database, const ChangeNote& note, const ChangeBuilder& build,
                    ChangeResult& result);

// The store's newest revision.
std::int64_t newestRevision(soci::session& session);
