// The pass lock: who is excluded, for how long, and what those who wait in vain are told.
#include "lqregistry/LqPassLock.h"

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/platform/registry_fixture.h"

namespace {

using std::chrono::milliseconds;

// Takes the lock and keeps it until asked to let go of it, or killed.
bool holdOrRelease(const std::string& step) {
  static std::unique_ptr<LqPassLock> lock;
  if (step == "give up root's rights") return geteuid() != 0 || setuid(65534) == 0;
  if (step == "release") {
    lock.reset();
    return true;
  }
  lock = std::make_unique<LqPassLock>(step);
  return lock->isHeld();
}

std::string takeInVain() {
  LqPassLock::useWait(milliseconds(50));
  const LqPassLock lock("vain");
  LqPassLock::useWait(LqPassLock::kDefaultWait);
  EXPECT_FALSE(lock.isHeld());
  return lock.reason();
}

TEST_F(RegistryTest, APassExcludesOtherProcessesUntilItEndsOrDies) {
  OtherProcess other(holdOrRelease);
  ASSERT_TRUE(other.ask("refresh"));
  const std::string file = file_ + ".I1.pass";
  EXPECT_EQ(modeOf(file), 0600U);
  const std::string reason = takeInVain();
  EXPECT_TRUE(contains(reason, file) && contains(reason, "(refresh, since 2")) << reason;
  EXPECT_FALSE(contains(reason, "process " + std::to_string(getpid()))) << reason;
  EXPECT_TRUE(contains(reason, readFile(file))) << "the holder is noted in the file";
  writeFile(file, "");
  EXPECT_TRUE(contains(takeInVain(), "held by another process;")) << "which it is about to be";

  LQPI_Focus::setFocus("I2");
  EXPECT_TRUE(LqPassLock("of another instance").isHeld());
  LQPI_Focus::setFocus("I1");

  std::thread waiter([] { EXPECT_TRUE(LqPassLock("waiter").isHeld()); });
  expectSleeping();
  ASSERT_TRUE(other.ask("release"));
  waiter.join();
  EXPECT_EQ(readFile(file), "") << "nobody holds it";
  ASSERT_TRUE(other.ask("download"));
  other.kill();
  EXPECT_TRUE(LqPassLock("after a death").isHeld());
  ASSERT_TRUE(std::filesystem::remove(file) && std::filesystem::create_directory(file));
  EXPECT_TRUE(contains(takeInVain(), "the lock " + file + " cannot be made: Is a directory"));

  // Where nobody may make a file, there is nothing to lock; one that may not be opened is another's.
  OtherProcess reader(holdOrRelease);
  ASSERT_TRUE(std::filesystem::remove(file) && chmod(dir_.path().c_str(), 0555) == 0);
  EXPECT_TRUE(reader.ask("give up root's rights") && reader.ask("refresh") && reader.ask("release"));
  ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
  writeFile(file, "");
  EXPECT_TRUE(chmod(file.c_str(), 0) == 0 && !reader.ask("refresh"));
}

TEST_F(RegistryTest, APassExcludesOtherThreadsAndItsOwnAtOnce) {
  for (const bool hasFile : {true, false}) {
    if (!hasFile)
      lqregistry::UseFile(dir_ / "no such folder/registry.db");  // threads exclude each other all the same
    auto lock = std::make_unique<LqPassLock>("first");
    ASSERT_TRUE(lock->isHeld()) << lock->reason();
    EXPECT_EQ(lock->reason(), "");
    const OtherProcess child(holdOrRelease);  // has the lock's descriptor, and may live on
    // With the wait of a minute: who waited for itself would wait here.
    const auto begin = std::chrono::steady_clock::now();
    const LqPassLock again("again");
    EXPECT_FALSE(again.isHeld());
    EXPECT_TRUE(contains(again.reason(), "this thread") && contains(again.reason(), "(first, since"))
        << again.reason();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, LqPassLock::kDefaultWait / 2);
    std::thread([] {
      EXPECT_TRUE(contains(takeInVain(), "process " + std::to_string(getpid()) + " (first"));
    }).join();

    std::atomic<bool> isReleased{false};
    std::thread waiter([&] {
      const LqPassLock next("next");
      EXPECT_TRUE(next.isHeld() && isReleased);
    });
    std::this_thread::sleep_for(milliseconds(50));
    isReleased = true;
    lock.reset();
    waiter.join();
  }
}

}  // namespace
