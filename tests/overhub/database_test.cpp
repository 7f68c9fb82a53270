// Units of work on a database that fails, goes away and comes back.
#include "overhub/store/database.h"

#include <soci/soci.h>

#include <cstdlib>

#include "overhub/store/change.h"
#include "overhub/store/scope.h"
#include "overhub/store/settings.h"
#include "overhub/store/store.h"
#include "tests/support/expectations.h"
#include "tests/support/postgresql.h"

namespace {

using test_support::PostgresServer;

class StoreUnderFaults : public testing::Test {
 protected:
  static int rounds() {
    const char* const wanted = std::getenv("LQ_COMMIT_KILLS");
    return wanted == nullptr ? 12 : std::atoi(wanted);
  }

  // Sets nCOUNT for all to that number; `duringWork` runs as the last thing before the COMMIT.
  static CWmError count(const Store& store, int number, const std::function<void()>& duringWork,
                        std::int64_t& revision) {
    ChangeNote note;
    note.command = std::to_string(number);
    ChangeResult result;
    const CWmError error = makeChange(
        store.database(), note,
        [&](soci::session&, ChangeSet& changes) {
          Setting setting;
          setting.scope = kAllScope;
          setting.identity = {"~", "nCOUNT", false};
          setting.type = "STRING";
          setting.value = std::to_string(number);
          changes.put(setting);
          duringWork();
          return CWmError();
        },
        result);
    revision = result.revision;
    return error;
  }

  TempDir dir_;
};

// A COMMIT whose answer is lost may have been carried out or not; what was to be done is done once in either
// case.
TEST_F(StoreUnderFaults, AChangeIsMadeOnceThroughKillsAtItsCommit) {
  PostgresServer server;
  Store store({dir_ / "data", server.freshDatabase()});
  ASSERT_STREQ(store.prepare().AsString(), "");
  std::map<std::int64_t, int> made;
  for (int number = 1; number <= rounds(); ++number) {
    std::thread killer;
    bool isKilled = false;
    std::int64_t revision = 0;
    const CWmError error = count(
        store, number,
        [&] {
          if (isKilled) return;
          isKilled = true;
          killer = std::thread([&server, number] {
            std::this_thread::sleep_for(std::chrono::microseconds(number * 977 % 4000));
            server.kill();
            server.start();
          });
        },
        revision);
    killer.join();
    EXPECT_STREQ(error.AsString(), "") << number;
    EXPECT_TRUE(made.emplace(revision, number).second) << "revision " << revision << " twice";
  }
  std::string found;
  const CWmError error = store.database().read([&](soci::session& session) -> CWmError {
    std::int64_t revisions = 0;
    session << "SELECT COUNT(*) FROM revisions", soci::into(revisions);
    EXPECT_EQ(revisions, rounds()) << "lost, or done twice";
    for (const auto& [revision, number] : made) {
      std::string command;
      session << "SELECT command FROM revisions WHERE number = :number", soci::use(revision),
          soci::into(command);
      EXPECT_EQ(command, std::to_string(number));
    }
    found = settingsNamed(session, "nCOUNT").at(0).value;
    return {};
  });
  EXPECT_STREQ(error.AsString(), "");
  EXPECT_EQ(found, std::to_string(rounds()));
}

// Whoever waits hears of it, nothing is left hanging at the server, and what may have been done is done once.
TEST_F(StoreUnderFaults, ACommitThatNoStandbyConfirmsIsGivenUp) {
  PostgresServer server;
  const std::string uri = server.freshDatabase();
  Store store({dir_ / "data", uri});
  ASSERT_STREQ(store.prepare().AsString(), "");
  const auto setStandby = [&server](const std::string& how) {
    server.query("ALTER SYSTEM " + how);
    server.query("SELECT pg_reload_conf()");
    server.query(
        "CHECKPOINT");  // done by the process that has commits wait, once it has seen the new setting
  };
  setStandby("SET synchronous_standby_names = 'absent'");
  const Store hasty(dir_ / "data", postgresqlEngine(uri, std::chrono::milliseconds(100)));
  std::int64_t revision = 0;
  const CWmError error = count(
      hasty, 1, [] {}, revision);
  EXPECT_EQ(error.GetCode(), kLqErrConnectionLost);
  for (const char* const part :
       {"not confirmed a COMMIT", "standby", "whether the change was made is not known"})
    EXPECT_TRUE(contains(error.AsString(), part)) << error.AsString();
  const auto waiting = [&server] {
    return server.query("SELECT COUNT(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'");
  };
  for (int look = 0; look < 1000 && waiting() != "0\n"; ++look)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(waiting(), "0\n");
  setStandby("RESET synchronous_standby_names");
  EXPECT_STREQ(count(
                   store, 2, [] {}, revision)
                   .AsString(),
               "");
  EXPECT_EQ(revision, 2);
}

}  // namespace
