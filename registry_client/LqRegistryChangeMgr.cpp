#include "lqregistry/LqRegistryChangeMgr.h"

#include <memory>

#include "lqregistry/LqCriticalSection.h"

namespace {

// Guards the creation of the singleton and the starting of the pool. GetInstance holds it while the
// constructor takes it again, which is why it has to be re-entrant.
LqCriticalSection tpInitCS;
// Part of the manager's contract, and taken by nobody: the map of registrations is public, and a lock here
// would guard it from its own functions only.
[[maybe_unused]] LqCriticalSection cbInstanceCS;
[[maybe_unused]] LqCriticalSection regCS;

// The pool: its name; a spare thread ends after 300 idle seconds, one change that waits lets another thread
// join, at most 3 threads, 1 that stays.
constexpr const char* kPoolName = "RegistryManagerClient";
constexpr std::uint64_t kIdleSeconds = 300;
constexpr std::uint64_t kItemsPerThread = 1;
constexpr std::uint32_t kMaxThreads = 3;
constexpr std::uint32_t kMinThreads = 1;

}  // namespace

// The pool comes last: it is destroyed first, and the callbacks that it still runs find the rest in place.
std::map<std::pair<std::string, std::string>, LqRegistryChangeMgr::CallBack>
    LqRegistryChangeMgr::callBackMaps;
bool LqRegistryChangeMgr::isThreadPoolInitialized = false;
std::atomic<LqRegistryChangeMgr*> LqRegistryChangeMgr::instance{nullptr};
ObEvent LqRegistryChangeMgr::event;
LqThreadPool LqRegistryChangeMgr::callBackThreadPool;

LqRegistryChangeMgr* LqRegistryChangeMgr::GetInstance() {
  if (LqRegistryChangeMgr* const known = instance) return known;
  const LqCriticalSectionLock lock(tpInitCS);
  if (instance == nullptr) instance = new LqRegistryChangeMgr;
  return instance;
}

LqRegistryChangeMgr::LqRegistryChangeMgr() {
  const LqCriticalSectionLock lock(tpInitCS);
  if (!isThreadPoolInitialized)
    isThreadPoolInitialized =
        callBackThreadPool.initThreadPool(kPoolName, kIdleSeconds, kItemsPerThread, kMaxThreads, kMinThreads);
}

void LqRegistryChangeMgr::Register(const std::string& keyPath, const std::string& valueName,
                                   CallBack callback) {
  callBackMaps[{keyPath, valueName}] = callback;
  event.DebugLvl(kLogDetail, "LqRegistryChangeMgr::Register", "Call back registered for key [%s\\%s]",
                 keyPath.c_str(), valueName.c_str());
}

void LqRegistryChangeMgr::UnRegister(const std::string& keyPath, const std::string& valueName) {
  callBackMaps.erase({keyPath, valueName});
  event.DebugLvl(kLogDetail, "LqRegistryChangeMgr::UnRegister", "Call back un-registered for key [%s\\%s]",
                 keyPath.c_str(), valueName.c_str());
}

bool LqRegistryChangeMgr::IsCallBackRegistered(const std::string& keyPath,
                                               const std::string& valueName) const {
  if (callBackMaps.empty() || !callBackMaps.contains({keyPath, valueName})) return false;
  event.DebugLvl(kLogDetail, "LqRegistryChangeMgr::IsCallBackRegistered",
                 "Found call back registered for [%s\\%s]", keyPath.c_str(), valueName.c_str());
  return true;
}

int LqRegistryChangeMgr::HandleCallbackForRegistry(const OBGui::RegistryKeyInfo& key) const {
  constexpr const char* kTag = "LqRegistryChangeMgr::HandleCallbackForRegistry";
  const auto found = callBackMaps.find({key.keyPath, key.valueName});
  if (found == callBackMaps.end()) return 0;
  const char* const path = key.keyPath->c_str();
  const char* const name = key.valueName->c_str();

  auto params = std::make_unique<OnRegChangeThreadParams>();
  static_cast<OBGui::RegistryKeyInfo&>(*params) = key;
  params->callback = found->second;
  event.DebugLvl(kLogDetail, kTag, "Found call back registered for [%s\\%s]", path, name);
  // The address goes in and comes out untyped, so it has to be the parcel's own. A lane for each pair: a
  // module hears of one value's changes in their order, and the last call brings the value that holds.
  const std::string lane = key.keyPath.get() + "\\" + key.valueName.get();
  if (callBackThreadPool.doWork(&OnRegistryChange, params.get(), lane) == -1) {
    event.DebugLvl(kLogDetail, kTag, "Failed to call callback function for [%s\\%s]", path, name);
    return 1;
  }
  static_cast<void>(params.release());  // the worker's from here on
  event.DebugLvl(kLogDetail, kTag, "Successfully started callback function for [%s\\%s]", path, name);
  return 0;
}

void* LqRegistryChangeMgr::OnRegistryChange(void* params) {
  const std::unique_ptr<OnRegChangeThreadParams> parcel(static_cast<OnRegChangeThreadParams*>(params));
  if (parcel->callback != nullptr) parcel->callback(OBGui::RegistryKeyInfo(*parcel));
  return nullptr;
}
