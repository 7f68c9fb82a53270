// The registry through its public headers, on real files: names, values, subtrees, batches.
// What happens when the file itself is in trouble is in registry_fault_test.cpp.
#include <sys/stat.h>

#include <thread>

#include "tests/platform/registry_fixture.h"

namespace {

TEST_F(RegistryTest, TakesTheLongestNamesAndRefusesOthers) {
  const std::string longestName(lqregistry::kMaxNameBytes, 'n');
  const std::string longestKey = "SOFTWARE/" + std::string(lqregistry::kMaxPathBytes - 9, 'k');
  EXPECT_TRUE(info_.setString(longestKey, longestName, "data", 0));
  EXPECT_EQ(valueOf(longestKey, longestName), "data");
  for (const auto& [key, name] : {std::pair(longestKey + "k", longestName), {"~A", longestName + "n"}}) {
    EXPECT_FALSE(info_.setString(key, name, "data", 0));
    EXPECT_EQ(info_.getRegError(), kRegBadName) << info_.getRegErrorText();
  }
}

TEST_F(RegistryTest, LooksAtTheFocusOfTheObjectOrElseOfTheProcess) {
  EXPECT_TRUE(LQPlatformInfo("I2").setString("A", "name", "of I2", 0));
  EXPECT_TRUE(info_.setString("A", "name", "of I1", 0));
  EXPECT_EQ(valueOf("SOFTWARE/Velmor/I2/A", "name"), "of I2");
  info_.setFocus("I2");
  std::string data;
  EXPECT_TRUE(info_.getString("A", "name", data));
  EXPECT_EQ(data, "of I2");
  info_.setFocus("I2/A");
  EXPECT_FALSE(info_.createRegKey("~")) << "an instance's name is one component";
  EXPECT_TRUE(contains(info_.getRegErrorText(), "the instance name holds"));

  LQPI_Focus::setFocus("");
  LQPlatformInfo nobody;
  EXPECT_FALSE(nobody.createRegKey("~"));
  EXPECT_EQ(nobody.getRegError(), kRegBadName);
  EXPECT_NE(nobody.getRegErrorText().find("no instance"), std::string::npos);
}

TEST_F(RegistryTest, KeepsEveryByteOfNamesAndData) {
  std::string component = everyByte();
  std::erase(component, '/');
  const std::string name = everyByte();
  const std::string data = everyByte(0);
  const std::string key = "~" + component;
  ASSERT_TRUE(info_.createRegKey(key));
  ASSERT_TRUE(info_.setRegValue(key, name, 0xFFFFFFFF, data.data(), static_cast<int>(data.size())));
  ASSERT_TRUE(info_.setRegValue(key, "empty", 7, nullptr, 0));
  lqregistry::UseFile(file_);  // from the file again

  std::string buffer(data.size() + 1, 'x');
  int size = static_cast<int>(buffer.size());
  unsigned type = 0;
  ASSERT_TRUE(info_.getRegValue(key, name, type, buffer.data(), size)) << info_.getRegErrorText();
  EXPECT_EQ(buffer, data + '\0');
  EXPECT_EQ(size, static_cast<int>(buffer.size()));
  EXPECT_EQ(type, 0xFFFFFFFF);

  std::list<std::string> names{"kept"};
  EXPECT_TRUE(info_.getSubKeys("~", names));
  EXPECT_EQ(names, (std::list<std::string>{"kept", component}));
  std::map<std::string, std::string> values{{"gone", ""}};
  EXPECT_TRUE(info_.getRegValues(key, values));
  EXPECT_EQ(values, (std::map<std::string, std::string>{{name, data}, {"empty", ""}}));
}

TEST_F(RegistryTest, TellsMissingKeysValuesAndSmallBuffersApart) {
  ASSERT_TRUE(info_.setString("A", "name", "four", 0));
  std::string buffer = "untouched";
  unsigned type = 9;
  int size = 4;
  EXPECT_FALSE(info_.getRegValue("A", "name", type, buffer.data(), size));
  EXPECT_EQ(info_.getRegError(), kRegBufferTooSmall);
  EXPECT_FALSE(info_.getRegValue("B", "name", type, buffer.data(), size));
  EXPECT_EQ(info_.getRegError(), kRegKeyMissing);
  EXPECT_FALSE(info_.getRegValue("A", "Name", type, buffer.data(), size)) << "names are case-sensitive";
  EXPECT_EQ(info_.getRegError(), kRegValueMissing);
  for (const std::string& part : {file_, std::string("\"A\""), std::string("\"Name\"")})
    EXPECT_NE(info_.getRegErrorText().find(part), std::string::npos) << info_.getRegErrorText();
  EXPECT_EQ(buffer, "untouched");
  EXPECT_EQ(size, 4);
  EXPECT_EQ(type, 9U);
  EXPECT_FALSE(info_.setRegValue("B", "name", 0, "x", 1));
  EXPECT_EQ(info_.getRegError(), kRegKeyMissing);
}

TEST_F(RegistryTest, RemovesASubtreeAndNothingBesideIt) {
  // The neighbours sort directly before and after the subtree.
  const std::list<std::string> neighbours{"A", "K-", "K.", "K0", "KK", "k"};
  for (const auto& name : neighbours) ASSERT_TRUE(info_.setString(name, "name", "data", 0));
  for (const char* key : {"K", "K/1/2/3", "K/\x01", "K/\xFF"})
    ASSERT_TRUE(info_.setString(key, "name", "data", 0));

  EXPECT_TRUE(info_.delRegKey("K"));
  EXPECT_FALSE(info_.delRegKey("K"));
  EXPECT_EQ(info_.getRegError(), kRegKeyMissing);
  std::list<std::string> names;
  EXPECT_TRUE(info_.getSubKeys("~", names));
  EXPECT_EQ(names, neighbours);
  for (const auto& name : neighbours) EXPECT_EQ(valueOf(name, "name"), "data");

  ASSERT_TRUE(info_.createRegKey("K/1/2/3"));
  EXPECT_EQ(valueOf("K/1/2/3", "name"), std::nullopt) << "old values must not come back";

  for (const char* key : {"~", "", "SOFTWARE", "SOFTWARE/Velmor"}) {
    EXPECT_FALSE(info_.delRegKey(key));
    EXPECT_EQ(info_.getRegError(), kRegBadName);
  }
}

TEST_F(RegistryTest, ReadsNumbersStrictly) {
  for (const char* text : {"", " 1", "1 ", "1x", "+1", "0x1", "9223372036854775808"}) {
    std::int64_t read = 77;
    ASSERT_TRUE(info_.setString("A", "n", text, 0));
    EXPECT_FALSE(info_.getNumber("A", "n", read)) << text;
    EXPECT_EQ(read, 77);
    EXPECT_EQ(info_.getRegError(), kRegValueMissing);
  }
}

TEST_F(RegistryTest, CallersBuffersAreNeverOverrun) {
  char buffer[1024] = "x";
  ASSERT_TRUE(info_.setString("Overhub", "sOHCLIENTNAME", "c", 0));
  EXPECT_TRUE(info_.getOverhubClientName(buffer, 2));
  EXPECT_FALSE(info_.getOverhubClientName(buffer, 1)) << "a name that is cut is another name";
  EXPECT_STREQ(buffer, "");
  EXPECT_TRUE(info_.getClientHostName("box.example", buffer, 5));
  EXPECT_STREQ(buffer, "box.e");
  EXPECT_FALSE(info_.getClientHostName("box", nullptr, 5) || info_.getClientHostName(nullptr, buffer, 5) ||
               info_.getClientHostName("", buffer, 5));
  EXPECT_STREQ(buffer, "");
}

TEST_F(RegistryTest, CreatesTheFileForItsOwnerAloneAndOnlyWhenThereIsSomethingToWrite) {
  umask(0);
  std::string data;
  const oblog::Capture log;
  EXPECT_FALSE(info_.getString("A", "name", data));
  EXPECT_EQ(info_.getRegError(), kRegKeyMissing);
  EXPECT_FALSE(info_.delRegKey("A") || info_.delRegField("A", "n") || info_.setRegValue("A", "n", 0, "x", 1));
  EXPECT_TRUE(lqregistry::WriteBatch().commit());
  EXPECT_FALSE(std::filesystem::exists(file_));
  EXPECT_TRUE(log.Lines().empty());

  lqregistry::UseFile(dir_ / "none/registry.db");
  EXPECT_FALSE(info_.createRegKey("A"));
  EXPECT_TRUE(contains(info_.getRegErrorText(), "it cannot be created: No such file"))
      << info_.getRegErrorText();

  lqregistry::UseFile(file_);
  EXPECT_TRUE(info_.createRegKey("A"));
  for (const char* companion : {"", "-wal", "-shm"}) EXPECT_EQ(modeOf(file_ + companion), 0600U) << companion;
}

TEST_F(RegistryTest, WritesNothingForAValueThatIsThereAlready) {
  ASSERT_TRUE(info_.setString("A", "name", "data", 0));
  const auto fingerprint = [this] {
    const std::string log = file_ + "-wal";
    return std::pair(std::filesystem::file_size(log), std::filesystem::last_write_time(log));
  };
  const auto before = fingerprint();
  {
    lqregistry::WriteBatch batch;
    batch.lock();
    EXPECT_TRUE(info_.setString("A", "name", "data", 0));
    EXPECT_TRUE(info_.setRegValue("A", "name", 0, "data", 4));
    EXPECT_TRUE(info_.createRegKey("A"));
    EXPECT_TRUE(batch.commit());
  }
  EXPECT_EQ(fingerprint(), before);
  EXPECT_TRUE(info_.setRegValue("A", "name", 1, "data", 4)) << "another type is another value";
  EXPECT_NE(fingerprint(), before);
}

TEST_F(RegistryTest, ShowsABatchToItsThreadAtOnceAndToEverybodyElseWhenTheOutermostEnds) {
  ASSERT_TRUE(info_.setString("A", "name", "old", 0));
  lqregistry::UseFile(file_);
  const OtherProcess other(carryOut);
  const auto inAnotherThread = [] {
    std::optional<std::string> seen;
    std::thread([&seen] { seen = valueOf("A", "name"); }).join();
    return seen;
  };
  for (const bool locksFirst : {true, false}) {
    lqregistry::WriteBatch outer;
    if (locksFirst) outer.lock();
    EXPECT_EQ(valueOf("A", "name"), "old");
    EXPECT_TRUE(locksFirst || other.ask("write old")) << "reading locks nobody out";
    {
      lqregistry::WriteBatch inner;
      ASSERT_TRUE(info_.setString("A", "name", "new", 0));
      EXPECT_TRUE(inner.commit());
    }
    EXPECT_EQ(valueOf("A", "name"), "new");
    EXPECT_EQ(inAnotherThread(), "old");
    EXPECT_TRUE(other.ask("read old"));
    EXPECT_TRUE(outer.commit());
    EXPECT_EQ(inAnotherThread(), "new");
    EXPECT_TRUE(other.ask("read new"));
    lqregistry::WriteBatch abandoned;
    ASSERT_TRUE(info_.setString("A", "other", "not kept", 0));
    std::thread writer([] { setValue("A", "of another thread", "kept"); });
    expectSleeping();  // until the batch has ended
    abandoned.abandon();
    writer.join();
    EXPECT_EQ(valueOf("A", "of another thread"), "kept");
    ASSERT_TRUE(info_.setString("A", "name", "old", 0));
    EXPECT_EQ(valueOf("A", "other"), std::nullopt) << "nor with the next write";
  }
}

}  // namespace
