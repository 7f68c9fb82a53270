// LqRegistryChangeMgr: tells other modules of the host process when a synchronisation changes a value.
//
// A module registers a plain function for a pair of key path and value name, before synchronisation runs;
// both must be exactly as the server's records spell them. When a pass has written or removed that value, and
// the change is on disk, the function runs on the manager's thread pool with a copy of the record, so the
// pass never waits for it; it may still be running when the pass returns. Calls for one pair come one after
// the other, in the order of the changes; calls for different pairs may run at once. A function may take its
// time, write to the registry and throw: no call is refused because others wait.
//
// The map of registrations is public, so a lock inside could not guard it: modules register before passes
// begin, and registering while one runs is not supported. The manager is a process-wide singleton, created on
// first use and never destroyed; all its state is static. At unload the pool runs what was queued, for as
// long as LqThreadPool's exit wait. A host that unloads its modules calls callBackThreadPool.drain() first,
// so that they can end.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <utility>

#include "lqregistry/LqExport.h"
#include "lqregistry/LqThreadPool.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/ObDebug.h"

class LQ_EXPORT LqRegistryChangeMgr {
 public:
  using CallBack = void (*)(OBGui::RegistryKeyInfo);

  // The singleton. Any thread.
  static LqRegistryChangeMgr* GetInstance();

  // Starts the thread pool unless it runs; when that fails, the next construction tries again.
  LqRegistryChangeMgr();

  // The last registration of a pair wins.
  void Register(const std::string& keyPath, const std::string& valueName, CallBack callback);
  void UnRegister(const std::string& keyPath, const std::string& valueName);
  bool IsCallBackRegistered(const std::string& keyPath, const std::string& valueName) const;

  // Queues the callback of the record's pair with a copy of the record. 0 when it was queued or there is
  // none, 1 when it could not be queued because the pool could not be started or is ending.
  int HandleCallbackForRegistry(const OBGui::RegistryKeyInfo& key) const;

  // The pool's routine: runs the callback of an OnRegChangeThreadParams and frees it. Always null.
  static void* OnRegistryChange(void* params);

  static std::map<std::pair<std::string, std::string>, CallBack> callBackMaps;
  static LqThreadPool callBackThreadPool;
  static bool isThreadPoolInitialized;
  static std::atomic<LqRegistryChangeMgr*> instance;
  static ObEvent event;
};

// What a pool thread gets: the changed record and the callback to run with it.
struct OnRegChangeThreadParams : OBGui::RegistryKeyInfo {
  LqRegistryChangeMgr::CallBack callback = nullptr;
};
