// What all programs take for a mistake, and the two questions that every one of them answers.
#include "tests/support/expectations.h"

namespace {

using Words = std::vector<std::string>;

ProgramResult run(const std::string& program, Words arguments) {
  arguments.insert(arguments.begin(), programPath(program));
  // Where nothing can come about, should a mistake be let through.
  return runProgram(arguments, {"OVERHUB_DATA=/dev/null/data", "VELMOR_REGISTRY=/dev/null/registry.db"});
}

TEST(CommandLine, SaysItsVersionAndHowItIsUsed) {
  const std::string version = run("lqhost", {"--version"}).out.substr(std::string("lqhost ").size());
  EXPECT_EQ(version.find_first_not_of("0123456789.\n"), std::string::npos) << version;
  for (const std::string program : {"lqhost", "lqreg", "overhub"}) {
    EXPECT_EQ(outOf(run(program, {"--version"})), program + " " + version);
    expectOut(run(program, {"--help"}), 0, {"Usage: " + program, "Examples:", "Exit codes:"});
    for (const Words& mistake : {Words{}, Words{"frobnicate"}}) {
      const auto result = run(program, mistake);
      EXPECT_EQ(result.out, "");
      expectErr(result, 2, {"--help", mistake.empty() ? "required" : "there is no command \"frobnicate\""});
    }
  }
  expectOut(run("lqhost", {"run", "--help"}), 0, {"=0.0.0.0 ", "=8404 ", "=900\n", "=300\n"});
  expectOut(run("lqhost", {"sync", "--help"}), 0, {"--watch PATH NAME "});
  expectOut(run("overhub", {"push", "--help"}), 0, {"Examples:\n  overhub push web-1\n"});
  // Without a word of its own a command has the program's, as far as they concern it.
  expectOut(run("overhub", {"clients", "--help"}), 0,
            {"\n\nExamples:\n  overhub clients 'web-*'\n\nExit codes: 0 done"});
  expectOut(run("lqreg", {"list", "--help"}), 0,
            {"\n\nKeys: ", "\n\nExamples:\n  lqreg --instance Instance001 list '~'\n\nAn export holds"});
}

// Each would do something else than was asked for, if it did anything.
TEST(CommandLine, RefusesWhatDoesNotGoTogetherOrIsOutOfRange) {
  const std::tuple<const char*, Words, const char*> cases[] = {
      {"lqhost", {"run", "--sync-every", "4"}, "--sync-every"},
      {"lqhost", {"--log-level", "11", "status"}, "--log-level"},
      {"lqhost", {"--log-file", "/dev/null/log", "status"}, "--log-file names another place"},
      {"lqhost", {"join"}, "FILE"},
      {"lqreg", {"get", "A"}, "NAME"},
      {"lqreg", {"import", "file", "--instance", ""}, "--instance"},
      {"lqreg", {"export", "--instance", ""}, "--instance"},
      {"lqreg", {"delete", "A", "name", "--recursive"}, "--recursive"},
      {"overhub", {"add-client", "x", "--id", "0"}, "a number from 1 to"},
      {"overhub", {"call", "x", "9223372036854775808", "payload"}, "TYPE"},
      {"overhub", {"fetch", "x", "path"}, "NAME"},
      {"overhub", {"push", "x", "--timeout", "0"}, "--timeout"},
      {"overhub", {"push", "x", "--port", "0"}, "--port"},
      {"overhub", {"serve", "--ports", "8400"}, "--ports"},
      {"overhub", {"serve", "--ports", "8400,65536"}, "--ports"},
      {"overhub", {"serve", "--ports", "0,8402"}, "--ports"},
      {"overhub", {"set", "x", "p", "n", "--secret", "--type", "STRING"}, "--type"},
      {"overhub", {"set", "x", "p", "n", "--secret", "--delete"}, "--delete"},
      {"overhub", {"uploads", "--out", "file"}, "CLIENT"}};
  for (const auto& [program, arguments, word] : cases) expectErr(run(program, arguments), 2, {word});
}

}  // namespace
