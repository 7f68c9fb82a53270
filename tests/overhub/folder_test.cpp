// A store outside of itself: as a folder of text, as a backup, and taken over from the version before.
#include <algorithm>
#include <filesystem>
#include <map>

#include "common/file_lock.h"
#include "tests/overhub/overhub_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kCanary = "canary-sesame";

class FolderTest : public OverhubTest {
 protected:
  // Every file of a folder, by its name in it.
  static std::map<std::string, std::string> filesIn(const std::string& folder) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
      if (entry.is_regular_file())
        files[fs::relative(entry.path(), folder).string()] = readFile(entry.path().string());
    return files;
  }
  // A store with something of everything in it.
  void fillStore() const {
    expectOk({"add-client", "web-2", "--host", "10.0.0.7"});
    expectOk({"add-client", "web-10"});
    expectOk({"add-group", "berlin", "--number", "20"});
    expectOk({"add-group", "empty", "--number", "-3"});
    expectOk({"join-group", "berlin", "web-*", "web-2", "[!a-c]*"});
    expectOk({"set", "@all", "~/Limits", "nMAX", "20", "--until", "2033-01-01T06:00"});
    expectOk({"set", "@all", "Limits", "nMIN", "1", "--until", "9223372036854775806"});
    expectOk({"set", "@all", "~/A", "x", "********", "--disabled"});
    expectOk({"set", "@berlin", "~/\"A\\ #", "s=", "a\"b\\n\n\r\tc\\x41 \xc3\xa4"});
    expectOk({"set", "@all", "~/Overhub2", "sSESSIONKEY", kCanary});
    expectOk({"set", "@berlin", "~/Old", "gone", "--delete"});
    expectOk({"set", "@berlin", "~/Old", "sHELD", "kept", "--delete", "--disabled"});
    expectOk({"set", "web-2", "~", "Local", "--type", "KEY"});
    expectOk({"set", "web-2", "~", "Local", ""});
    expectOk({"set", "@static", "~/S", "s", ""});
    EXPECT_EQ(shell(std::string("printf %s ") + kCanary +
                    " | \"$OVERHUB\" set web-2 '~/Proxy' sPASSWORD --secret --until 2034-01-01T00:00:01")
                  .exitCode,
              0);
  }
  void edit(const std::string& file, const std::string& text) const { writeFile(folder_ + "/" + file, text); }
  std::string shown() const {
    return outOf(overhub({"show", "@all,@berlin,web-2,web-10,@static"})) + outOf(overhub({"groups"}));
  }

  // The secret that the client would be handed.
  std::string secretOf(const std::string& client) const {
    const OBGui::RegistryTaskResp batch = batchOf(client);
    for (const OBGui::RegistryKeyInfo& key : batch.keys.get())
      if (key.valueType.get() == "ENCRYPTED") return std::string(key.encryptedValue->reveal());
    return {};
  }

  std::string folder_ = dir_ / "folder";
};

// What is written says all that is set, for a person and for nobody else, and always in the same bytes.
TEST_F(FolderTest, AnExportIsTheStoreAsText) {
  fillStore();
  expectOut(overhub({"export", folder_}), 0, {"7 files, of which 6 were written; 0 removed"});
  const auto files = filesIn(folder_);
  const std::map<std::string, std::string> expected = {
      {"overhub-folder.txt",
       "# overhub export: a store as text; \"overhub apply\" makes the store what it says\nformat 1\n"},
      {"all.txt",
       "# overhub export: what is set for all machines\n"
       "\"~/A\" \"x\" = \"********\" disabled\n"
       "\"~/Limits\" \"nMAX\" = \"20\" until 2033-01-01T06:00:00Z\n"
       "\"Limits\" \"nMIN\" = \"1\" until 9223372036854775806\n"
       "\"~/Overhub2\" \"sSESSIONKEY\" type \"STRING\" = ********\n"},
      {"static.txt", "# overhub export: the static list\n\"~/S\" \"s\" = \"\"\n"},
      {"clients.txt",
       "# overhub export: the clients; \"overhub apply\" changes nothing of them\n"
       "client \"web-2\" id 3 host \"10.0.0.7\"\nclient \"web-10\" id 4\n"},
      {"groups/berlin.txt",
       "# overhub export: the group berlin\nnumber 20\nmember \"[!a-c]*\"\nmember \"web-*\"\nmember "
       "\"web-2\"\n"
       "\"~/\\\"A\\\\ #\" \"s=\" = \"a\\\"b\\\\n\\n\\r\\tc\\\\x41 \xc3\xa4\"\n"
       "\"~/Old\" \"gone\" delete\n\"~/Old\" \"sHELD\" = \"kept\" delete disabled\n"},
      {"groups/empty.txt", "# overhub export: the group empty\nnumber -3\n"},
      {"machines/web-2.txt",
       "# overhub export: the machine web-2\n"
       "\"~\" \"Local\" = \"\"\n\"~\" \"Local\" type \"KEY\"\n"
       "\"~/Proxy\" \"sPASSWORD\" = ******** until 2034-01-01T00:00:01Z\n"}};
  EXPECT_EQ(files, expected);
  expectOut(overhub({"export", folder_}), 0, {"7 files, of which 0 were written; 0 removed"});

  // Round and round: nothing is lost on the way there, and nothing on the way back.
  expectOut(overhub({"apply", folder_}), 0, {"nothing to change"});
  EXPECT_EQ(filesIn(folder_), expected);

  // What is gone goes, but nothing that somebody else has put there; and no folder of somebody else's is
  // taken.
  expectOk({"remove-group", "empty"});
  writeFile(folder_ + "/groups/mine.txt", "mine");
  writeFile(folder_ + "/README.md", "mine");
  expectErr(overhub({"export", folder_}), 0, {"groups/mine.txt is not of"});
  auto left = filesIn(folder_);
  EXPECT_EQ(left.erase("groups/mine.txt") + left.erase("README.md"), 2U);
  EXPECT_EQ(left.count("groups/empty.txt"), 0U);
  EXPECT_EQ(left.size(), 6U);
  fs::create_directories(dir_ / "precious/.git");
  expectOk({"export", dir_ / "precious"});
  writeFile(dir_ / "other.txt", "mine");
  expectErr(overhub({"export", dir_.path().string()}), 1, {"no folder of \"overhub export\""});
  EXPECT_FALSE(fs::exists(dir_ / "all.txt"));
}

// What a person has edited becomes so, in one revision; what it does not name stays what it is.
TEST_F(FolderTest, ApplyMakesTheStoreWhatTheFolderSays) {
  fillStore();
  expectOk({"export", folder_});
  edit("all.txt", "# a comment\n\n\t\"~/Limits\"  \"nMAX\" = \"30\"\r\n\"~/New\" \"x\" = \"\\x41\\n\"\n");
  fs::rename(folder_ + "/groups/empty.txt", folder_ + "/groups/paris.txt");
  edit("groups/paris.txt", "number 7\nmember \"web-10\"\n\"~/P\" \"p\" = \"1\"\n");
  edit("groups/berlin.txt", "number 21\nmember \"web-2\"\n");
  edit("machines/web-2.txt", "\"~/Proxy\" \"sPASSWORD\" = ********\n");
  expectOut(overhub({"apply", folder_, "--dry-run"}), 0, {"2 machines would get something else"});
  expectOut(overhub({"apply", folder_, "--expect", "1"}), 1, {});
  expectOut(overhub({"apply", folder_, "--why", "ticket 4711"}), 0, {"revision ", "2 machines will get"});
  expectOut(overhub({"log"}), 0, {"ticket 4711", "apply " + folder_});
  expectOut(overhub({"apply", folder_}), 0, {"nothing to change"});
  const std::string text = shown();
  for (const char* const part : {"30", "A\\n", "paris", "web-10"})
    EXPECT_TRUE(contains(text, part)) << part << text;
  for (const char* const part : {"nMIN", "empty", "web-*", "gone", "2034", "2033"})
    EXPECT_FALSE(contains(text, part)) << part << text;
  EXPECT_EQ(secretOf("web-2"), kCanary);
  for (const auto& [name, exported] : filesIn(folder_)) EXPECT_FALSE(contains(exported, kCanary)) << name;
}

// Every mistake is named with its place, and none of the rest is done.
TEST_F(FolderTest, ABrokenFolderChangesNothing) {
  fillStore();
  expectOk({"export", folder_});
  const std::string before = shown();
  const struct {
    const char* file;
    const char* text;
    const char* complaint;
  } cases[] = {
      {"all.txt", "\n\"~/A\" \"x\"\n", "all.txt:2: a value is missing"},
      {"all.txt", "\"~/A\" \"x = 1\n", "all.txt:1: a quote is not closed"},
      {"all.txt", "\"~/A\" \"x\"= \"1\"", "all.txt:1: a blank is missing"},
      {"all.txt", "\"~/A\" \"x\" = \"\\q\"", "all.txt:1: a backslash"},
      {"all.txt", "\"~/A\" \"x\" = \"\\x4\"", "all.txt:1: a backslash"},
      {"all.txt", "\"~/A\" \"x\" = 1", "all.txt:1: \"=\" is followed by"},
      {"all.txt", "\"~/A\" x = \"1\"", "all.txt:1: a setting begins"},
      {"all.txt", "~/A x = 1", "all.txt:1: \"~/A\" is not understood"},
      {"all.txt", "\"~/A\" \"x\" = \"1\" disabled delete", "all.txt:1: \"delete\" is not understood here"},
      {"all.txt", "\"~/A\" \"x\" = \"1\" until +1d", "all.txt:1: \"until\" is followed"},
      {"all.txt", "\"~/A\" \"x\" = \"1\" until", "all.txt:1: \"until\" is followed"},
      {"all.txt", "\"~/A\" \"x\" type STRING = \"1\"", "all.txt:1: \"type\" is followed"},
      {"all.txt", "\"~/A\" \"x\" until 2033-01-01T06:00 delete", "all.txt:1: a removal and a sub-key"},
      {"all.txt", "\"~/A\" \"x\" type \"NUMBER\" = \"1\"", "all.txt:1: \"NUMBER\" is no type word"},
      {"all.txt", "\"/A\" \"x\" = \"1\"", "all.txt:1: \"/A\" is no registry path"},
      {"all.txt", "\"~/A\" \"x\" = ********", "all.txt:1: \"x\" in \"~/A\" is no secret in the store"},
      {"all.txt", "\"~/A\" \"y\" type \"ENCRYPTED\" = \"1\"", "all.txt:1: a secret is set with"},
      {"all.txt", "\"~/A\" \"y\" = \"1\"\n\"A/\" \"y\" = \"2\"",
       "all.txt:2: line 1 says something of the same"},
      {"all.txt", "\"~/EventManager\" \"bEnableRegistrySync\" = \"0\"", "all.txt:1: \"bEnableRegistrySync\""},
      {"all.txt", "number 3", "all.txt:1: such a line has its place in another file"},
      {"clients.txt", "\"~/A\" \"x\" = \"1\"", "clients.txt:1: such a line"},
      {"clients.txt", "\nclient \"pc9\" id 9", "clients.txt:2: there is no client \"pc9\""},
      {"groups/berlin.txt", "member \"web-2\"", "groups/berlin.txt:1: the group's number is missing"},
      {"groups/berlin.txt", "number 2 3", "groups/berlin.txt:1: \"number\" is followed"},
      {"groups/berlin.txt", "number -3", "groups/empty.txt:2: the group berlin has this number"},
      {"groups/berlin.txt", "number 4\nmember \"pc9\"", "groups/berlin.txt:2: there is no client \"pc9\""},
      {"groups/berlin.txt", "number 4\nmember", "groups/berlin.txt:2: \"member\" is followed"},
      {"groups/berlin.txt", "number 4\nmember \"web *\"", "groups/berlin.txt:2: \"web *\" is neither"},
      {"groups/all.txt", "number 9", "groups/all.txt:1: \"all\" cannot be a group's name"},
      {"groups/a b.txt", "number 9", "groups/a b.txt:1: the file's name"},
      {"machines/pc9.txt", "", "machines/pc9.txt:1: there is no client \"pc9\""},
      {"overhub-folder.txt", "# overhub export: \nformat 2\n", "a format that this overhub does not know"},
  };
  for (const auto& broken : cases) {
    const std::string path = folder_ + "/" + broken.file;
    const bool isThere = fs::exists(path);
    const std::string whole = isThere ? readFile(path) : "";
    writeFile(path, broken.text);
    expectErr(overhub({"apply", folder_}), 1, {broken.complaint, "nothing was changed"});
    isThere ? writeFile(path, whole) : static_cast<void>(fs::remove(path));
  }
  // All mistakes at once; and a file that is missing is none that says nothing.
  edit("static.txt", "x\n\"~\"\n");
  edit("machines/pc9.txt", "y");
  expectErr(overhub({"apply", folder_}), 1, {"static.txt:1: ", "static.txt:2: ", "pc9.txt:1: \"y\""});
  fs::remove(folder_ + "/machines/pc9.txt");
  fs::remove(folder_ + "/static.txt");
  expectErr(overhub({"apply", folder_}), 1, {"static.txt"});
  fs::remove(folder_ + "/overhub-folder.txt");
  expectErr(overhub({"apply", folder_}), 1, {"is no folder of"});
  EXPECT_EQ(shown(), before);
}

// A restored store gives no number twice, and takes no client's cache for known.
TEST_F(FolderTest, ABackupIsAWholeStoreThatKnowsWhatItIs) {
  fillStore();
  meddle(
      "UPDATE contacts SET most_records = 3000, proven = 7, handed = 7, proving = 7, base = 6 WHERE client = "
      "3");
  meddle("UPDATE revisions SET time = 4000000000");  // the store's clock is ahead
  const std::string before = shown();
  const std::string key = keyOf("web-2");
  const std::string file = dir_ / "a 'b.db";
  const auto server = serve();
  expectOk({"backup", file});
  for (const std::string& part : {file, file + ".key"}) EXPECT_EQ(modeOf(part), 0600U) << part;
  const std::string copied = readFile(file) + readFile(file + ".key");
  EXPECT_EQ(overhub({"backup", file}).exitCode, 1);
  fs::rename(file, dir_ / "moved");
  EXPECT_EQ(overhub({"backup", file}).exitCode, 1) << "the key is there";
  fs::rename(dir_ / "moved", file);
  EXPECT_EQ(readFile(file) + readFile(file + ".key"), copied);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 4) << "data, log, copy, key";
  outOf(overhub({"set", "@all", "~/After", "x", "1"}));
  outOf(overhub({"set", "@all", "~/After", "x", "2"}));
  expectOk({"add-client", "late"});

  data_ = dir_ / "restored";
  fs::create_directory(data_);
  fs::permissions(data_, fs::perms::owner_all);
  fs::rename(file, storeFile());
  fs::copy(file + ".key", data_ + "/secret.key");
  const auto first = overhub({"clients"});
  expectErr(first, 0, {"restored: revisions go on from 10000"});
  EXPECT_EQ(overhub({"clients"}).err, "") << "said once";
  EXPECT_EQ(shown(), before);
  EXPECT_EQ(keyOf("web-2"), key);
  onStore([](const Store& store) {
    return store.database().read([](soci::session& session) -> CWmError {
      const Contact contact = contactOf(session, 3);
      EXPECT_TRUE(contact.isCacheUnknown);
      EXPECT_EQ(contact.mostRecords, 5000);
      EXPECT_GT(contact.handed, 1000);
      EXPECT_EQ(contact.proven + contact.proving + contact.base, 0);
      EXPECT_TRUE(contactOf(session, 4).isCacheUnknown);
      std::string mode;
      session << "PRAGMA journal_mode", soci::into(mode);
      EXPECT_EQ(mode, "wal");
      std::string command;
      session << "SELECT command FROM revisions WHERE number > 1000000", soci::into(command);
      EXPECT_EQ(command, "restore of the copy of 2096-10-02T07:06:40Z");
      return {};
    });
  });
  expectOut(overhub({"add-client", "new"}), 0, {"id 1005;"});
  expectOut(overhub({"set", "@all", "~/After", "x", "1"}), 0, {"revision 10000"});
}

class ImportTest : public FolderTest {
 protected:
  static constexpr const char* kKey = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

  // A directory as the version before has left it.
  void makeFormer() const {
    for (const char* const part : {"clients", "keys", "ids", "hosts", "addresses", "acks", "uploads"})
      fs::create_directories(former_ + "/" + part);
    fs::permissions(former_, fs::perms::owner_all);
    EXPECT_STREQ(pstring::CreateKeyFile(former_ + "/secret.key").AsString(), "");
    pstring::UseKeyFile(former_ + "/secret.key");
    const std::string sealed = pstring(kCanary).getV8Password();
    pstring::UseKeyFile("");
    put("clients/pc1.xml", batch("3", record("~/L", "nX", "5") + record("~/L", "nX_UNTIL", "1999999999") +
                                          record("~/P", "sP", "********", "ENCRYPTED", sealed)));
    put("clients/pc2.xml", batch("17", ""));
    put("clients/pc2.xml~", "an editor's");
    put("static.xml", batch("", record("~/S", "s", "static")));
    for (const char* const name : {"pc1", "pc2"})
      put(std::string("keys/") + name + ".key", std::string(kKey) + "\n");
    put("ids/highest", "40\n");
    put("hosts/pc1", "host1\n");
    put("addresses/pc1", "10.0.0.9\n");
    put("acks/pc1.log",
        "2026-11-21T20:11:08Z id=3 taskStatus=4 (failed)\n2026-11-22T20:11:08Z id=3 taskStatus=3 "
        "(applied)\n");
    put("uploads/pc1.xml", batch("3", record("~/U", "u", "up")));
  }
  void put(const std::string& name, const std::string& text) const { writeFile(former_ + "/" + name, text); }
  static std::string record(const std::string& path, const std::string& name, const std::string& value,
                            const std::string& type = "STRING", const std::string& sealed = "") {
    return "<OBGui.RegistryKeyInfo valueName=\"" + name + "\" valueType=\"" + type + "\" value=\"" + value +
           "\" keyPath=\"" + path + "\" deleteFlag=\"0\" enabledFlag=\"1\"" +
           (sealed.empty() ? "" : " encryptedValue=\"" + sealed + "\"") + " />";
  }
  static std::string batch(const std::string& id, const std::string& records) {
    return "<OBGui.RegistryTaskResp>" + (id.empty() ? "" : "<client clientId=\"" + id + "\" />") + "<keys>" +
           records + "</keys></OBGui.RegistryTaskResp>";
  }

  std::string former_ = dir_ / "former";
};

TEST_F(ImportTest, TakesOverWhatTheVersionBeforeKnew) {
  makeFormer();
  expectOut(overhub({"import", former_}), 0, {"2 clients taken over"});
  expectErr(overhub({"import", former_}), 1, {"holds something already"});
  EXPECT_EQ(keyOf("pc1"), kKey);
  const std::string text = outOf(overhub({"show", "pc1,@static"}));
  for (const char* const part : {"nX", "2033-05-18T03:33:19Z", "static"})
    EXPECT_TRUE(contains(text, part)) << text;
  EXPECT_FALSE(contains(text, "_UNTIL")) << text;
  EXPECT_EQ(secretOf("pc1"), kCanary) << "under the new store's key";
  expectOut(overhub({"acks", "pc1"}), 0, {"2026-11-21T20:11:08Z", "2026-11-22T20:11:08Z", "applied"});
  expectOut(overhub({"uploads", "pc1"}), 0, {"up"});
  onStore([](const Store& store) {
    return store.database().read([](soci::session& session) -> CWmError {
      const Contact contact = contactOf(session, 3);
      EXPECT_TRUE(contact.isCacheUnknown);
      EXPECT_EQ(contact.mostRecords, 2003);
      EXPECT_EQ(contact.address, "10.0.0.9");
      EXPECT_EQ(contact.lastSeen - contact.firstSeen, 86400);
      EXPECT_EQ(contact.outcome, OBGui::kTaskSuccess);
      EXPECT_EQ(findClient(session, "pc1")->host, "host1");
      EXPECT_EQ(findClient(session, "pc2")->id, 17);
      return {};
    });
  });
  expectOut(overhub({"add-client", "new"}), 0, {"id 41;"});
  // The machine has it from the version before, so what is withdrawn before its next pass is removed.
  expectOk({"unset", "pc1", "~/L", "nX"});
  const OBGui::RegistryTaskResp next = batchOf("pc1");
  EXPECT_TRUE(std::any_of(next.keys->begin(), next.keys->end(), [](const OBGui::RegistryKeyInfo& key) {
    return key.valueName.get() == "nX" && key.deleteFlag == 1;
  }));
  // The directory may be the store's own.
  data_ = former_;
  expectOut(overhub({"import", former_}), 0, {"2 clients taken over"});
}

TEST_F(ImportTest, TakesOverNothingOfABrokenDirectory) {
  makeFormer();
  const struct {
    const char* file;
    std::string text;
    std::vector<std::string> complaint;
  } cases[] = {
      {"clients/pc2.xml", "<OBGui.RegistryTaskResp>", {"clients/pc2.xml: "}},
      {"clients/pc2.xml", batch("3", ""), {"clients/pc2.xml: client pc1 has the id 3"}},
      {"clients/pc2.xml", batch("2", ""), {"clients/pc2.xml: 2 is no client's id"}},
      {"clients/pc2.xml", batch("17", record("~", "x_UNTIL", "1")), {"clients/pc2.xml: ", "x_UNTIL"}},
      {"clients/pc2.xml",
       batch("17", record("~", "x", "********", "ENCRYPTED", "V8:l0KCLNzcUre5QQgqZ844G0nQw6Se2g==")),
       {"clients/pc2.xml: the secret \"x\" in \"~\""}},
      {"static.xml", "x", {"static.xml: "}},
      {"keys/pc1.key", "0123", {"keys/pc1.key: these are not 64"}},
      {"ids/highest", "many", {"ids/highest: this is no id"}},
      {"hosts/pc1", "a b/", {"hosts/pc1: "}},
      {"acks/pc1.log", "2026-11-21T20:11:08Z id=3 taskStatus=4 (failed)\nx\n", {"acks/pc1.log:2: "}},
      {"uploads/pc1.xml", "x", {"uploads/pc1.xml: "}},
  };
  for (const auto& broken : cases) {
    const std::string whole = readFile(former_ + "/" + broken.file);
    put(broken.file, broken.text);
    auto complaint = broken.complaint;
    complaint.emplace_back("nothing was taken over");
    expectErr(overhub({"import", former_}), 1, complaint);
    EXPECT_FALSE(fs::exists(data_));
    put(broken.file, whole);
  }
  fs::rename(former_ + "/keys/pc2.key", former_ + "/keys/gone");
  expectErr(overhub({"import", former_}), 1, {"keys/pc2.key: "});
  {
    const auto lock = programs::FileLock::tryFor(former_ + "/serve.lock");
    expectErr(overhub({"import", former_}), 1, {"stop it first"});
  }
  fs::remove(former_ + "/secret.key");
  EXPECT_EQ(overhub({"import", former_}).exitCode, 3);
  expectErr(overhub({"import", dir_.path().string()}), 1, {"no data directory of an earlier overhub"});
}

}  // namespace
