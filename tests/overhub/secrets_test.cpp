// One secret that is searched for in everything that the server says.
#include "tests/overhub/overhub_fixture.h"
#include "tests/support/product_fixture.h"

namespace {

TEST_F(OverhubTest, SecretsStandInNoOutput) {
  const std::string canary = "canary-5ecret";
  const auto set = [&](const std::string& arguments) {
    return shell("printf " + canary + " | \"$OVERHUB\" set --secret " + arguments);
  };
  expectOk({"add-client", "web-1"});
  expectOk({"add-group", "web", "--number", "1"});
  expectOk({"join-group", "web", "web-*"});
  for (const char* const where : {"@all '~/Proxy' sPW", "@web '~/Proxy' sPW", "@web '~/Other' sPW",
                                  "web-1 '~/Proxy' sPW --disabled", "@static '~/Proxy' sPW"})
    EXPECT_EQ(set(where).exitCode, 0) << where;
  expectOk({"set", "web-1", "~/Overhub2", "sSESSIONKEY", canary});  // by its name
  const std::string log = dir_ / "server.log";
  {
    BackgroundProgram server({programPath("overhub"), "--data", data_, "serve", "--listen", address_,
                              "--log-level", "10", "--log-file", log},
                             dir_ / "serve.out");
    ASSERT_TRUE(server.waitForOutput("overhub ready"));
    become("web-1");
    CLqNetwork network;
    ASSERT_FALSE(attach(network).IsError());
    std::string refusal;
    const auto batch = ask(network, requestOf(3), refusal);
    EXPECT_EQ(refusal, "");
    EXPECT_TRUE(std::any_of(batch.keys->begin(), batch.keys->end(), [&](const auto& record) {
      return record.encryptedValue->reveal() == canary;
    })) << "the machine gets it";
    OBGui::RegistryTaskResp upload = batch;
    upload.taskStatus = OBGui::kTaskUpload;
    upload.client.edit().clientId = 3;
    EXPECT_EQ(ask(network, upload, refusal).taskStatus, OBGui::kTaskSuccess) << refusal;
    leave(network);
    EXPECT_TRUE(contains(server.output() + readFile(log), "web-1")) << "it has something to say";
    EXPECT_FALSE(contains(server.output() + readFile(log), canary));
  }
  const std::string folder = dir_ / "folder";
  const std::string page = dir_ / "page.html";
  expectOk({"report", page});
  std::string all = readFile(page);
  for (const auto& text : {set("@web '~/Proxy' sPW --until +1d"), set("@all '~/Proxy' sPW --dry-run"),
                           set("'web-*' '~/Proxy' sPW --dry-run")})
    all += text.out + text.err;
  for (const std::string command :
       {"clients", "groups", "show @all", "show @web,web-1,@static", "show web-1 --effective", "status --all",
        "status --all --prometheus", "log", "diff 0", "diff 4 5", "diff 9 0", "undo 5 --dry-run",
        "undo 9 --dry-run", "acks", "uploads", "uploads web-1", "unset web-1 '~/Proxy' sPW --dry-run",
        "remove-client web-1 --withdraw --dry-run", "push web-1 --host 127.0.0.1 --port 1 --timeout 1"}) {
    for (const char* const form : {"", " --json"}) {
      const auto said = shell("\"$OVERHUB\" " + command + form);
      all += said.out + (*form == '\0' ? said.err : "");
      EXPECT_TRUE(*form != '\0' || !(said.out + said.err).empty()) << command;
    }
  }
  expectOk({"export", folder});
  for (const auto& file : std::filesystem::recursive_directory_iterator(folder))
    if (file.is_regular_file()) all += readFile(file.path());
  expectOut(overhub({"apply", folder, "--dry-run"}), 0, {"nothing to change"});
  EXPECT_TRUE(contains(all, "********"));
  EXPECT_FALSE(contains(all, canary)) << all;

  // Nor as it is protected, by which equal ones could be told.
  onStore([&](const Store& store) {
    return store.database().read([&](soci::session& session) -> CWmError {
      std::vector<std::string> sealed(20);
      session << "SELECT secret FROM settings WHERE secret <> ''", soci::into(sealed);
      EXPECT_GE(sealed.size(), 5U);
      for (const std::string& text : sealed) EXPECT_FALSE(contains(all, text.substr(0, 20))) << text;
      return {};
    });
  });
}

}  // namespace
