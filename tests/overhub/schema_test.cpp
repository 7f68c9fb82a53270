// A store that an older overhub has made, opened by this one.
#include "overhub/store/schema.h"

#include <thread>

#include "overhub/store/uploads.h"
#include "tests/overhub/store_fixture.h"

namespace {

using test_support::PostgresServer;

class Upgrade : public testing::TestWithParam<EngineKind> {
 protected:
  Upgrade() {
    place_.directory = dir_ / "data";
    if (GetParam() == EngineKind::kPostgresql) place_.uri = PostgresServer::shared().freshDatabase();
    EXPECT_STREQ(store_.emplace(place_).prepare().AsString(), "");
  }

  // Behind everybody's back.
  void meddle(const std::string& statement) const {
    const CWmError error = store_->database().write([&](soci::session& session) -> CWmError {
      session << statement;
      return {};
    });
    EXPECT_STREQ(error.AsString(), "");
  }
  std::string stored(const std::string& query) const {
    std::string value;
    const CWmError error = store_->database().read([&](soci::session& session) -> CWmError {
      session << query, soci::into(value);
      return {};
    });
    EXPECT_STREQ(error.AsString(), "");
    return value;
  }
  std::string version() const {
    return stored("SELECT CAST(value AS TEXT) FROM counters WHERE name = 'schema'");
  }

  TempDir dir_;
  Store::Place place_;
  std::optional<Store> store_;
};

TEST_P(Upgrade, IsWholeOrNothingAndOnce) {
  EXPECT_STREQ(store_->open().AsString(), "");
  EXPECT_EQ(store_->notice(), "") << "it is up to date";
  const std::string newest = version();
  const std::string clear = "<OBGui.RegistryTaskResp>canary</OBGui.RegistryTaskResp>";
  meddle(
      "INSERT INTO clients (id, name, session_key, host, valid_from, valid_to) VALUES (3, 'pc1', '', '', "
      "1, " +
      std::to_string(kOpen) + ")");
  meddle(
      "INSERT INTO uploads (client, number, time, key_count, value_count, bytes, text) VALUES (3, 1, 1, 1, "
      "1, 1, '" +
      clear + "')");
  // What is without a text cannot be sealed, and comes last.
  meddle(
      "INSERT INTO uploads (client, number, time, key_count, value_count, bytes, text) VALUES (4, 1, 1, 1, "
      "1, 1, '')");
  for (const std::string table :
       {"hand_outs", "reports", "drift_counts", "confirmations", "rollouts", "rollout_machines"})
    meddle("DROP TABLE " + table);
  meddle("ALTER TABLE revisions DROP COLUMN confirm");
  meddle("UPDATE counters SET value = 1 WHERE name = 'schema'");
  const std::string refusal = Store(place_).open().AsString();
  EXPECT_TRUE(contains(refusal, "; the store stays one of version 1")) << refusal;
  EXPECT_EQ(version(), "1");
  EXPECT_EQ(stored("SELECT text FROM uploads WHERE client = 3"), clear);

  meddle("DELETE FROM uploads WHERE client = 4");
  std::vector<std::thread> servers;
  for (int server = 0; server < 4; ++server) {
    servers.emplace_back([this, &newest] {
      Store opened(place_);
      EXPECT_STREQ(opened.open().AsString(), "");
      EXPECT_TRUE(opened.notice().empty() || contains(opened.notice(), "is one of version " + newest + " "))
          << opened.notice();
    });
  }
  for (std::thread& server : servers) server.join();
  EXPECT_EQ(version(), newest);
  EXPECT_EQ(stored("SELECT CAST(COUNT(*) AS TEXT) FROM reports"), "0");
  EXPECT_TRUE(stored("SELECT text FROM uploads").starts_with("V8:"));
  std::string text;
  EXPECT_STREQ(readUpload(*store_, "pc1", WhichUpload::kNewest, text).AsString(), "");
  EXPECT_EQ(text, clear) << "sealed once";

  meddle("UPDATE counters SET value = value + 1 WHERE name = 'schema'");
  EXPECT_TRUE(
      contains(Store(place_).prepare().AsString(), "knows " + newest + "; use the overhub that wrote it"));
}

INSTANTIATE_TEST_SUITE_P(Engines, Upgrade, testing::Values(EngineKind::kSqlite, EngineKind::kPostgresql),
                         nameOf);

}  // namespace
