// The change-callback manager: registrations, a pool that cannot be started, and changes in great number.
#include <pthread.h>

#include <array>
#include <set>
#include <stdexcept>

#include "lqregistry/LqRegistryChangeMgr.h"
#include "tests/support/product_fixture.h"

namespace {

std::atomic<int> calls{0};

void replaced(OBGui::RegistryKeyInfo) {
  ADD_FAILURE() << "another callback took its place";
}
void counting(OBGui::RegistryKeyInfo) {
  ++calls;
}

// A hundred pairs, of which each is told of its changes one after the other.
constexpr int kPairs = 100;
constexpr int kChanges = 1000;
std::array<std::atomic<int>, kPairs> next;  // change of each
std::atomic<int> outOfTurn{0};
std::atomic<int> written{0};

void demanding(OBGui::RegistryKeyInfo key) {
  const int change = std::stoi(key.value);
  if (next.at(static_cast<std::size_t>(std::stoi(key.valueName)))++ != change) ++outOfTurn;
  if (change % 100 == 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (change % 200 == 2 && LQPlatformInfo().setNumber("Seen", key.valueName, change)) ++written;
  if (change % 100 == 3) throw std::runtime_error("a callback of somebody else's");
}

OBGui::RegistryKeyInfo received;
char threadName[16];
void receiving(OBGui::RegistryKeyInfo key) {
  pthread_getname_np(pthread_self(), threadName, sizeof threadName);
  received = std::move(key);
}

class ChangeManager : public ProductTest {
 protected:
  ChangeManager() { calls = 0; }
  ~ChangeManager() override {
    LqRegistryChangeMgr::callBackThreadPool.waitIdle();
    LqRegistryChangeMgr::callBackMaps.clear();
  }
  LqRegistryChangeMgr& manager_ = *LqRegistryChangeMgr::GetInstance();
};

TEST(ChangeManagerStart, ThreadsThatComeAtOnceGetOneManagerAndOnePool) {
  std::array<LqRegistryChangeMgr*, 4> seen{};
  {
    std::vector<std::jthread> threads;
    for (auto& manager : seen)
      threads.emplace_back([&manager] { manager = LqRegistryChangeMgr::GetInstance(); });
  }
  EXPECT_EQ(std::set(seen.begin(), seen.end()).size(), 1U);
  EXPECT_TRUE(LqRegistryChangeMgr::isThreadPoolInitialized);
  EXPECT_EQ(LqRegistryChangeMgr::callBackThreadPool.threadCount(), 1U);
}

TEST(ChangeManagerStart, APoolThatCouldNotBeStartedIsTriedAgain) {
  pthread_attr_t before;
  pthread_attr_t impossible;
  ASSERT_EQ(pthread_getattr_default_np(&before), 0);
  ASSERT_EQ(pthread_attr_init(&impossible), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{1} << 50), 0);
  ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
  LqRegistryChangeMgr& manager = *LqRegistryChangeMgr::GetInstance();
  manager.Register("Path", "sNAME", &counting);
  const OBGui::RegistryKeyInfo key = record("Path", "sNAME", std::string(1000, 'v'));
  const oblog::Capture log;
  EXPECT_FALSE(LqRegistryChangeMgr::isThreadPoolInitialized);
  EXPECT_EQ(manager.HandleCallbackForRegistry(key), 1);
  EXPECT_TRUE(hasLine(
      log,
      R"(10|LqRegistryChangeMgr::HandleCallbackForRegistry|Failed to call callback function for [Path\sNAME])"));
  EXPECT_EQ(key.value->size(), 1000U);
  ASSERT_EQ(pthread_setattr_default_np(&before), 0);
  const LqRegistryChangeMgr again;
  EXPECT_TRUE(LqRegistryChangeMgr::isThreadPoolInitialized);
  EXPECT_EQ(manager.HandleCallbackForRegistry(key), 0);
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  EXPECT_EQ(calls, 1);
}

TEST_F(ChangeManager, TheLastRegistrationOfAPairWinsAndPairsAreExact) {
  const oblog::Capture log;
  manager_.Register("Path", "sNAME", &replaced);
  manager_.Register("Path", "sNAME", &counting);
  manager_.UnRegister("Path", "sOTHER");
  EXPECT_TRUE(manager_.IsCallBackRegistered("Path", "sNAME"));
  EXPECT_FALSE(manager_.IsCallBackRegistered("path", "sNAME"));
  EXPECT_FALSE(manager_.IsCallBackRegistered("~Path", "sNAME"));
  EXPECT_EQ(manager_.HandleCallbackForRegistry(record("Path", "sname", "1")), 0);
  EXPECT_EQ(manager_.HandleCallbackForRegistry(record("Path", "sNAME", "1")), 0);
  manager_.UnRegister("Path", "sNAME");
  EXPECT_EQ(manager_.HandleCallbackForRegistry(record("Path", "sNAME", "1")), 0);
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  EXPECT_EQ(calls, 1);
  const std::string pair = R"([Path\sNAME])";
  EXPECT_EQ(
      linesOf(log),
      (Lines{"10|LqRegistryChangeMgr::Register|Call back registered for key " + pair,
             "10|LqRegistryChangeMgr::Register|Call back registered for key " + pair,
             R"(10|LqRegistryChangeMgr::UnRegister|Call back un-registered for key [Path\sOTHER])",
             "10|LqRegistryChangeMgr::IsCallBackRegistered|Found call back registered for " + pair,
             "10|LqRegistryChangeMgr::HandleCallbackForRegistry|Found call back registered for " + pair,
             "10|LqRegistryChangeMgr::HandleCallbackForRegistry|Successfully started callback function for " +
                 pair,
             "10|LqRegistryChangeMgr::UnRegister|Call back un-registered for key " + pair}));
}

TEST_F(ChangeManager, ACallbackGetsTheWholeRecord) {
  manager_.Register("Path", "sNAME", &receiving);
  manager_.Register("Path", "sNOBODY", nullptr);
  EXPECT_EQ(manager_.HandleCallbackForRegistry(record("Path", "sNOBODY", "1")), 0);
  OBGui::RegistryKeyInfo key = secretRecord("Path", "sNAME", "hunter2");
  key.association.edit().id = 77;
  EXPECT_EQ(manager_.HandleCallbackForRegistry(key), 0);
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  EXPECT_TRUE(received.equals(key));
  EXPECT_STREQ(threadName, "RegistryManager") << "as much of the pool's name as there is room for";
}

TEST_F(ChangeManager, AHundredThousandChangesAreToldOnceEachAndInTheOrderOfTheirPair) {
  setValue("Seen", "any", "1");  // the key is there
  for (int pair = 0; pair < kPairs; ++pair) manager_.Register("Path", std::to_string(pair), &demanding);
  for (int change = 0; change < kChanges; ++change)
    for (int pair = 0; pair < kPairs; ++pair)
      ASSERT_EQ(
          manager_.HandleCallbackForRegistry(record("Path", std::to_string(pair), std::to_string(change))),
          0);
  EXPECT_EQ(LqRegistryChangeMgr::callBackThreadPool.threadCount(), 3U);
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  for (const auto& pair : next) EXPECT_EQ(pair, kChanges);
  EXPECT_EQ(outOfTurn, 0);
  EXPECT_EQ(written, kPairs * kChanges / 200);
}

}  // namespace
