// lqreg export and import: what goes out comes back, and what is broken changes nothing.
#include <map>

#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "tests/support/product_fixture.h"

namespace {

const std::string kSkipped = " skipped (marked for removal, or saying which machine it is)\n";

class TransferTest : public ProductTest {
 protected:
  ProgramResult lqreg(const std::string& registry, const std::string& instance,
                      std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), programPath("lqreg"));
    return runProgram(arguments, {"VELMOR_REGISTRY=" + registry, "VELMOR_VM=" + instance});
  }
  // Into instance "I2" of another registry; what is said, whatever it is.
  std::string import(const std::string& text) const {
    writeFile(file_, text);
    const ProgramResult result = lqreg(target_, "I2", {"import", file_});
    return result.out + result.err;
  }
  std::string imported() const { return outOf(lqreg(target_, "I2", {"export"})); }
  std::string tree() const { return lqreg(target_, "", {"tree"}).out; }

  static std::string batchOf(const OBGui::KeyList& keys) {
    OBGui::RegistryTaskResp batch;
    batch.taskStatus = OBGui::kTaskUpload;
    batch.keys = keys;
    std::string text;
    EXPECT_EQ(batch.serializeForPeople(text), 0);
    return text;
  }

  std::string target_ = dir_ / "target.db";
  std::string file_ = dir_ / "batch.xml";
};

TEST_F(TransferTest, WhatIsExportedIsImportedByteForByte) {
  const std::string bytes = everyByte(0);
  const std::map<std::string, std::map<std::string, std::string>> keys = {
      {"~", {{"root value", "1"}}},
      {"~/A", {{"empty", ""}, {"blanks", "  \n\t "}, {"long", std::string(200'000, 'x')}}},
      {"~/A/B", {{"bytes", bytes}, {bytes.substr(1), "a name of every byte"}}},
      {"~/A/without values", {}},
      {"~/SOFTWARE", {{"not", "the absolute one"}}},
      {"~/SOFTWARE/X", {{"below", "it"}}},
      {"~/~sign", {{"not", "the root"}}}};
  LQPlatformInfo info;
  for (const auto& [key, values] : keys) {
    ASSERT_TRUE(info.createRegKey(key));
    for (const auto& [name, value] : values) setValue(key, name, value);
  }
  setValue("SOFTWARE/Velmor/Clients", "elsewhere", "not the instance's");

  writeFile(file_, "an older export");
  EXPECT_EQ(lqreg(registryFile_, "Instance001", {"export", file_}).exitCode, 0);
  EXPECT_EQ(modeOf(file_), 0600U);
  const std::string text = readFile(file_);
  EXPECT_EQ(outOf(lqreg(registryFile_, "Instance001", {"export"})), text);

  EXPECT_EQ(outOf(lqreg(target_, "I2", {"import", file_})),
            "6 keys and 9 values written, 0 unchanged, 0" + kSkipped);
  EXPECT_EQ(imported(), text);
  EXPECT_EQ(import(text), "0 keys and 0 values written, 15 unchanged, 0" + kSkipped);
  EXPECT_FALSE(contains(tree(), "elsewhere"));

  lqregistry::UseFile(target_);
  LQPlatformInfo other("I2");
  for (const auto& [key, values] : keys) {
    std::map<std::string, std::string> stored;
    EXPECT_TRUE(other.getRegValues(key, stored));
    EXPECT_EQ(stored, values) << key;
  }
}

TEST_F(TransferTest, AClientsUploadIsRestored) {
  setValue("Machine/Settings", "nTraceLevel", "5");
  setValue("SOFTWARE/Velmor/Instance001/SOFTWARE", "sValue", "1");
  OBGui::KeyList keys;
  LqRegistryManagerClnt client("Instance001");
  ASSERT_EQ(client.enumerateClientKeysInfo("", keys), 0U);
  EXPECT_EQ(import(batchOf(keys)), "3 keys and 2 values written, 0 unchanged, 0" + kSkipped);
  EXPECT_EQ(tree(),
            "SOFTWARE/\n  Velmor/\n    I2/\n      Machine/\n        Settings/\n"
            "          nTraceLevel = 5\n      SOFTWARE/\n        sValue = 1\n");
}

TEST_F(TransferTest, EachRecordIsTakenForWhatItSays) {
  // Both machines have the same protection key here.
  const std::string sealed = pstring("secret").getV8Password();
  lqregistry::UseFile(registryFile_);
  for (const char* const part : {"", ".key"})
    std::filesystem::copy_file(registryFile_ + part, target_ + part);
  const std::string begun =
      batchOf({record("", "A", "", "KEY"), record("A", "kept", "1"), record("A", "twice", "as it is")});
  import(begun);
  EXPECT_EQ(imported(), begun);
  auto keys = OBGui::KeyList({removal("A", "kept"), record("A", "disabled", "1"), removal("A", "", "KEY"),
                              record("Overhub", "sSESSIONKEY", "another machine's"),
                              record("~/Machine", "sHOSTNAME", "another machine"),
                              secretRecord("~A", "secret", "secret"), record("A", "twice", "changed"),
                              record("A", "twice", "as it is")});
  keys[1].enabledFlag = 0;
  const std::string batch = batchOf(keys);
  EXPECT_EQ(import(batch), "0 keys and 3 values written, 0 unchanged, 5" + kSkipped);
  EXPECT_EQ(tree(), "SOFTWARE/\n  Velmor/\n    I2/\n      A/\n        kept = 1\n        secret = " + sealed +
                        "\n        twice = as it is\n");

  // A machine that has lost its key takes no secret in clear; one with another key takes nothing of the file.
  std::filesystem::remove(target_ + ".key");
  EXPECT_TRUE(contains(import(batchText(keys)), "record 6: the value cannot be protected: " + target_));
  target_ = dir_ / "stranger.db";
  EXPECT_TRUE(contains(import(batch), "record 6: the value was not protected with this machine's key"));
  EXPECT_FALSE(contains(tree(), "twice"));
}

TEST_F(TransferTest, ABrokenFileChangesNothing) {
  import(batchOf({record("A", "name", "1")}));
  const std::string before = tree();
  const auto good = record("A", "name", "2");
  const std::string batch = batchOf({good});
  const std::pair<std::string, std::string> cases[] = {
      {"", "broken XML"},
      {batch.substr(0, batch.size() / 2), "broken XML"},
      {"<OBGui.RegistryTaskReq/>", "not a OBGui.RegistryTaskResp"},
      {"<Other/>", "unknown message class Other"},
      {"<OBGui.RegistryTaskResp taskStatus=\"two\"/>", "is not a 64-bit number"},
      {batchOf({good, record("A", "", "2")}), "record 2: the name is empty"},
      {batchOf({good, record("A", std::string(2000, 'n'), "2")}), "record 2: the value name is longer than"},
      {batchOf({good, record("A", std::string(1, '\0'), "", "KEY")}), "record 2: the key path holds a NUL"}};
  for (const auto& [text, reason] : cases) {
    writeFile(file_, text);
    expectErr(lqreg(target_, "I2", {"import", file_}), 4, {reason, file_, "nothing was written"});
    EXPECT_EQ(tree(), before) << reason;
  }
}

TEST_F(TransferTest, WhatCannotBeReadOrReplacedIsNamed) {
  setValue("A", "name", "1");
  writeFile(file_, "mine");
  const std::string link = dir_ / "link";
  std::filesystem::create_symlink(file_, link);
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"import", dir_ / "none.xml"}, "none.xml: No such file"},
      {{"import", dir_.path()}, "not a regular file"},
      {{"export", link}, "not a regular file"},
      {{"export", dir_ / "none/file"}, "none/file: No such file"}};
  for (const auto& [arguments, reason] : cases) {
    const ProgramResult result = lqreg(registryFile_, "Instance001", arguments);
    expectErr(result, 4, {reason});
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(readFile(file_), "mine");

  writeFile(file_, batchOf({record("A", "name", std::string(200'000, 'v'))}));
  for (const char* const command : {"export", "import"})
    expectErr(lqreg(target_, "", {command, file_}), 2, {"no instance is in focus; name one with --instance"});
  {
    const FullDisk full(100'000);
    expectErr(lqreg(registryFile_, "Instance001", {"import", file_}), 3,
              {registryFile_, "repeat the import"});
  }
  writeFile(target_, "no registry");
  expectErr(lqreg(target_, "I2", {"import", file_}), 3, {target_, "--registry"});
}

TEST_F(TransferTest, WhatCannotBeWrittenOrHeldInMemoryIsSaid) {
  setValue("A", "name", std::string(16 << 20, '"'));  // takes six times as much room in the text
  const auto shell = [this](const std::string& words) {
    return runProgram({"sh", "-c", words, programPath("lqreg")},
                      {"VELMOR_REGISTRY=" + registryFile_, "VELMOR_VM=Instance001"});
  };
  expectErr(shell("exec $0 list '~' >/dev/full"), 4, {"standard output cannot be written"});
  if (kIsSanitized) return;  // it needs more than there is
  for (const char* const kilobytes : {"32000", "36000", "40000", "44000", "64000", "90000"}) {
    const ProgramResult result = shell(std::string("ulimit -v ") + kilobytes + "; exec $0 export");
    expectErr(result, 3, {" memory"});
    EXPECT_EQ(result.out, "");
  }
}

}  // namespace
