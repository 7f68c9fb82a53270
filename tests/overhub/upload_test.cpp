// What clients upload of their registries: kept by the running server, looked at with the commands.

#include "tests/overhub/overhub_fixture.h"
#include "tests/support/product_fixture.h"

namespace {

class OverhubUploadTest : public OverhubTest {
 protected:
  static constexpr const char* kCanary = "canary-4711-session-key";

  static OBGui::RegistryTaskResp uploadOf(std::int64_t clientId) {
    OBGui::RegistryTaskResp upload;
    upload.client.edit().clientId = clientId;
    upload.taskStatus = OBGui::kTaskUpload;
    upload.keys.edit();
    return upload;
  }
};

// An upload is a machine's backup: it must come back as it was, be nobody else's, and be the newest.
TEST_F(OverhubUploadTest, KeepsTheNewestAsItCame) {
  constexpr std::int64_t kWideId = 5'000'000'000;
  constexpr std::int64_t kWideIdNarrowed = 705'032'704;
  expectOk({"add-client", "web-1", "--id", std::to_string(kWideId)});
  expectOk({"add-client", "web-2"});
  const auto server = serve();
  become("web-1");
  CLqNetwork network;
  ASSERT_FALSE(attach(network).IsError());
  std::string refusal;

  auto older = uploadOf(kWideIdNarrowed);
  older.keys.edit() = {record("Limits", "sLONG", std::string(1 << 20, 'x'))};
  ask(network, older, refusal);

  auto upload = uploadOf(kWideIdNarrowed);
  upload.keys.edit() = {record("", "Limits", "", "KEY"), record("Limits", "sODD", "a\nb\x1b[31m\\ \xff"),
                        record("Limits", "sPW", "abcd", "encrypted"), record("Limits", "sSEALED", "V8:abcd"),
                        record("Overhub", "sSESSIONKEY", kCanary)};
  const auto verdict = ask(network, upload, refusal);
  EXPECT_EQ(verdict.taskStatus, OBGui::kTaskSuccess) << refusal;
  EXPECT_EQ(verdict.client->clientId, kWideIdNarrowed);

  ask(network, uploadOf(kWideId), refusal);
  EXPECT_TRUE(contains(refusal, "unknown client id 5000000000")) << refusal;
  EXPECT_EQ(
      outOf(overhub({"uploads", "web-1"})),
      "KEY      NAME         VALUE\nLimits\nLimits   sODD         a\\nb\\x1b[31m\\\\ \\xff\n"
      "Limits   sPW          ********\nLimits   sSEALED      ********\nOverhub  sSESSIONKEY  ********\n");
  const std::string listed = outOf(overhub({"uploads"}));
  EXPECT_TRUE(contains(listed, "Z     1       4   ")) << listed;
  EXPECT_FALSE(contains(listed, "web-2")) << listed;

  expectOut(overhub({"uploads", "web-1", "--previous"}), 0, {"Limits  sLONG  xx"});
  std::string all = outOf(overhub({"uploads", "web-1", "--json"}));
  for (const auto& file : std::filesystem::directory_iterator(data_))
    if (file.is_regular_file()) all += readFile(file.path());
  EXPECT_FALSE(contains(all, kCanary));
  const std::string out = dir_ / "out.xml";
  expectOk({"uploads", "web-1", "--out", out});
  EXPECT_EQ(modeOf(out), 0600U);
  OBGui::RegistryTaskResp exported;
  EXPECT_EQ(exported.unserialize(readFile(out)), 0);
  EXPECT_TRUE(exported.equals(upload));
  writeFile(out, "precious");
  expectErr(overhub({"uploads", "web-1", "--out", out}), 1, {out});
  EXPECT_EQ(readFile(out), "precious");
}

// A client that believes in a backup that is not there is worse off than one that knows.
TEST_F(OverhubUploadTest, ToldWhenItCannotBeStored) {
  expectOk({"add-client", "web-1"});
  const auto server = serve();
  meddle("ALTER TABLE uploads RENAME TO no_uploads");
  become("web-1");
  CLqNetwork network;
  ASSERT_FALSE(attach(network).IsError());
  std::string refusal;
  EXPECT_EQ(ask(network, uploadOf(3), refusal).taskStatus, OBGui::kTaskFailed) << refusal;
  EXPECT_TRUE(server->waitForOutput(storeFile() + ": no such table: uploads"));
  expectErr(overhub({"uploads"}), 3, {storeFile() + ": no such table: uploads"});
  meddle("ALTER TABLE no_uploads RENAME TO uploads");
  expectErr(overhub({"uploads", "web-1"}), 1, {"uploaded nothing yet"});
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(ask(network, uploadOf(3), refusal).taskStatus, OBGui::kTaskSuccess) << refusal;

  onStore([](const Store& store) {
    return store.database().read([](soci::session& session) -> CWmError {
      int kept = 0;
      session << "SELECT COUNT(*) FROM uploads", soci::into(kept);
      EXPECT_EQ(kept, 2) << "the newest, and the one before";
      return {};
    });
  });
  meddle("DELETE FROM uploads WHERE number = 2");
  expectErr(overhub({"uploads", "web-1", "--previous"}), 1, {"uploaded nothing before its newest"});
  for (const char* const broken : {"<broken", "V8:l0KCLNzcUre5QQgqZ844G0nQw6Se2g=="}) {
    meddle(std::string("UPDATE uploads SET text = '") + broken + "'");
    expectOut(overhub({"uploads"}), 0, {"web-1   2"});
    expectErr(overhub({"uploads", "web-1"}), 3, {"the upload of web-1 in the store is damaged, or"});
  }
}

}  // namespace
