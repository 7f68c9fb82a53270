// One key record against the local registry: where it lies, what regStatus says, what is refused.
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

constexpr std::size_t kReadBuffer = 10240;

class RecordStore : public ProductTest {
 protected:
  LqRegistryManagerClnt client_{"Instance001"};
};

TEST_F(RecordStore, EveryPathFormHasOnePlaceInTheClientsInstance) {
  LqRegistryManagerClnt other("Instance002");
  const std::string root = "SOFTWARE/Velmor/Instance002";
  const std::pair<const char*, std::string> cases[] = {{"", root},
                                                       {"Machine/Settings", root + "/Machine/Settings"},
                                                       {"~/Machine/", root + "/Machine"},
                                                       {"MySOFTWARE", root + "/MySOFTWARE"},
                                                       {"software/X", root + "/software/X"},
                                                       {"SOFTWARE/X", "SOFTWARE/X"}};
  for (const auto& [path, place] : cases) {
    const OBGui::RegistryKeyInfo key = record(path, "sVALUE", std::string("of ") + path);
    EXPECT_EQ(other.createRegistryKey(&key), 0) << path;
    EXPECT_EQ(valueOf(place, "sVALUE"), key.value.get()) << path;
    EXPECT_TRUE(other.isRegistryKeyExists(&key)) << path;
    EXPECT_EQ(other.deleteRegistryKey(&key), 0) << path;
    EXPECT_EQ(valueOf(place, "sVALUE"), std::nullopt) << path;
  }
}

TEST_F(RecordStore, RegStatusTellsWhatTheLastReadOrWriteFoundThere) {
  const auto create = [this](const std::string& path, const std::string& name, const std::string& value) {
    const OBGui::RegistryKeyInfo key = record(path, name, value);
    client_.regStatus = 99;
    const int result = client_.createRegistryKey(&key);
    EXPECT_EQ(result, client_.regStatus == kRegStatusWriteFailed ? kResultFailed : kResultOk);
    return client_.regStatus;
  };
  EXPECT_EQ(create("Status", "sFIRST", "1"), 6) << "the key is missing; the numbers are the platform's";
  EXPECT_EQ(create("Status", "sSECOND", "1"), 7) << "the value is missing";
  EXPECT_EQ(create("Status", "sSECOND", "2"), 0);
  EXPECT_EQ(valueOf("Status", "sSECOND"), "2");
  EXPECT_EQ(create("Status", std::string(2000, 'n'), "1"), 8) << "it cannot be written";

  // A value that the test's buffer cannot hold, its NUL counted, is one that cannot be read, but is written.
  const std::string fits(kReadBuffer - 1, 'x');
  EXPECT_EQ(create("Status", "sLONG", fits), kRegStatusValueMissing);
  EXPECT_EQ(create("Status", "sLONG", fits + "x"), kRegStatusOk);
  EXPECT_EQ(create("Status", "sLONG", std::string(200'000, 'y')), 2) << "it cannot be read";
  EXPECT_EQ(valueOf("Status", "sLONG"), std::string(200'000, 'y'));

  setValue("Status", "sEMPTY", "");
  const OBGui::RegistryKeyInfo empty = record("Status", "sEMPTY", "");
  EXPECT_TRUE(client_.isRegistryKeyExists(&empty)) << "an empty value is there";
  const OBGui::RegistryKeyInfo lower = record("Status", "sempty", "");
  EXPECT_FALSE(client_.isRegistryKeyExists(&lower));
  EXPECT_EQ(client_.regStatus, kRegStatusValueMissing);
}

TEST_F(RecordStore, NothingToCreateSucceedsAndNothingToDeleteFails) {
  const OBGui::RegistryKeyInfo unnamed = record("Path", "", "value");
  client_.regStatus = 99;
  for (const OBGui::RegistryKeyInfo* key : {&unnamed, static_cast<const OBGui::RegistryKeyInfo*>(nullptr)}) {
    EXPECT_EQ(client_.createRegistryKey(key), 0);
    EXPECT_EQ(client_.deleteRegistryKey(key), 3);
  }
  EXPECT_FALSE(client_.isRegistryKeyExists(nullptr));
  EXPECT_EQ(client_.regStatus, 99) << "nothing was looked at";
  std::map<std::string, std::string> values;
  EXPECT_FALSE(LQPlatformInfo().getRegValues("~Path", values)) << "the key was created";
}

TEST_F(RecordStore, OnlyTheLocalSubKeyCanBeCreatedAndAtItsPathAsItStands) {
  const std::pair<const char*, std::int32_t> accepted[] = {
      {"Local", kRegStatusKeyMissing}, {"local", kRegStatusValueMissing}, {"LOCAL", kRegStatusValueMissing}};
  for (const auto& [name, status] : accepted) {
    const OBGui::RegistryKeyInfo key = record("Clients", name, "", "KEY");
    EXPECT_EQ(client_.createRegistryKey(&key), 0);
    EXPECT_EQ(client_.regStatus, status) << "as the look at a value of that name left it";
    EXPECT_EQ(valueOf(std::string("Clients/") + name, ".internal.unique_id"), "0");
  }
  const OBGui::RegistryKeyInfo absolute = record("SOFTWARE/Clients", "Local", "", "KEY");
  EXPECT_EQ(client_.createRegistryKey(&absolute), 0);
  EXPECT_EQ(valueOf("SOFTWARE/Clients/Local", ".internal.unique_id"), "0");

  const oblog::Capture log;
  const OBGui::RegistryKeyInfo other = record("Clients", "Other", "", "KEY");
  EXPECT_EQ(client_.createRegistryKey(&other), 3);
  EXPECT_EQ(client_.regStatus, kRegStatusValueMissing) << "as the look at it left it";
  EXPECT_EQ(linesOf(log),
            Lines{"0|LqRegistryManager::createRegistryKey|Modifying Other remotely is not allowed"});
  const OBGui::RegistryKeyInfo tooLong = record(std::string(5000, 'p'), "Local", "", "KEY");
  EXPECT_EQ(client_.createRegistryKey(&tooLong), 3);
  EXPECT_EQ(client_.regStatus, kRegStatusWriteFailed);
  EXPECT_TRUE(
      hasLine(log, "plain|LqRegistryManager::createRegistryKey|Failed To Create A Registry Key, Path=pp"));

  // "KEY" is exact; another word is a value like any other.
  const OBGui::RegistryKeyInfo lower = record("Clients", "Other", "text", "key");
  EXPECT_EQ(client_.createRegistryKey(&lower), 0);
  EXPECT_EQ(valueOf("Clients", "Other"), "text");
}

TEST_F(RecordStore, AKeyThatCannotBeCreatedIsReported) {
  std::string path;  // many components, so that the file has to grow
  for (int i = 0; i < 30; ++i) path += "/" + std::string(100, static_cast<char>('a' + i % 26));
  const oblog::Capture log;
  const OBGui::RegistryKeyInfo key = record("~" + path, "sVALUE", "2");
  const OBGui::RegistryKeyInfo ofTheRoot = record("", "Local", "", "KEY");  // has no path to tell
  {
    const FullDisk full(0);
    EXPECT_EQ(client_.createRegistryKey(&ofTheRoot), 3);
    EXPECT_EQ(client_.createRegistryKey(&key), 3);
  }
  EXPECT_EQ(client_.regStatus, kRegStatusWriteFailed);
  EXPECT_EQ(
      linesOf(log, "LqRegistryManager::"),
      Lines{"plain|LqRegistryManager::createRegistryKey|Failed To Create A Registry Key, Path=~" + path});
}

TEST_F(RecordStore, ProtectedValuesAreStoredAsV8Text) {
  OBGui::RegistryKeyInfo key = secretRecord("Secrets", "sPASSWORD", "hunter2");
  ASSERT_EQ(client_.createRegistryKey(&key), 0);
  EXPECT_EQ(valueOf("Secrets", "sPASSWORD"), pstring("hunter2").getV8Password());

  key.value = "";  // without a value there is nothing to protect
  ASSERT_EQ(client_.createRegistryKey(&key), 0);
  EXPECT_EQ(valueOf("Secrets", "sPASSWORD"), "");

  key.valueType = "encrypted";  // another word than "ENCRYPTED"
  key.value = "plain";
  ASSERT_EQ(client_.createRegistryKey(&key), 0);
  EXPECT_EQ(valueOf("Secrets", "sPASSWORD"), "plain");

  key.valueType = "ENCRYPTED";
  pstring::UseKeyFile(dir_ / "no/such/folder");
  EXPECT_EQ(client_.createRegistryKey(&key), 3);
  EXPECT_EQ(client_.regStatus, kRegStatusWriteFailed);
  EXPECT_EQ(valueOf("Secrets", "sPASSWORD"), "plain") << "one that cannot be protected leaves the old value";
}

TEST_F(RecordStore, ASecretThatCannotBeReadFailsAloneAndLeavesTheOldValue) {
  setValue("Secrets", "sPASSWORD", "V8:old");
  const std::string foreign = "V8:" + std::string(40, 'A');
  OBGui::KeyList keys{record("Secrets", "sBEFORE", "1"), secretRecord("Secrets", "sPASSWORD", "hunter2"),
                      secretRecord("Secrets", "sOTHER", "readable"), record("Secrets", "sAFTER", "1"),
                      secretRecord("Secrets", "sGONE", "")};
  ASSERT_TRUE(pstring::fromStoredText(foreign, keys[1].encryptedValue.edit()));
  ASSERT_TRUE(pstring::fromStoredText(foreign, keys[4].encryptedValue.edit()));
  keys[4].deleteFlag = 1;
  setValue("Secrets", "sGONE", "V8:old");
  const oblog::Capture log;
  EXPECT_EQ(client_.updateRegistryKeysForClient(keys), 3);
  EXPECT_TRUE(hasLine(log,
                      "error|LqRegistryManager::createRegistryKey|The protected value [sPASSWORD] of key "
                      "[Secrets] was protected with another key"));
  EXPECT_EQ(valuesOf("Secrets", {"sPASSWORD", "sBEFORE"}), "V8:old 1");
  EXPECT_EQ(valueOf("Secrets", "sOTHER"), pstring("readable").getV8Password());
  EXPECT_EQ(valueOf("Secrets", "sAFTER"), "1");
  EXPECT_EQ(valueOf("Secrets", "sGONE"), std::nullopt) << "to remove it, nobody has to read it";
  EXPECT_EQ(client_.createRegistryKey(&keys[1]), 3);
  EXPECT_EQ(client_.regStatus, kRegStatusWriteFailed);
}

TEST_F(RecordStore, DeletingWhatIsNotThereSucceeds) {
  setValue("Delete/Sub/Deeper", "sVALUE", "1");
  const std::pair<OBGui::RegistryKeyInfo, int> cases[] = {
      {record("Delete/Sub", "sABSENT", ""), 0},
      {record("Absent", "sVALUE", ""), 0},
      {record("Delete", std::string(2000, 'n'), ""), 3},
      {record("Delete", "Absent", "", "KEY"), 0},
      {record("Delete", "Sub", "", "key"), 0},  // a value of that name, which is not there
      {record(std::string(5000, 'p'), "Sub", "", "KEY"), 3}};
  client_.regStatus = 99;
  for (const auto& [key, result] : cases)
    EXPECT_EQ(client_.deleteRegistryKey(&key), result) << key.keyPath.get() << " " << key.valueName.get();
  EXPECT_EQ(valueOf("Delete/Sub/Deeper", "sVALUE"), "1");

  const OBGui::RegistryKeyInfo subKey = record("Delete", "Sub", "", "KEY");  // any name, everything below it
  EXPECT_EQ(client_.deleteRegistryKey(&subKey), 0);
  EXPECT_EQ(valueOf("Delete/Sub/Deeper", "sVALUE"), std::nullopt);
  EXPECT_EQ(client_.regStatus, 99) << "a deletion leaves no status, failed or not";
}

TEST(HexToNum, SkipsWhatIsNoDigit) {
  EXPECT_EQ(hextonum("0x1F"), 31U);
  EXPECT_EQ(hextonum("aBcDeFA0189"), 0xabcdefa0189U);
  EXPECT_EQ(hextonum("-g\xff\n7"), 7U);
  EXPECT_EQ(hextonum("1ffffffffffffffff"), 0xffffffffffffffffU) << "wraps";
}

}  // namespace
