// Applying a key list: writing and removing each record, and handing changes to their callbacks. Which
// records have expired, and are removed for that, records/expiry.h says.
//
// A pass is one transaction, from its first comparison to its last write. Callbacks are handed over once it
// is on disk, in the order of the records, so that no power cut takes back what a module was told.
#include <strings.h>

#include <array>
#include <mutex>
#include <vector>

#include "lqregistry/LqRegistryChangeMgr.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"
#include "records/expiry.h"
#include "records/record_conversion.h"
#include "records/record_rules.h"

namespace {

// A current value is read into this many bytes to see whether it changes.
constexpr int kOldValueBuffer = 1024;
constexpr const char* kApplyTag = "LqRegistryManager::updateRegistryKeysForClient";

// Held from a commit until its callbacks are handed over: of two passes at once, the one that wrote last also
// tells last. Taken with the registry's write lock held; handing over takes no lock of the registry.
std::mutex commitAndTell;

// One pass over a key list, which must outlive it. Every record is tried; changes after the first failed one
// are not told, because callbacks run only for a pass that is clean so far.
class ApplyPass {
 public:
  explicit ApplyPass(LqRegistryManagerClnt& client) : client_(client) { batch_.lock(); }

  void apply(const OBGui::RegistryKeyInfo& key) {
    const bool hasCallback = changes_.IsCallBackRegistered(key.keyPath, key.valueName);
    if (isToBeRemoved(key)) {
      remove(key, hasCallback);
    } else {
      write(key, hasCallback);
    }
  }

  // Puts the pass on disk and tells of its changes; the pass's result.
  int finish() {
    const std::lock_guard lock(commitAndTell);
    if (!batch_.commit()) {
      client_.regStatus = kRegStatusWriteFailed;
      return kResultFailed;
    }
    const LqThreadPool::HandOver together(LqRegistryChangeMgr::callBackThreadPool);
    for (const OBGui::RegistryKeyInfo* key : changed_) changes_.HandleCallbackForRegistry(*key);
    return failed_ ? kResultFailed : kResultOk;
  }

 private:
  void write(const OBGui::RegistryKeyInfo& key, bool hasCallback) {
    std::string oldValue;
    const bool readFailed = hasCallback && !readCurrentValue(key, oldValue);
    if (client_.createRegistryKey(&key) == kResultFailed) failed_ = true;
    // Without a callback there is nobody to tell, and no need to know whether the value changed.
    if (!hasCallback || failed_) return;
    // In any letter case here, exactly in createRegistryKey: a record that says "encrypted" is stored as it
    // stands and always counts as changed, which is what modules know.
    const bool isProtected = strcasecmp(key.valueType->c_str(), ENCRYPTEDTYPE) == 0;
    const std::string newValue = isProtected ? key.encryptedValue->getV8Password() : key.value.get();
    if (readFailed || newValue != oldValue) changed_.push_back(&key);
  }

  void remove(const OBGui::RegistryKeyInfo& key, bool hasCallback) {
    // One that is only switched off changes nothing where there is nothing.
    const bool changed = hasCallback && (key.deleteFlag != 0 || client_.isRegistryKeyExists(&key));
    if (client_.deleteRegistryKey(&key) == kResultFailed) failed_ = true;
    if (!failed_ && changed) changed_.push_back(&key);
  }

  bool readCurrentValue(const OBGui::RegistryKeyInfo& key, std::string& value) {
    unsigned type = getKeyType(key.valueType);
    std::array<char, kOldValueBuffer> buffer{};
    int size = kOldValueBuffer;
    // Always below the instance root, even for a path that is absolute or begins with "~" already: such a
    // value cannot be read here, and therefore counts as changed.
    const std::string path = lqsettings::kInstanceRoot + key.keyPath.get();
    if (!client_.platformInfo.getRegValue(path, key.valueName, type, buffer.data(), size)) return false;
    value = buffer.data();
    client_.logger.DebugLvl(kLogDetail, kApplyTag, "set value = %s for key = %s", value.c_str(),
                            key.valueName->c_str());
    return true;
  }

  LqRegistryManagerClnt& client_;
  const LqRegistryChangeMgr& changes_ = *LqRegistryChangeMgr::GetInstance();
  lqregistry::WriteBatch batch_;
  std::vector<const OBGui::RegistryKeyInfo*> changed_;  // to be told, once on disk
  bool failed_ = false;
};

}  // namespace

int LqRegistryManagerClnt::updateRegistryKeysForClient(OBGui::KeyList& keys) {
  const ObEvent event;
  LqRegistryChangeMgr::GetInstance();  // starts the callback pool on first use, even for an empty list
  if (keys.empty()) {
    event.DebugLvl(kLogDetail, kApplyTag, "NO RECODRDS FOR CLIENT REGISTRY KEYS");
    return kResultOk;
  }
  if (lqregistry::IsInBatch()) {
    // Callbacks would be told of changes that the caller may still undo.
    event.Error(kApplyTag, "A key list is not applied within a write batch of its caller");
    regStatus = kRegStatusWriteFailed;
    return kResultFailed;
  }
  markExpired(keys);
  ApplyPass pass(*this);
  for (const OBGui::RegistryKeyInfo& key : keys) pass.apply(key);
  return pass.finish();
}

bool LqRegistryManagerClnt::updateRegistryAndSendResponse(OBGui::KeyList& keys,
                                                          OBGui::RegistryTaskResp& response) {
  const bool applied = updateRegistryKeysForClient(keys) == kResultOk;
  response.taskStatus = OBGui::taskStatusOf(applied);
  if (!sendWithoutReply(response))
    logger.Error("updateRegistryAndSendResponse", "Failed to send the response to the server");
  return applied;
}

unsigned LqRegistryManagerClnt::updateRegistryKeyForTPPM(App::KeyList& keys) {
  constexpr const char* kTag = "LqRegistryManagerClnt::updateRegistryKeyForTPPM";
  const ObEvent event;
  if (const char* focus = LQPI_Focus::getFocus()) platformInfo.setFocus(focus);
  event.DebugLvl(kLogMilestone, kTag, "Started updating registry for TPPM settings");
  OBGui::KeyList converted;
  AppToObGui(converted, keys);
  updateRegistryKeysForClient(converted);
  event.DebugLvl(kLogMilestone, kTag, "Completed updating registry for TPPM settings");
  // What the last registry operation left, not the apply result, so that callers can tell a missing key from
  // a failed write.
  return static_cast<unsigned>(regStatus);
}

bool LqRegistryManagerClnt::AppToObGui(OBGui::KeyList& out, const App::KeyList& in) {
  appendConverted(out, in);
  return !out.empty();
}
