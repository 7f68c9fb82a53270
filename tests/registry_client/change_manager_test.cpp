// The change-callback manager: registrations, and what happens to a change when the pool is full.
#include <array>
#include <atomic>
#include <semaphore>
#include <set>
#include <thread>
#include <vector>

#include "lqregistry/LqRegistryChangeMgr.h"
#include "tests/support/product_fixture.h"

namespace {

std::atomic<int> calls{0};
std::counting_semaphore<1000> started{0};
std::counting_semaphore<1000> mayGoOn{0};

void replaced(OBGui::RegistryKeyInfo) {
  ADD_FAILURE() << "another callback took its place";
}
void counting(OBGui::RegistryKeyInfo) {
  ++calls;
}
void blocking(OBGui::RegistryKeyInfo) {
  started.release();
  mayGoOn.acquire();
  ++calls;
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
      (std::vector<std::string>{
          "10|LqRegistryChangeMgr::Register|Call back registered for key " + pair,
          "10|LqRegistryChangeMgr::Register|Call back registered for key " + pair,
          R"(10|LqRegistryChangeMgr::UnRegister|Call back un-registered for key [Path\sOTHER])",
          "10|LqRegistryChangeMgr::IsCallBackRegistered|Found call back registered for " + pair,
          "10|LqRegistryChangeMgr::HandleCallbackForRegistry|Found call back registered for " + pair,
          "10|LqRegistryChangeMgr::HandleCallbackForRegistry|Successfully started callback function for " +
              pair,
          "10|LqRegistryChangeMgr::UnRegister|Call back un-registered for key " + pair}));
}

TEST_F(ChangeManager, AFullQueueRefusesAndEveryAcceptedChangeStillRuns) {
  manager_.Register("Path", "sNAME", &blocking);
  const OBGui::RegistryKeyInfo key = record("Path", "sNAME", std::string(1000, 'v'));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(manager_.HandleCallbackForRegistry(key), 0);
  for (int i = 0; i < 3; ++i) started.acquire();  // every thread of the pool is busy
  for (int i = 0; i < 300; ++i) EXPECT_EQ(manager_.HandleCallbackForRegistry(key), 0) << i;
  const oblog::Capture log;
  EXPECT_EQ(manager_.HandleCallbackForRegistry(key), 1);
  EXPECT_TRUE(hasLine(
      log,
      R"(10|LqRegistryChangeMgr::HandleCallbackForRegistry|Failed to call callback function for [Path\sNAME])"));
  EXPECT_EQ(key.value->size(), 1000U);
  mayGoOn.release(400);  // enough for a queue that took too many
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  EXPECT_EQ(calls, 303);
}

}  // namespace
