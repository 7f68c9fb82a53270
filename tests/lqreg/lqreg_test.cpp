// lqreg as a person or a script runs it.

#include "tests/support/expectations.h"

namespace {

class LqregTest : public ::testing::Test {
 protected:
  ProgramResult lqreg(std::vector<std::string> arguments, const std::string& instance = "I1") const {
    arguments.insert(arguments.begin(), programPath("lqreg"));
    return runProgram(arguments, {"VELMOR_REGISTRY=" + file_, "VELMOR_VM=" + instance});
  }

  TempDir dir_;
  std::string file_ = dir_ / "registry.db";
};

TEST_F(LqregTest, WritesReadsShowsAndRemoves) {
  // Among them what a command line could take for something else: options, commands, lists.
  const std::vector<std::vector<std::string>> writes = {
      {"set", "A", "text", "two words"},
      {"set", "~A/list", "get", "[a,b]"},
      {"set", "SOFTWARE/Velmor/I1/A", "empty", ""},
      {"set", "~", "raw", "1\n2\t\x1b[31m\\\xc2\x9b\xc3\xa9"},
      {"set", "A", "minus", "--", "-5"}};
  for (const auto& write : writes) EXPECT_EQ(lqreg(write).exitCode, 0) << write[2];
  EXPECT_FALSE(std::filesystem::exists(file_ + "-wal")) << "it is one file for whoever copies it";

  EXPECT_EQ(outOf(lqreg({"get", "A", "minus"})), "-5\n");
  EXPECT_EQ(outOf(lqreg({"get", "A/list", "get"})), "[a,b]\n");
  EXPECT_EQ(outOf(lqreg({"get", "~", "raw"})), "1\n2\t\x1b[31m\\\xc2\x9b\xc3\xa9\n") << "as it is";
  EXPECT_EQ(outOf(lqreg({"list", "A"})), "empty = \nminus = -5\ntext = two words\nlist/\n");
  const std::string tree =
      "~/\n  raw = 1\\n2\\t\\x1b[31m\\\\\\xc2\\x9b\xc3\xa9\n  A/\n    empty = \n    minus = -5\n"
      "    text = two words\n    list/\n      get = [a,b]\n";
  EXPECT_EQ(outOf(lqreg({"tree"})), tree);
  expectOut(lqreg({"tree"}, ""), 0, {"SOFTWARE/\n  Velmor/\n    I1/\n"});  // no instance: everything
  EXPECT_EQ(outOf(lqreg({"list", "--instance", "I1", "A/list"}, "I2")), "get = [a,b]\n") << "option wins";

  EXPECT_EQ(lqreg({"delete", "A", "minus"}).exitCode, 0);
  expectErr(lqreg({"delete", "A"}), 2, {"--recursive"});
  EXPECT_EQ(lqreg({"delete", "A", "--recursive"}).exitCode, 0);
  EXPECT_EQ(outOf(lqreg({"tree"})), tree.substr(0, tree.find("  A/")));
}

TEST_F(LqregTest, SaysWhatIsWrongAndHowToGoOn) {
  ASSERT_EQ(lqreg({"set", "A", "name", "data"}).exitCode, 0);
  const std::string damaged = dir_ / "damaged.db";
  writeFile(damaged, std::string(5000, '#'));
  using Words = std::vector<std::string>;
  const std::tuple<Words, int, Words> cases[] = {
      {{"get", "A", "nothing"}, 1, {file_, "\"A\"", "\"nothing\"", "lqreg tree"}},
      {{"list", "B\n"}, 1, {file_, R"("B\n")"}},
      {{"delete", "B"}, 1, {file_, "\"B\""}},
      {{"export", "--registry", dir_ / "none.db"}, 1, {"does not exist", "none.db"}},
      {{"list", "A", "--registry", damaged}, 3, {damaged, "not a database", "--registry"}},
      {{"set", "A", "", "data"}, 2, {file_, "\"A\"", "empty", "lqreg --help"}},
      {{"delete", "~", "--recursive"}, 2, {file_, "\"~\""}}};
  for (const auto& [arguments, exitCode, words] : cases) {
    const auto result = lqreg(arguments);
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(contains(result.err, " E [")) << "the log is not shown as well";
    expectErr(result, exitCode, words);
  }
  expectErr(lqreg({"get", "A", "name"}, ""), 2, {"--instance"});
}

}  // namespace
