// The history on the command line, definitions in `set` and `show`, and machines that give everything back.
#include "tests/overhub/overhub_fixture.h"

namespace {

class OverhubHistoryTest : public OverhubTest {
 protected:
  // One hand-out that the machine applies.
  void pass(const std::string& client, std::int64_t id) const {
    onStore([&](const Store& store) {
      HandOut out;
      const CWmError error = handOut(store, client, id, out);
      return error.IsError() ? error : acknowledge(store, client, out.number, id, OBGui::kTaskSuccess);
    });
  }
};

TEST_F(OverhubHistoryTest, ChangesAreToldAndPutBack) {
  expectOk({"add-client", "web-1"});
  expectOk({"set", "web-1", "~/Limits", "nMAX", "10", "--why", "ticket\n4711"});
  expectOk({"set", "web-1", "~/Limits", "nMAX", "20"});
  ASSERT_EQ(shell("echo canary1 | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret &&"
                  " echo canary2 | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret")
                .exitCode,
            0);
  const auto all = overhub({"log"});
  expectOut(all, 0,
            {"revision 1  ", "  web-1: client: (none) -> client ", "  why: ticket\\n4711\n",
             "set web-1 ~/Limits nMAX\n  web-1: ~/Limits nMAX: 10 -> 20\n", "******** (set anew)"});
  EXPECT_LT(all.out.find("revision 1 "), all.out.find("revision 5 "));
  const auto newest = overhub({"log", "web-1", "~/Limits", "--limit", "1"});
  EXPECT_TRUE(newest.out.starts_with("revision 3 ")) << newest.out;
  EXPECT_TRUE(contains(newest.err, "--limit shows more")) << newest.err;
  EXPECT_EQ(overhub({"log", "web-1", "~/Limits", "--limit", "2"}).err, "");
  expectOut(
      overhub({"log", "--json"}), 0,
      {"\"revision\": 2", "\"why\": \"ticket\\n4711\"", "\"kind\": \"setting\"", "\"scope\": \"web-1\"",
       "\"path\": \"~/Limits\"", "\"name\": \"nMAX\"", "\"before\": null,\n          \"after\": \"10\""});
  EXPECT_EQ(outOf(overhub({"diff", "1", "3"})), "web-1: ~/Limits nMAX: (not set) -> 20\n");
  EXPECT_EQ(outOf(overhub({"diff", "3", "2"})), "web-1: ~/Limits nMAX: 20 -> 10\n");
  expectOut(overhub({"diff", "3", "--json"}), 0, {"\"from\": 3,\n  \"to\": 5,", "\"after\": \"********\""});
  expectErr(overhub({"diff", "0", "6"}), 1, {"no revision 6; the newest is 5"});
  const auto everything = shell(
      "for c in log 'log --json' 'diff 0' 'diff 4 5' 'diff 0 --json' 'undo 5 --dry-run';"
      " do \"$OVERHUB\" $c; done");
  EXPECT_FALSE(contains(everything.out, "canary") || contains(everything.out, "V8:")) << everything.out;

  expectErr(overhub({"undo", "2"}), 1, {"revision 3 of ", "(set web-1 ~/Limits nMAX)"});
  expectErr(overhub({"undo", "1"}), 1, {"remove-client"});
  expectOut(overhub({"undo", "3", "--dry-run"}), 0, {"20", "10", "1 machine would"});
  expectOk({"undo", "3", "--why", "too many"});
  EXPECT_EQ(batchOf("web-1").keys->at(0).value.get(), "10");
  expectOut(overhub({"log", "--limit", "1"}), 0,
            {"undo 3\n  why: too many\n  web-1: ~/Limits nMAX: 20 -> 10\n"});

  // A revision can hold more than anybody reads.
  expectOk({"add-group", "g", "--number", "1"});
  std::vector<std::string> join{"join-group", "g"};
  for (int i = 10; i < 35; ++i) join.push_back("m" + std::to_string(i) + "*");
  expectOk(join);
  const std::string last = outOf(overhub({"log", "@g", "--limit", "1"}));
  EXPECT_TRUE(contains(last, "member m29*") && !contains(last, "member m30*") &&
              contains(last, "  and 5 more; \"overhub diff 7 8\" shows all\n"))
      << last;
}

TEST_F(OverhubHistoryTest, DefinedSettingsCountInSetAndAreToldInShow) {
  expectOk({"add-client", "web-1"});
  expectOk({"set", "web-1", "~/Limits", "nMAX", "101"});
  EXPECT_FALSE(contains(outOf(overhub({"show", "web-1"})), "MEANING"));
  expectOut(overhub({"show", "web-1", "--json"}), 0, {"\"needsRestart\": null", "\"sentence\": null"});
  writeFile(data_ + "/definitions.json",
            R"({"settings": [{"path": "~/Limits", "name": "nMAX", "kind": "number", "max": 100,
                              "sentence": "How many", "needsRestart": true}]})");
  for (const char* const force : {"--force", "--dry-run"})
    expectErr(overhub({"set", "web-1", "~/Limits", "nMAX", "102", force}), 1, {"\"102\" does not fit"});
  expectErr(overhub({"set", "web-1", "~/Limits", "nMAXX", "1"}), 1,
            {"did you mean \"nMAX\" in \"~/Limits\"?"});
  const auto doubted = overhub({"set", "web-1", "~/Limits", "nMAXX", "--delete"});
  EXPECT_EQ(doubted.exitCode, 0);
  EXPECT_TRUE(contains(doubted.err, "did you mean")) << doubted.err;
  expectOut(overhub({"show", "web-1"}), 0, {"RESTART  MEANING\n", "yes      How many\n"});
  expectOut(overhub({"show", "web-1", "--effective", "--json"}), 0,
            {"\"needsRestart\": true", "\"sentence\": \"How many\""});
  const std::string other = dir_ / "other.json";
  writeFile(other, "{");
  for (const char* const command : {"set web-1 '~/Limits' nMAX 1", "show web-1"})
    expectErr(shell("OVERHUB_DEFINITIONS=" + other + " \"$OVERHUB\" " + command), 3, {other});
}

TEST_F(OverhubHistoryTest, AWithdrawnMachineIsRemovedOnceItHasGivenEverythingBack) {
  expectOk({"add-client", "web-1", "--id", "7"});
  expectOk({"add-client", "web-2", "--id", "8"});
  expectOk({"set", "@all", "~/Limits", "nMAX", "10"});
  pass("web-1", 7);
  expectErr(overhub({"remove-client"}), 2, {"TARGET is missing"});
  expectOut(overhub({"remove-client", "web-*", "--withdraw", "--dry-run"}), 0, {"nMAX", "(not set)"});
  // Who has never held anything goes at once.
  const auto begun = overhub({"remove-client", "web-*", "--withdraw"});
  expectOut(begun, 6, {"web-1", "two applied passes"});
  EXPECT_FALSE(contains(outOf(overhub({"clients"})), "web-2"));
  EXPECT_FALSE(contains(begun.out, "web-2")) << begun.out;
  expectOut(begun, 6, {"\n1 client removed\n"});
  EXPECT_FALSE(std::filesystem::exists(data_ + "/join/web-2.join")) << "it holds a key";
  expectOut(overhub({"clients"}), 0, {"WITHDRAWN\n", "yes\n"});
  EXPECT_FALSE(contains(outOf(overhub({"clients", "--json"})), "\"withdrawn\": false"));
  expectOut(overhub({"status"}), 6,
            {"1 pending\neverything is withdrawn from 1 of them\n", "which takes two applied passes\n"});
  pass("web-1", 7);
  expectOut(overhub({"status", "--withdrawn"}), 6, {"which takes one more applied pass\n"});
  expectOut(overhub({"remove-client", "web-1", "--withdraw", "--wait", "1"}), 6, {"one more applied pass"});
  pass("web-1", 7);
  const std::string clean = "of them; 1 gave it back, \"overhub remove-client --withdraw\" removes those\n";
  EXPECT_TRUE(outOf(overhub({"status"})).ends_with(clean)) << "nothing is listed that is current";
  expectOut(overhub({"status", "--withdrawn"}), 0, {clean, "current", "it has given everything back"});
  expectOut(overhub({"status", "--prometheus"}), 0, {"overhub_clients_withdrawn 1\n"});
  expectOut(overhub({"remove-client", "web-1", "--dry-run"}), 0, {"1 client would be removed\n"});
  expectOut(overhub({"remove-client", "--withdraw"}), 0, {"revision "});
  EXPECT_FALSE(contains(outOf(overhub({"clients"})), "web-1"));
  EXPECT_EQ(outOf(overhub({"remove-client", "--withdraw"})), "no client is being withdrawn\n");
  expectOut(overhub({"log", "web-1"}), 0, {"-> everything withdrawn", "web-1: client: client 7 -> (none)"});
}

}  // namespace
