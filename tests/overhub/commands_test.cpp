// The commands that maintain the store, as a person or a script runs them.
#include <algorithm>
#include <climits>
#include <ctime>

#include "tests/overhub/overhub_fixture.h"

namespace {

class OverhubCommandsTest : public OverhubTest {
 protected:
  // Every byte of every file in the data directory.
  std::string everythingOnDisk() const {
    std::string all;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(data_))
      if (entry.is_regular_file()) all += readFile(entry.path().string());
    return all;
  }
};

// The join file is the contract with the client's machine, and, like the key, must be nobody else's.
TEST_F(OverhubCommandsTest, AddClientGivesIdKeyAndPrivateJoinFile) {
  const std::string joinFile = dir_ / "elsewhere.join";
  expectOut(overhub({"add-client", "web-1", "--server-host", "mgmt.example", "--server-name", "hub",
                     "--join-file", joinFile}),
            0, {"id 3; its join file is " + joinFile + "\n"});

  const std::string key = keyOf("web-1");
  EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), std::string::npos);
  const std::string join = readFile(joinFile);
  EXPECT_EQ(join.substr(0, 1), "#");
  EXPECT_EQ(join.substr(join.find('\n') + 1),
            "server-host=\"mgmt.example\"\nserver-name=\"hub\"\nclient-name=\"web-1\"\nclient-id=3\n"
            "session-key=\"" +
                key + "\"\n");
  for (const char* const directory : {"/..", "", "/join"})
    EXPECT_EQ(modeOf(data_ + directory), 0700U) << directory;
  for (const std::string& file : {storeFile(), data_ + "/secret.key", joinFile})
    EXPECT_EQ(modeOf(file), 0600U) << file;

  // A new key for the same client: what it was and what it gets stay.
  expectOk({"set", "web-1", "~/A", "nB", "1"});
  expectOk({"renew-client", "web-1", "--server-host", "mgmt.example"});
  EXPECT_NE(keyOf("web-1"), key);
  const std::string renewed = readFile(data_ + "/join/web-1.join");
  EXPECT_TRUE(contains(renewed, "client-id=3\nsession-key=\"" + keyOf("web-1") + "\"")) << renewed;
  EXPECT_EQ(batchOf("web-1").keys->size(), 1U);

  expectOk({"add-client", "a", "--id", "9223372036854775806"});
  expectOk({"add-client", "b"});
  EXPECT_NE(keyOf("a"), keyOf("b"));
  expectOut(overhub({"clients"}), 0,
            {"b      9223372036854775807                 0  never      never                 never\n"});
  expectErr(overhub({"add-client", "c"}), 1, {"the highest id", "--id"});
  expectOk({"add-client", "c", "--id", "5"});
  std::string here(HOST_NAME_MAX + 1, '\0');
  ASSERT_EQ(gethostname(here.data(), here.size()), 0);
  EXPECT_TRUE(
      contains(readFile(data_ + "/join/c.join"), std::string("server-host=\"") + here.c_str() + "\"\n"));
}

// Names become file names, and a second registration would silently replace a client's key.
TEST_F(OverhubCommandsTest, AddClientRefusesBadAndTakenNamesAndIds) {
  expectOk({"add-client", "web-1"});
  const std::string before = everythingOnDisk();
  const std::string tooLong(65, 'a');
  for (const char* name : {"../x", "a/b", ".x", "", "@static", "a b", "a\nb", tooLong.c_str()}) {
    const auto result = overhub({"add-client", name});
    EXPECT_EQ(result.exitCode, 2) << name;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << "not escaped: " << result.err;
  }
  expectErr(overhub({"add-client", "web-1"}), 1, {"web-1"});
  for (const char* const id : {"2", "3"})  // the server's own, and web-1's
    EXPECT_EQ(overhub({"add-client", "x", "--id", id}).exitCode, 1) << id;
  EXPECT_EQ(overhub({"add-client", "x", "--join-file", dir_ / "no/such/folder"}).exitCode, 3);
  writeFile(dir_ / "precious", "mine");
  EXPECT_EQ(overhub({"add-client", "x", "--join-file", dir_ / "precious"}).exitCode, 1);
  EXPECT_EQ(readFile(dir_ / "precious"), "mine");
  EXPECT_EQ(everythingOnDisk(), before);
}

// An id that two clients had would give one the settings of the other, and what is left of a client that was
// taken away must not come to the next one of its name.
TEST_F(OverhubCommandsTest, AnIdIsNeverGivenTwice) {
  expectOk({"add-group", "web", "--number", "1"});
  expectOk({"set", "@web", "p", "sGROUP", "v"});
  expectOk({"add-client", "a", "--id", "40"});
  expectOk({"add-client", "b", "--groups", "web", "--host", "elsewhere"});
  expectOk({"set", "b", "p", "sOWN", "v"});
  EXPECT_EQ(batchOf("b").keys->size(), 2U);
  const std::string key = keyOf("b");
  expectOk({"remove-client", "b"});
  expectErr(overhub({"show", "b"}), 1, {"there is no client \"b\""});

  expectErr(overhub({"add-client", "x", "--id", "41"}), 1, {"41 has been given"});
  expectOut(overhub({"add-client", "b"}), 0, {"client b has the id 42;"});
  EXPECT_TRUE(batchOf("b").keys->empty());
  EXPECT_NE(keyOf("b"), key);
  EXPECT_FALSE(contains(outOf(overhub({"clients"})), "elsewhere"));
  expectOk({"add-client", "c", "--id", "7"});
  expectOut(overhub({"add-client", "d"}), 0, {"the id 43;"});
  expectOk({"remove-client", "d"});
  expectOut(overhub({"add-client", "d"}), 0, {"the id 44;"});
}

// Whatever is wrong with a store, all commands say what it is and how to mend it, and leave it as it is.
TEST_F(OverhubCommandsTest, AStoreThatCannotBeUsedIsNamedWithTheWayOut) {
  const std::string key = data_ + "/secret.key";
  ASSERT_EQ(runProgram({programPath("overhub"), "--data", dir_ / "other", "add-client", "pc1"}).exitCode, 0);
  const auto sql = [this](const char* statement) { return [this, statement] { meddle(statement); }; };
  const std::tuple<const char*, std::function<void()>, std::vector<std::string>> faults[] = {
      {"no database",
       [&] { writeFile(storeFile(), std::string(5000, '#')); },
       {storeFile(), "not a database", "no store of overhub's"}},
      {"damaged", [&] { std::filesystem::resize_file(storeFile(), 8192); }, {storeFile(), "put a backup"}},
      {"a directory",
       [&] {
         std::filesystem::remove(storeFile());
         std::filesystem::create_directory(storeFile());
       },
       {storeFile()}},
      {"of a newer version",
       sql("UPDATE counters SET value = 999 WHERE name = 'schema'"),
       {storeFile(), "version 999", "use the overhub that wrote it, or a newer one"}},
      {"another program's",
       sql("DELETE FROM counters WHERE name = 'schema'"),
       {storeFile(), "not overhub's; name an empty database"}},
      {"another store's key",
       [&] {
         std::filesystem::copy_file(dir_ / "other/secret.key", key,
                                    std::filesystem::copy_options::overwrite_existing);
       },
       {key + " is not the key of the store " + storeFile(), "copy the secret.key"}},
      {"no key", [&] { std::filesystem::remove(key); }, {key + ": the protection key is missing", "backup"}},
      {"an open key", [&] { ASSERT_EQ(chmod(key.c_str(), 0644), 0); }, {"chmod 600 " + key}},
      {"an open directory", [&] { ASSERT_EQ(chmod(data_.c_str(), 0777), 0); }, {"chmod go-w " + data_}},
  };
  for (const auto& [what, doHarm, reasons] : faults) {
    SCOPED_TRACE(what);
    expectOk({"add-client", "web-1"});
    doHarm();
    const std::string before = everythingOnDisk();
    const std::vector<std::string> commands[] = {{"show", "web-1"},
                                                 {"set", "web-1", "p", "n", "v"},
                                                 {"add-client", "web-2"},
                                                 {"serve", "--listen", address_}};
    for (const auto& command : commands) expectErr(overhub(command), 3, reasons);
    EXPECT_EQ(everythingOnDisk(), before);
    std::filesystem::remove_all(data_);
  }

  // One that can be read is read.
  expectOk({"add-client", "web-1"});
  std::string readOnly = readFile(storeFile());
  readOnly[18] = 3;  // as a future format says that this program may not write it
  writeFile(storeFile(), readOnly);
  expectOk({"show", "web-1"});
  expectErr(overhub({"set", "web-1", "p", "n", "v"}), 3, {storeFile(), "readonly", "may write the file"});
  EXPECT_TRUE(batchOf("web-1").keys->empty());
}

// What the words of the command line make of a record, and how that is shown.
TEST_F(OverhubCommandsTest, WhatIsSetIsShownUntilItIsTakenOut) {
  expectOk({"add-client", "web-1"});
  expectOk({"set", "web-1", "~/Limits", "nMAX", "21", "--until", "2000000000", "--disabled"});
  expectOk({"set", "web-1", "~/Other", "nMAX", "-1"});
  expectOk({"set", "web-1", "~", "Local", "--type", "KEY"});
  expectOk({"set", "web-1", "~/Gone", "x", "--delete"});
  EXPECT_EQ(outOf(overhub({"show", "web-1"})),
            R"(PATH      NAME   TYPE    VALUE  UNTIL                 FLAGS     SCOPE  REVISION
~         Local  KEY                                            web-1         4
~/Gone    x      STRING                               delete    web-1         5
~/Limits  nMAX   STRING  21     2033-05-18T03:33:20Z  disabled  web-1         2
~/Other   nMAX   STRING  -1                                     web-1         3
)");
  for (const int exitCode : {0, 1})
    EXPECT_EQ(overhub({"unset", "web-1", "~/Limits", "nMAX"}).exitCode, exitCode);
  expectErr(overhub({"unset", "web-1", "~/Limits", "x"}), 1, {"nothing is set for web-1 as \"x\""});
  EXPECT_EQ(batchOf("web-1").keys->size(), 3U);
}

// A value that takes away a machine's way to the server is applied, acknowledged or not, and never comes
// back.
TEST_F(OverhubCommandsTest, WhatAMachineNeedsToComeBackIsSetWithForceOnly) {
  expectOk({"add-client", "web-1"});
  const char* const wayBack[] = {"EventManager bEnableRegistrySync 0",
                                 "~//Overhub/ sOHHOSTNAME elsewhere",
                                 "SOFTWARE/Velmor/I2/Overhub sSESSIONKEY --delete",
                                 "~Hosts/web-1 sCLIENTNAME --disabled x",
                                 "SOFTWARE/Velmor/Clients/web-1 nCLIENTID 4",
                                 "~ EventManager --type KEY --delete",
                                 "Hosts web-1 --type KEY --delete",
                                 "Machine Other --type KEY"};
  for (const std::string words : wayBack) {
    const auto refused =
        shell("\"$OVERHUB\" set web-1 '" + std::string(words).replace(words.find(' '), 1, "' "));
    expectErr(refused, 1, {"in \"" + words.substr(0, words.find(' ')) + "\"", "--force"});
    EXPECT_EQ(shell("\"$OVERHUB\" set web-1 --force '" + std::string(words).replace(words.find(' '), 1, "' "))
                  .exitCode,
              0);
  }
  EXPECT_EQ(batchOf("web-1").keys->size(), std::size(wayBack));
  expectErr(overhub({"unset", "web-1", "~/EventManager", "bEnableRegistrySync"}), 1, {"--force"});
  expectOk({"set", "web-1", "EventManager", "nTimer", "5"});
  expectOk({"set", "web-1", "Overhubs", "sOHHOSTNAME", "another key"});
}

// An expiry that is off by hours, or taken from a typing mistake, removes settings from machines.
TEST_F(OverhubCommandsTest, UntilTakesATimeOfTheStoresAndNothingElse) {
  expectOk({"add-client", "web-1"});
  for (const char* const bad :
       {"tomorrow", "12x", "+", "-5", "+-5", "+1y", "2027-02-29T00:00", "2027-01-01", "1969-12-31T23:59",
        "2027-01-01T00:00+1", "9223372036854775807000", "+9223372036854775807w", "+9223372036854775807"})
    EXPECT_EQ(overhub({"set", "web-1", "p", "n", "v", std::string("--until=") + bad}).exitCode, 2) << bad;
  // The store's clock, which is far ahead of this machine's, never goes behind its newest revision.
  meddle("UPDATE revisions SET time = 4000000000");
  meddle("UPDATE contacts SET last_seen = 4000000000 - 7200");
  expectOut(overhub({"clients"}), 0, {"2 h ago"});
  for (const auto& [given, seconds] : {std::pair("2097-01-01T06:00", "4007858400"),
                                       {"2104-02-29T23:59:58Z", "4233772798"},
                                       {"+60m", "4000003600"},
                                       {"+1d", "4000086400"},
                                       {"+90", "4000000090"}}) {
    expectOk({"set", "web-1", "p", "n", "v", "--until", given});
    EXPECT_EQ(batchOf("web-1").keys.get()[1].value.get(), seconds);
  }
}

// What is asked for in secret must not lie about in clear, neither on disk nor on a terminal.
TEST_F(OverhubCommandsTest, SecretsStandEncryptedAndHidden) {
  expectOk({"add-client", "web-1"});
  const auto set = shell("printf 'op3n\\\\sesame <&>\\n' | \"$OVERHUB\" set web-1 '~/Proxy' sPW --secret");
  ASSERT_EQ(set.exitCode, 0) << set.err;
  const std::string shown = overhub({"show", "web-1"}).out;
  EXPECT_TRUE(contains(shown, "~/Proxy  sPW   ENCRYPTED  ********")) << shown;
  EXPECT_FALSE(contains(everythingOnDisk() + shown + set.out + set.err, "sesame"));

  const auto batch = batchOf("web-1");
  EXPECT_EQ(batch.keys.get()[0].encryptedValue->reveal(), "op3n\\sesame <&>");
  EXPECT_EQ(batch.keys.get()[0].value.get(), "********") << "clients write nothing for an empty value";

  EXPECT_EQ(shell("\"$OVERHUB\" set web-1 p n --secret < /dev/null").exitCode, 2);
  EXPECT_EQ(shell("echo x | \"$OVERHUB\" set web-1 p n value --secret").exitCode, 2);
}

// Scripts set values for many records at once.
TEST_F(OverhubCommandsTest, ParallelChangesLoseNothing) {
  // Whoever comes first makes the store.
  const auto made = shell("for i in 1 2 3 4; do \"$OVERHUB\" add-client web-$i > /dev/null & done; wait");
  EXPECT_EQ(made.err, "");
  const auto result = shell(
      "for i in 1 2 3 4 5 6 7 8 9 10; do "
      "\"$OVERHUB\" set web-1 p n$i $i & \"$OVERHUB\" add-client c$i > /dev/null & done; wait");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(batchOf("web-1").keys->size(), 10U);
  EXPECT_EQ(outOf(shell("\"$OVERHUB\" clients | awk 'NR>1{print $2}' | sort -u | wc -l")), "14\n");
  expectOut(overhub({"set", "web-1", "p", "n0", "0"}), 0, {"revision 25: 1 machine "});
}

// A value from outside must not drive the terminal, and a mistake must name what it is about.
TEST_F(OverhubCommandsTest, OutputIsEscapedAndErrorsNameWhatIsWrong) {
  expectErr(overhub({"clients"}), 3, {data_, "--data"});
  EXPECT_FALSE(std::filesystem::exists(data_)) << "a mistyped directory was made";
  for (const char* const command : {"serve", "set", "push", "fetch", "call", "uploads"}) {
    const std::string help = overhub({command, "--help"}).out;
    EXPECT_TRUE(contains(help, "Example") && !contains(help, "overhub add-client")) << "its own: " << help;
  }

  expectOk({"add-client", "web-1"});
  expectOk({"set", "@static", "p", "n\xc3\xa9", "a\nb\\"});
  expectOk({"set", "@static", "p", "nn", "1"});
  meddle("UPDATE settings SET value = '\x1b[31m' WHERE name = 'nn'");
  expectOut(overhub({"show", "@static"}), 0,
            {"p     nn    STRING  \\x1b[31m                @static         3\n",
             "p     n\xc3\xa9    STRING  a\\nb\\\\                  @static         2\n"});
  for (const char* const command : {"show", "acks", "uploads", "renew-client", "push"})
    for (const char* const who : {"web-2", "../static"}) expectErr(overhub({command, who}), 1, {who});
  for (const char* const command : {"unset", "fetch", "call"})
    expectErr(overhub({command, "web-2", "7", "n"}), 1, {"there is no client \"web-2\""});
  const std::pair<std::vector<std::string>, const char*> refused[] = {
      {{"p", std::string(1025, 'n'), "v"}, "1 to 1024 bytes"},
      {{"/home/me/Limits", "n", "v"}, "quote \"~\""},
      {{"--type", "NUMBER", "p", "n", "5"}, "no type word"},
      {{"--", "p", "-n", "v"}, "\"-n\" looks like an option"},
      {{"p\n", "n", "v"}, "without control characters"},
      {{"p", "n", "\x1b[31m"}, "without control characters"},
      {{"p", "n_UNTIL", "5"}, "--until"}};
  for (auto [words, reason] : refused) {
    words.insert(words.begin(), {"set", "web-1"});
    expectErr(overhub(words), 2, {reason});
  }
  expectErr(overhub({"set", "web-1", "p", "nMAX", "ten"}), 0, {"\"ten\" is none"});
}

}  // namespace
