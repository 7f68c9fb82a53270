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

}  // namespace
