#include "lqhost/pass/pass_observer.h"

#include <list>
#include <mutex>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryChangeMgr.h"
#include "records/key_records.h"

namespace host {

namespace {

// Callbacks are plain functions, so what they report goes through here.
std::mutex factsMutex;
PassFacts facts;  // guarded by factsMutex

void reportCallback(
    OBGui::RegistryKeyInfo key) {  // NOLINT(performance-unnecessary-value-param): the type is given
  const std::lock_guard lock(factsMutex);
  facts.callbacks.push_back({key.keyPath, key.valueName});
}

void observe(WireWatch::Kind kind, const OBGui::RegistryTaskResp& batch) {
  const std::lock_guard lock(factsMutex);
  if (kind == WireWatch::Kind::kSent) {
    facts.acknowledged = batch.taskStatus;
    return;
  }
  facts.batchReceived = true;
  facts.batch = batch.keys;
  facts.before.clear();
  facts.before.reserve(facts.batch.size());
  for (const OBGui::RegistryKeyInfo& key : facts.batch) facts.before.push_back(heldValue(key));
}

}  // namespace

HeldValue heldValue(const OBGui::RegistryKeyInfo& key) {
  LQPlatformInfo info;
  const std::string path = normalisedKeyPath(key.keyPath);
  if (key.valueType.get() == KEYTYPE) {
    std::list<std::string> below;
    return info.getSubKeys(subKeyPath(path, key.valueName), below) ? HeldValue("") : std::nullopt;
  }
  std::string value;
  return info.getString(path, key.valueName, value) ? HeldValue(value) : std::nullopt;
}

PassObserver::PassObserver(std::vector<std::pair<std::string, std::string>> watched)
    : watched_(std::move(watched)), watch_(&observe) {
  {
    const std::lock_guard lock(factsMutex);
    facts = {};
  }
  for (const auto& [path, name] : watched_)
    LqRegistryChangeMgr::GetInstance()->Register(path, name, &reportCallback);
}

PassObserver::~PassObserver() {
  for (const auto& [path, name] : watched_) LqRegistryChangeMgr::GetInstance()->UnRegister(path, name);
}

PassFacts PassObserver::finish() {
  LqRegistryChangeMgr::callBackThreadPool.waitIdle();
  const std::lock_guard lock(factsMutex);
  return std::move(facts);
}

}  // namespace host
