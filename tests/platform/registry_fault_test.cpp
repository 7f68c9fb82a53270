// The registry when its file is in trouble: damaged, foreign, locked, read-only, on a full disk, or left
// behind by a process that was killed.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <vector>

#include "tests/platform/registry_fixture.h"

namespace {

using test_support::FullDisk;

constexpr uid_t kNobody = 65534;
// Places of two numbers in the header of a database file, big-endian.
constexpr std::size_t kVersionPlace = 60;
constexpr std::size_t kApplicationPlace = 68;

std::string withByte(std::string contents, std::size_t place, char byte) {
  contents.at(place) = byte;
  return contents;
}

TEST_F(RegistryTest, ADamagedFileFailsEveryCallIsReportedOnceAndLeftAlone) {
  // Enough for several pages, so that half of them is not a registry.
  ASSERT_TRUE(info_.setString("A", "name", std::string(50000, 'd'), 0));
  lqregistry::UseFile(file_);
  const std::string good = test_support::readFile(file_);
  const std::pair<const char*, std::string> damages[] = {
      {"garbage", std::string(9000, '#')},
      {"truncated", good.substr(0, good.size() / 2)},
      {"of another application", withByte(good, kApplicationPlace, 'X')},
      {"of a newer format", withByte(good, kVersionPlace + 3, 3)},
      {"empty beside a log", ""}};
  for (const auto& [kind, damaged] : damages) {
    SCOPED_TRACE(kind);
    test_support::writeFile(file_, damaged);
    if (damaged.empty()) test_support::writeFile(file_ + "-wal", "precious");
    const oblog::Capture log;
    std::string data;
    std::list<std::string> names;
    const std::function<bool()> calls[] = {
        [&] { return info_.getString("A", "name", data); }, [&] { return info_.getSubKeys("~", names); },
        [&] { return info_.setString("B", "name", "data", 0) != 0; }, [&] { return info_.createRegKey("C"); },
        [&] { return info_.delRegKey("A"); }};
    for (const auto& call : calls) {
      EXPECT_FALSE(call());
      EXPECT_EQ(info_.getRegError(), kRegUnavailable) << info_.getRegErrorText();
    }
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Lines()[0].kind, oblog::Kind::kError);
    EXPECT_NE(log.Lines()[0].text.find(file_), std::string::npos) << log.Lines()[0].text;
    EXPECT_EQ(test_support::readFile(file_), damaged);

    // Repaired, the next call finds it.
    std::filesystem::remove(file_ + "-wal");
    test_support::writeFile(file_, good);
    EXPECT_EQ(valueOf("A", "name"), std::string(50000, 'd'));
    lqregistry::UseFile(file_);
  }
}

TEST_F(RegistryTest, IsCreatedByOneOfManyProcessesThatComeAtOnce) {
  constexpr std::size_t kProcesses = 8;
  std::vector<pid_t> processes;
  for (std::size_t i = 0; i < kProcesses; ++i) {
    processes.push_back(fork());
    if (processes.back() == 0) _exit(info_.setString("A", std::to_string(i), "data", 0) != 0 ? 0 : 1);
  }
  for (const pid_t process : processes) {
    int status = -1;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
  }
  std::map<std::string, std::string> values;
  EXPECT_TRUE(info_.getRegValues("A", values));
  EXPECT_EQ(values.size(), kProcesses);
}

TEST_F(RegistryTest, OfWhichOthersCouldHaveMadeOneIsRefused) {
  ASSERT_TRUE(info_.setString("A", "name", "data", 0));
  for (const std::string& open : {file_, dir_.path().string()}) {
    lqregistry::UseFile(file_);
    const unsigned before = test_support::modeOf(open);
    ASSERT_EQ(chmod(open.c_str(), before | 020), 0);
    EXPECT_EQ(valueOf("A", "name"), std::nullopt);
    EXPECT_FALSE(info_.setString("A", "name", "data", 0));
    EXPECT_EQ(info_.getRegError(), kRegUnavailable);
    EXPECT_TRUE(test_support::contains(info_.getRegErrorText(), "\"chmod go-w " + open + "\""));
    ASSERT_EQ(chmod(open.c_str(), before), 0);
    EXPECT_EQ(valueOf("A", "name"), "data");
  }
}

TEST_F(RegistryTest, WaitsOncePerBatchForAProcessThatKeepsTheFileLocked) {
  ASSERT_TRUE(info_.setString("A", "name", "before", 0));
  lqregistry::UseFile(file_);
  OtherProcess holder([](const std::string&) {
    new lqregistry::WriteBatch;  // until the process is killed
    return LQPlatformInfo().setString("A", "name", "of the holder", 0) != 0;
  });
  ASSERT_TRUE(holder.ask("lock"));

  const oblog::Capture log;
  // If each of these waited on its own, the test would last for an hour.
  lqregistry::WriteBatch batch;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_FALSE(info_.setNumber("A", std::to_string(i), i));
    EXPECT_EQ(info_.getRegError(), kRegUnavailable);
    EXPECT_EQ(valueOf("A", "name"), "before") << "readers wait for nobody";
  }
  EXPECT_EQ(log.Lines().size(), 1U);
  holder.kill();
  EXPECT_TRUE(info_.setString("A", "name", "after", 0));
  EXPECT_TRUE(batch.commit()) << "what was reported as written is there";
  lqregistry::UseFile(file_);
  EXPECT_EQ(valueOf("A", "name"), "after");
}

TEST_F(RegistryTest, LosesOnlyWhatWasNotFlushedWhenTheProcessIsKilled) {
  OtherProcess victim([](const std::string&) {
    LQPlatformInfo info;
    auto* batch = new lqregistry::WriteBatch;  // still open at the end
    return info.setString("A", "flushed", "1", 0) != 0 && batch->flush() &&
           info.setString("A", "unflushed", "1", 0) != 0 && info.delRegField("A", "flushed");
  });
  ASSERT_TRUE(victim.ask("write"));
  victim.kill();
  EXPECT_EQ(valueOf("A", "flushed"), "1");
  EXPECT_EQ(valueOf("A", "unflushed"), std::nullopt);
  EXPECT_TRUE(info_.setString("A", "unflushed", "2", 0)) << "no lock is left behind";
}

TEST_F(RegistryTest, ReadsAFileThatItMayNotWrite) {
  ASSERT_TRUE(info_.setString("A", "name", "data", 0));
  lqregistry::UseFile(file_);
  // Rights mean nothing to the superuser, so the calls are made as somebody else.
  const bool superuser = geteuid() == 0;
  if (superuser) {
    ASSERT_EQ(chown(dir_.path().c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(chown(file_.c_str(), kNobody, kNobody), 0);
  }
  OtherProcess user([superuser](const std::string& step) {
    LQPlatformInfo info;
    if (step == "become") return !superuser || (setgroups(0, nullptr) == 0 && setuid(kNobody) == 0);
    if (step == "read") return valueOf("A", "name") == "data";
    if (step == "write") return info.setString("A", "name", "new", 0) != 0;
    if (step == "fail to read")
      return !valueOf("A", "name") && !info.createRegKey("B") && info.getRegError() == kRegUnavailable;
    return !info.setString("A", "name", "new", 0) && info.getRegError() == kRegUnavailable &&
           info.getRegErrorText().find("read-only") != std::string::npos;
  });
  ASSERT_TRUE(user.ask("become"));
  ASSERT_EQ(chmod(file_.c_str(), 0), 0);
  EXPECT_TRUE(user.ask("fail to read"));
  ASSERT_EQ(chmod(file_.c_str(), 0400), 0);
  EXPECT_TRUE(user.ask("read"));
  EXPECT_TRUE(user.ask("fail to write"));
  ASSERT_EQ(chmod(file_.c_str(), 0600), 0);
  EXPECT_TRUE(user.ask("write"));
}

TEST_F(RegistryTest, ReportsABatchThatADiskTooFullUndid) {
  ASSERT_TRUE(info_.setString("A", "name", "before", 0));
  const auto logSize = [this] { return std::filesystem::file_size(file_ + "-wal"); };
  {
    // Each write fits into memory; the disk is needed at the end.
    const FullDisk disk(logSize());
    lqregistry::WriteBatch batch;
    EXPECT_TRUE(info_.setString("A", "name", "lost", 0));
    EXPECT_FALSE(batch.flush());
    EXPECT_EQ(valueOf("A", "name"), "before");
    EXPECT_FALSE(batch.commit());
    EXPECT_FALSE(info_.setString("A", "name", "lost", 0)) << "without a batch as well";
    EXPECT_EQ(info_.getRegError(), kRegUnavailable);
  }
  {
    // More than SQLite keeps in memory: it gives up the transaction in the middle of a write.
    lqregistry::WriteBatch batch;
    EXPECT_TRUE(info_.setString("A", "name", "lost", 0));
    {
      const FullDisk disk(logSize() + 100000);
      int failed = 0;
      for (int i = 0; i < 8; ++i)
        failed +=
            info_.setString("A", "large" + std::to_string(i), std::string(1 << 20, 'x'), 0) == 0 ? 1 : 0;
      EXPECT_GT(failed, 0);
    }
    EXPECT_TRUE(info_.setString("A", "later", "kept", 0)) << "the batch goes on when there is room again";
    EXPECT_FALSE(batch.commit());
  }
  lqregistry::UseFile(file_);
  EXPECT_EQ(valueOf("A", "name"), "before");
  EXPECT_EQ(valueOf("A", "later"), "kept");
  lqregistry::WriteBatch next;
  EXPECT_TRUE(info_.setString("A", "name", "after", 0));
  EXPECT_TRUE(next.commit()) << "a new batch starts clean";
}

}  // namespace
