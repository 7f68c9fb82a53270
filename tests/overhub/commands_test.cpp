// The commands that maintain the data directory, as a person or a script runs them.
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
  for (const char* const directory : {"/..", "", "/clients", "/keys", "/acks", "/join"})
    EXPECT_EQ(modeOf(data_ + directory), 0700U) << directory;
  for (const std::string& file :
       {data_ + "/keys/web-1.key", data_ + "/change.lock", batchFile("web-1"), joinFile})
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
  expectOut(overhub({"clients"}), 0, {"b      9223372036854775807  0        never"});
  EXPECT_EQ(overhub({"add-client", "c"}).exitCode, 1) << "there is no higher id";
  expectOk({"add-client", "c", "--id", "5"});
  std::string here(HOST_NAME_MAX + 1, '\0');
  ASSERT_EQ(gethostname(here.data(), here.size()), 0);
  EXPECT_TRUE(contains(fileText("join/c.join"), std::string("server-host=\"") + here.c_str() + "\"\n"));
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

// Registration must not depend on the other clients' files, and an id that two clients share mixes them up.
TEST_F(OverhubCommandsTest, IdsStayUniqueThroughDamageAndRemoval) {
  expectOk({"add-client", "a", "--id", "40"});
  expectOk({"add-client", "b"});
  writeFile(batchFile("a"), "<broken");
  expectOk({"add-client", "c"});
  EXPECT_EQ(fileText("ids/42"), "c\n");
  // a's file is damaged, its id is not free
  EXPECT_EQ(overhub({"add-client", "x", "--id", "40"}).exitCode, 1);

  std::filesystem::remove(batchFile("b"));
  expectOk({"add-client", "d"});
  EXPECT_EQ(fileText("ids/43"), "d\n");
  expectOk({"add-client", "b", "--id", "7"});
  expectOk({"add-client", "e", "--id", "41"});  // once b's

  // A directory with a broken list of ids: what can be read counts, and what cannot is named.
  std::filesystem::remove_all(data_ + "/ids");
  std::filesystem::create_directory(data_ + "/ids");
  writeFile(data_ + "/ids/highest", "many");
  expectErr(overhub({"add-client", "f"}), 0, {batchFile("a")});
  expectErr(overhub({"renew-client", "a"}), 3, {batchFile("a")});
  EXPECT_EQ(fileText("ids/7") + fileText("ids/41") + fileText("ids/44"), "b\ne\nf\n");
}

// What the words of the command line make of a record, and how that is shown.
TEST_F(OverhubCommandsTest, WhatIsSetIsShownUntilItIsTakenOut) {
  expectOk({"add-client", "web-1"});
  expectOk({"set", "web-1", "~/Limits", "nMAX", "21", "--until", "2000000000", "--disabled"});
  expectOk({"set", "web-1", "~/Other", "nMAX", "-1"});
  expectOk({"set", "web-1", "~", "Local", "--type", "KEY"});
  expectOk({"set", "web-1", "~/Gone", "x", "--delete"});
  EXPECT_EQ(outOf(overhub({"show", "web-1"})), R"(PATH      NAME        TYPE    VALUE       FLAGS
~/Limits  nMAX        STRING  21          disabled
~/Limits  nMAX_UNTIL  STRING  2000000000
~/Other   nMAX        STRING  -1
~         Local       KEY
~/Gone    x           STRING              delete
)");
  for (const int exitCode : {0, 1})
    EXPECT_EQ(overhub({"unset", "web-1", "~/Limits", "nMAX"}).exitCode, exitCode);
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
  expectOk({"set", "web-1", "EventManager", "nTimer", "5"});
  expectOk({"set", "web-1", "Overhubs", "sOHHOSTNAME", "another key"});
}

// An expiry that is off by hours, or taken from a typing mistake, removes settings from machines.
TEST_F(OverhubCommandsTest, UntilTakesSecondsFromNowAndNothingElse) {
  expectOk({"add-client", "web-1"});
  const std::int64_t before = std::time(nullptr);
  expectOk({"set", "web-1", "p", "n", "v", "--until", "+60m"});
  const std::int64_t after = std::time(nullptr);
  const auto batch = batchOf("web-1");
  ASSERT_EQ(batch.keys->size(), 2U);
  const std::int64_t until = std::stoll(batch.keys.get()[1].value.get());
  EXPECT_TRUE(before + 3600 <= until && until <= after + 3600) << until;
  for (const char* const bad :
       {"tomorrow", "12x", "+", "-5", "+-5", "+1y", "2027-02-29T00:00", "2027-01-01", "1969-12-31T23:59",
        "2027-01-01T00:00+1", "9223372036854775807000", "+9223372036854775807w"})
    EXPECT_EQ(overhub({"set", "web-1", "p", "n", "v", std::string("--until=") + bad}).exitCode, 2) << bad;
  for (const auto& [given, seconds] :
       {std::pair("2027-01-01T06:00", "1798783200"), {"2028-02-29T23:59:58Z", "1835481598"}}) {
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

  pstring::UseKeyFile(data_ + "/secret.key");
  const auto batch = batchOf("web-1");
  EXPECT_EQ(batch.keys.get()[0].encryptedValue->reveal(), "op3n\\sesame <&>");
  EXPECT_EQ(batch.keys.get()[0].value.get(), "********") << "clients write nothing for an empty value";

  // The key is made with the directory only: another one would hide that this one was lost.
  const std::string key = data_ + "/secret.key";
  std::filesystem::rename(key, dir_ / "away");
  expectErr(shell("echo new | \"$OVERHUB\" set web-1 '~/Proxy' sOTHER --secret"), 3,
            {key + ": the protection key is missing"});
  expectOk({"add-client", "web-2"});
  expectOk({"set", "web-1", "p", "n", "v"});
  EXPECT_FALSE(std::filesystem::exists(key));
  std::filesystem::rename(dir_ / "away", key);
  pstring::UseKeyFile(key);
  EXPECT_EQ(batchOf("web-1").keys.get()[0].encryptedValue->reveal(), "op3n\\sesame <&>");  // as it was

  EXPECT_EQ(shell("\"$OVERHUB\" set web-1 p n --secret < /dev/null").exitCode, 2);
  EXPECT_EQ(shell("echo x | \"$OVERHUB\" set web-1 p n value --secret").exitCode, 2);
}

// Scripts set values for many records at once.
TEST_F(OverhubCommandsTest, ParallelSetsLoseNothing) {
  expectOk({"add-client", "web-1"});
  const auto result = shell(
      "touch \"$OVERHUB_DATA\"/clients/web-1.xml.bak; "  // is no client
      "for i in 1 2 3 4 5 6 7 8 9 10; do "
      "\"$OVERHUB\" set web-1 p n$i $i & \"$OVERHUB\" add-client c$i > /dev/null & done; wait");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(batchOf("web-1").keys->size(), 10U);
  EXPECT_EQ(outOf(shell("\"$OVERHUB\" clients | awk 'NR>1{print $2}' | sort -u | wc -l")), "11\n");
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
  expectOk({"set", "@static", "p", "n\xc3\xa9", "a\nb\x1b[31m\\"});
  expectOk({"set", "@static", "p", "nn", "1"});
  EXPECT_TRUE(contains(overhub({"show", "@static"}).out,
                       "p     n\xc3\xa9    STRING  a\\nb\\x1b[31m\\\\\n"
                       "p     nn    STRING  1\n"));
  for (const char* const command : {"show", "acks", "uploads", "renew-client", "push"})
    for (const char* const who : {"web-2", "../static"}) expectErr(overhub({command, who}), 1, {who});
  for (const char* const command : {"unset", "fetch", "call"})
    expectErr(overhub({command, "web-2", "7", "n"}), 1, {"there is no client \"web-2\""});
  const std::pair<std::vector<std::string>, const char*> refused[] = {
      {{"p", std::string(1025, 'n'), "v"}, "1 to 1024 bytes"},
      {{"/home/me/Limits", "n", "v"}, "quote \"~\""},
      {{"--type", "NUMBER", "p", "n", "5"}, "no type word"},
      {{"--", "p", "-n", "v"}, "\"-n\" looks like an option"},
      {{"p\n", "n", "v"}, "no control characters"}};
  for (auto [words, reason] : refused) {
    words.insert(words.begin(), {"set", "web-1"});
    expectErr(overhub(words), 2, {reason});
  }
  expectErr(overhub({"set", "web-1", "p", "nMAX", "ten"}), 0, {"\"ten\" is none"});

  writeFile(batchFile("web-1"), "<OBGui.RegistryTaskResp><keys>");
  expectErr(overhub({"set", "web-1", "p", "n", "v"}), 3, {batchFile("web-1")});
  EXPECT_EQ(readFile(batchFile("web-1")), "<OBGui.RegistryTaskResp><keys>");
  const auto listed = overhub({"clients"});
  expectOut(listed, 3, {"web-1  ?   ?        ?\n"});
  expectErr(listed, 3, {batchFile("web-1")});
  expectErr(shell("cd $OVERHUB_DATA; rm change.lock; mkdir change.lock; $OVERHUB set @static p n 1"), 3,
            {data_ + "/change.lock: Is a directory"});
}

}  // namespace
