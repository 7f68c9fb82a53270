// The registry when its file is in trouble: damaged, foreign, locked, read-only, on a full disk, or left
// behind by a process that was killed.
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "tests/platform/registry_fixture.h"

namespace {

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
  const std::string good = readFile(file_);
  const std::pair<const char*, std::string> damages[] = {
      {"garbage", std::string(9000, '#')},
      {"garbage again, for a file named anew", std::string(9000, '#')},
      {"truncated", good.substr(0, good.size() / 2)},
      {"of another application", withByte(good, kApplicationPlace, 'X')},
      {"of a newer format", withByte(good, kVersionPlace + 3, 3)},
      {"empty beside a log", ""}};
  for (const auto& [kind, damaged] : damages) {
    SCOPED_TRACE(kind);
    writeFile(file_, damaged);
    if (damaged.empty()) writeFile(file_ + "-wal", "precious");
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
    EXPECT_EQ(readFile(file_), damaged);

    // Repaired, the next call finds it.
    std::filesystem::remove(file_ + "-wal");
    writeFile(file_, good);
    EXPECT_EQ(valueOf("A", "name"), std::string(50000, 'd'));
    lqregistry::UseFile(file_);
  }
}

TEST_F(RegistryTest, ATroubleThatComesBackIsReportedAgain) {
  ASSERT_TRUE(info_.setString("A", "name", "good 0", 0));
  const oblog::Capture log;
  for (const char* const next : {"good 1", "good 2", "good 3"}) {
    sql("ALTER TABLE key_values RENAME TO away");
    for (int i = 0; i < 2; ++i)
      EXPECT_FALSE(valueOf("A", "name").has_value() || info_.setString("A", "name", "bad", 0));
    sql("ALTER TABLE away RENAME TO key_values");
    EXPECT_TRUE(valueOf("A", "name") && info_.setString("A", "name", next, 0));
  }
  EXPECT_EQ(log.Lines().size(), 3U) << "one trouble is one line";
}

// The connections are its parent's, and so are the locks that threads of the parent held.
TEST_F(RegistryTest, AChildForkedFromOneThatHasItOpenIsRefused) {
  ASSERT_TRUE(info_.setString("A", "name", "data", 0));
  const lqregistry::WriteBatch ofParent;
  EXPECT_EQ(endOf(startChild([this] {
              lqregistry::UseFile(dir_ / "another.db");
              lqregistry::WriteBatch batch;
              batch.lock();
              const bool isRefused = !info_.setString("A", "name", "child", 0) &&
                                     contains(info_.getRegErrorText(), "forked") && !valueOf("A", "name");
              return isRefused && !batch.commit() && lqregistry::Check().IsError() ? 0 : 1;
            })),
            0);
  EXPECT_EQ(valueOf("A", "name"), "data");
}

TEST_F(RegistryTest, OfWhichOthersCouldHaveMadeOneIsRefused) {
  ASSERT_TRUE(info_.setString("A", "name", "data", 0));
  for (const std::string& open : {file_, dir_.path().string()}) {
    lqregistry::UseFile(file_);
    const unsigned before = modeOf(open);
    ASSERT_EQ(chmod(open.c_str(), before | 020), 0);
    EXPECT_EQ(valueOf("A", "name"), std::nullopt);
    EXPECT_FALSE(info_.setString("A", "name", "data", 0));
    EXPECT_EQ(info_.getRegError(), kRegUnavailable);
    EXPECT_TRUE(contains(info_.getRegErrorText(), "\"chmod go-w " + open + "\""));
    ASSERT_EQ(chmod(open.c_str(), before), 0);
    EXPECT_EQ(valueOf("A", "name"), "data");
  }
}

TEST_F(RegistryTest, WaitsForAProcessThatKeepsTheFileLockedButOnlyOncePerBatch) {
  ASSERT_TRUE(info_.setString("A", "name", "before", 0));
  lqregistry::UseFile(file_);
  OtherProcess holder(carryOut);
  // Long enough for whoever lets go in the end.
  ASSERT_TRUE(holder.ask("begin") && holder.ask("write of the holder"));
  std::thread writer([] { EXPECT_TRUE(LQPlatformInfo("I1").setString("B", "name", "waited", 0)); });
  expectSleeping();
  ASSERT_TRUE(holder.ask("commit"));
  writer.join();
  EXPECT_EQ(valueOf("A", "name"), "of the holder");

  ASSERT_TRUE(holder.ask("begin") && holder.ask("write not let go"));
  // If each of these waited on its own, the test would last for minutes.
  lqregistry::UseWriteWait(std::chrono::milliseconds(300));
  for (const bool locksFirst : {false, true}) {
    const oblog::Capture log;
    lqregistry::WriteBatch batch;
    if (locksFirst) batch.lock();
    for (int i = 0; i < 1000; ++i) {
      EXPECT_FALSE(info_.setNumber("A", std::to_string(i), i));
      EXPECT_EQ(info_.getRegError(), kRegUnavailable);
      EXPECT_EQ(valueOf("A", "name"), "of the holder") << "readers wait for nobody";
    }
    EXPECT_EQ(log.Lines().size(), locksFirst ? 0U : 1U) << "one trouble is one line";
    if (!locksFirst) continue;
    holder.kill();
    EXPECT_TRUE(info_.setString("A", "name", "after", 0));
    EXPECT_TRUE(batch.commit()) << "what was reported as written is there";
  }
  lqregistry::UseFile(file_);
  EXPECT_EQ(valueOf("A", "name"), "after");
}

TEST_F(RegistryTest, TheCheckFindsDamagedTreesAndKeysThatContradictThemselves) {
  EXPECT_FALSE(lqregistry::Check().IsError()) << "a registry that does not exist yet is sound";
  lqregistry::WriteBatch batch;
  for (int i = 0; i < 200; ++i)
    ASSERT_TRUE(info_.setString("Key" + std::to_string(i) + "/Leaf", "name", std::string(200, 'd'), 0));
  ASSERT_TRUE(info_.setString("A", "long", std::string(20000, 'd'), 0));
  ASSERT_TRUE(info_.setString("Last", "orphan", "data", 0));
  ASSERT_TRUE(batch.commit());
  EXPECT_EQ(lqregistry::Check().AsString(), std::string());
  lqregistry::UseFile(file_);
  const std::string good = readFile(file_);
  const auto isNoticed = [&](const std::string& damaged) {
    writeFile(file_, damaged);
    return contains(lqregistry::Check().AsString(), file_);
  };
  constexpr std::size_t kPage = 4096;
  ASSERT_GT(good.size(), 20 * kPage);
  for (std::size_t page = 0; page < good.size(); page += kPage)
    EXPECT_TRUE(isNoticed(std::string(good).replace(page, 16, 16, '\xff'))) << "page " << page / kPage;
  EXPECT_TRUE(isNoticed(good.substr(0, good.size() - kPage)));

  // Consistent in every tree, and wrong all the same: a path elsewhere than its name, a value of no key.
  std::string moved = good;
  for (std::size_t at = moved.find("Key7/Leaf"); at != std::string::npos; at = moved.find("Key7/Leaf", at))
    moved.replace(at, 9, "Key7/Leae");
  EXPECT_TRUE(isNoticed(moved));
  std::string orphaned = good;
  ASSERT_NE(orphaned.find("orphan"), std::string::npos);
  std::size_t keyNumber = orphaned.find("orphan") - 2;  // two bytes, the name follows
  orphaned[keyNumber] = 0x7f;
  EXPECT_TRUE(isNoticed(orphaned));
  EXPECT_FALSE(isNoticed(good));
}

// Goes where the folder can be read and not written: onto a read-only view of it, or, where no file system
// may be mounted, into the place of somebody who has no right to write there.
bool becomeReaderOf(const std::string& folder) {
  if (unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
      mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
      mount(nullptr, folder.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0)
    return true;
  return geteuid() != 0 || (setgroups(0, nullptr) == 0 && setuid(kNobody) == 0);
}

TEST_F(RegistryTest, IsReadWhereNothingCanBeWrittenAndNeverWithOldValues) {
  const TempDir copies;
  setenv("TMPDIR", copies.path().c_str(), 1);
  ASSERT_EQ(chmod(copies.path().c_str(), 0777), 0);
  const auto closeFolder = [this](bool close) {  // for a reader who is not kept out by the mount
    chmod(dir_.path().c_str(), close ? 0555 : 0755);
    for (const auto& file : std::filesystem::directory_iterator(dir_.path()))
      chmod(file.path().c_str(), 0644);
  };
  const auto put = [&](const std::string& value) {
    closeFolder(false);
    EXPECT_TRUE(info_.setString("A", "name", value, 0));
    closeFolder(true);
  };
  put("idle");
  lqregistry::UseFile(file_);
  OtherProcess reader([&](const std::string& step) {
    LQPlatformInfo info;
    if (step == "hold nothing open") {
      struct stat file {};
      struct stat held {};
      bool isHeld = stat(file_.c_str(), &file) != 0;
      for (int i = 0; i < 256 && !isHeld; ++i)
        isHeld = fstat(i, &held) == 0 && held.st_ino == file.st_ino && held.st_dev == file.st_dev;
      return !isHeld;
    }
    if (step == "enter") return becomeReaderOf(dir_.path());
    if (step == "reopen") lqregistry::UseFile(file_);
    if (step == "find no room") {
      setenv("TMPDIR", "/none", 1);
      std::string data;
      const bool isRead = info.getString("A", "name", data);
      setenv("TMPDIR", copies.path().c_str(), 1);
      if (isRead ||
          !contains(info.getRegErrorText(), "a copy to read failed: the folder for temporary files"))
        return false;
      const FullDisk disk(0);
      return !info.getString("A", "name", data) && contains(info.getRegErrorText(), "registry.db: ");
    }
    if (step == "remove what is absent")
      return !info.delRegField("A", "absent") && info.getRegError() == kRegValueMissing;
    return step == "reopen" || (step == "check" ? !lqregistry::Check().IsError() : carryOut(step));
  });
  ASSERT_TRUE(reader.ask("enter") && reader.ask("find no room"));
  // Neither log nor index is there; a batch that changes nothing is carried out.
  for (const char* step : {"read idle", "hold nothing open", "find it read-only", "begin", "read idle",
                           "write idle", "remove what is absent", "commit", "check"})
    EXPECT_TRUE(reader.ask(step)) << step;

  // What a machine that lost its power leaves: the newest values are in the log alone, and there is no index.
  put("in the log");
  const std::string file = readFile(file_);
  const std::string log = readFile(file_ + "-wal");
  closeFolder(false);
  lqregistry::UseFile(file_);
  ASSERT_FALSE(contains(file, "in the log"));
  writeFile(file_, file);
  writeFile(file_ + "-wal", log);
  closeFolder(true);
  EXPECT_TRUE(reader.ask("read in the log")) << "also by a connection that was open";
  EXPECT_TRUE(reader.ask("reopen"));
  EXPECT_TRUE(reader.ask("read in the log"));
  EXPECT_EQ(readFile(file_ + "-wal"), log);

  // Somebody else, who may, writes on.
  for (const std::string value : {"written on", "and on"}) {
    put(value);
    EXPECT_TRUE(reader.ask("read " + value));
    EXPECT_TRUE(reader.ask("reopen"));
    EXPECT_TRUE(reader.ask("read " + value));
  }
  EXPECT_TRUE(std::filesystem::is_empty(copies.path()));
  closeFolder(false);
  unsetenv("TMPDIR");
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
  const auto answers = [superuser](const std::string& step) {
    LQPlatformInfo info;
    if (step == "become") return !superuser || (setgroups(0, nullptr) == 0 && setuid(kNobody) == 0);
    if (step == "fail to read")
      return !valueOf("A", "name") && !info.createRegKey("B") &&
             contains(info.getRegErrorText(), "unable to open database file: Permission denied");
    return carryOut(step);
  };
  OtherProcess user(answers);
  OtherProcess writer(answers);
  OtherProcess later(answers);
  ASSERT_TRUE(user.ask("become") && writer.ask("become") && later.ask("become"));
  ASSERT_TRUE(writer.ask("write data"));  // opened while it may be written
  ASSERT_EQ(chmod(file_.c_str(), 0), 0);
  EXPECT_TRUE(user.ask("fail to read"));
  ASSERT_EQ(chmod(file_.c_str(), 0400), 0);
  for (const char* step : {"read data", "find it read-only", "begin", "read data", "write data"})
    EXPECT_TRUE(user.ask(step)) << step;
  EXPECT_TRUE(writer.ask("write newer"));
  // A batch that cannot write is of one moment as well.
  for (const char* step : {"read data", "write data", "commit", "read newer"})
    EXPECT_TRUE(user.ask(step)) << step;
  ASSERT_EQ(chmod(file_.c_str(), 0600), 0);
  EXPECT_TRUE(user.ask("write new"));
  // Companions from the time when it was read-only do not keep it so.
  for (const char* made : {"-wal", "-shm"}) ASSERT_EQ(chmod((file_ + made).c_str(), 0400), 0);
  EXPECT_TRUE(later.ask("write newest"));
}

TEST_F(RegistryTest, ReportsABatchThatADiskTooFullUndid) {
  ASSERT_TRUE(info_.setString("A", "name", "before", 0));
  const auto logSize = [this] { return std::filesystem::file_size(file_ + "-wal"); };
  {
    // Each write fits into memory; the disk is needed at the end.
    const FullDisk disk(logSize());
    lqregistry::WriteBatch batch;
    EXPECT_TRUE(info_.setString("A", "name", "lost", 0));
    const oblog::Capture log;
    EXPECT_TRUE(!batch.commit() && log.Lines().size() == 1) << "a line says so";
    EXPECT_EQ(valueOf("A", "name"), "before");
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
  EXPECT_TRUE(valueOf("A", "name") == "before" && valueOf("A", "later") == "kept");
  lqregistry::WriteBatch next;
  EXPECT_TRUE(info_.setString("A", "name", "after", 0));
  EXPECT_TRUE(next.commit()) << "a new batch starts clean";
}

}  // namespace
