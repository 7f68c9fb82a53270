// lqreg import: writes a batch of key records, as export or a client's upload leaves it, into the registry.
//
// The whole batch is checked before anything is written, and then written as one transaction. Its paths are
// below the root of the instance, also one that begins with "SOFTWARE": a file that came from elsewhere
// cannot reach other parts of the registry.
#include <unistd.h>

#include <cstdio>

#include "common/machine_identity.h"
#include "common/whole_file.h"
#include "lqreg/registry_commands.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/OBGui.h"
#include "records/key_records.h"

namespace {

constexpr const char* kRoot = "~";
constexpr const char* kBelowRoot = "~/";
constexpr std::size_t kProgressStep = 5000;
constexpr const char* kClearLine = "\r\x1b[K";
// Asked for to learn of a key whether it is there; whether it has such a value does not matter.
constexpr const char* kProbe = "probe";

bool isKey(const OBGui::RegistryKeyInfo& record) {
  return record.valueType.get() == KEYTYPE;
}

// A record that does not say whether it is enabled is. What says which machine it is belongs to `lqhost
// join`.
bool isSkipped(const OBGui::RegistryKeyInfo& record) {
  if (!isKey(record) && programs::isMachineIdentity(record.keyPath.get(), record.valueName.get()))
    return true;
  return record.deleteFlag == 1 || (record.enabledFlag.isSet() && record.enabledFlag == 0);
}

// The key that the record names, or that holds its value.
std::string keyOf(const OBGui::RegistryKeyInfo& record) {
  const std::string& path = record.keyPath;
  const std::string holder = path.starts_with(kRoot) ? path : kBelowRoot + path;
  return isKey(record) ? holder + '/' + record.valueName.get() : holder;
}

class Import {
 public:
  Import(LQPlatformInfo& registry, const OBGui::KeyList& records) : registry_(registry), records_(records) {}

  // Whether every record can be written. On a false, `record` is the one that cannot and `reason` says why.
  bool check(std::size_t& record, std::string& reason) {
    for (record = 0; record < records_.size(); ++record)
      if (!isSkipped(records_[record]) && !isWritable(records_[record], reason)) return false;
    return true;
  }

  // Writes the records; false at the first that fails, for which the registry object has the error.
  bool write() {
    std::size_t done = 0;
    while (done < records_.size() && write(records_[done])) {
      ++done;
      if (isOnTerminal_ && done % kProgressStep == 0)
        std::fprintf(stderr, "%s%zu of %zu records", kClearLine, done, records_.size());
    }
    if (isOnTerminal_) std::fputs(kClearLine, stderr);
    return done == records_.size();
  }

  std::string summary() const {
    return std::to_string(keys_) + " keys and " + std::to_string(values_) + " values written, " +
           std::to_string(unchanged_) + " unchanged, " + std::to_string(skipped_) +
           " skipped (marked for removal, or saying which machine it is)";
  }

 private:
  enum class Found { kSame, kOther, kRefused };

  static std::string dataOf(const OBGui::RegistryKeyInfo& record) {
    return record.valueType.get() == ENCRYPTEDTYPE ? record.encryptedValue->getV8Password()
                                                   : record.value.get();
  }

  // What the registry holds in the record's place.
  Found find(const OBGui::RegistryKeyInfo& record, const std::string& data) {
    const bool hasKey = isKey(record);
    std::string current;
    const bool isRead = registry_.getString(keyOf(record), hasKey ? kProbe : record.valueName.get(), current);
    if (isRead) return hasKey || current == data ? Found::kSame : Found::kOther;
    switch (registry_.getRegError()) {
      case kRegValueMissing:
        return hasKey ? Found::kSame : Found::kOther;
      case kRegKeyMissing:
        return Found::kOther;
      default:
        return Found::kRefused;
    }
  }

  bool isWritable(const OBGui::RegistryKeyInfo& record, std::string& reason) {
    const bool isProtected = record.valueType.get() == ENCRYPTEDTYPE;
    const std::string data = dataOf(record);
    if (record.valueName->empty()) {
      reason = "the name is empty";
    } else if (isProtected && record.encryptedValue->isUnreadable()) {
      reason = "the value was not protected with this machine's key";
    } else if (isProtected && data.empty() && !record.encryptedValue->empty()) {
      pstring::CheckKey(reason);
      reason = "the value cannot be protected: " + reason;
    } else if (find(record, data) == Found::kRefused) {
      reason = registry_.getRegErrorText();
    } else {
      return true;
    }
    return false;
  }

  bool write(const OBGui::RegistryKeyInfo& record) {
    if (isSkipped(record)) {
      ++skipped_;
      return true;
    }
    const std::string data = dataOf(record);
    if (find(record, data) == Found::kSame) {
      ++unchanged_;
      return true;
    }
    if (isKey(record)) {
      ++keys_;
      return registry_.createRegKey(keyOf(record));
    }
    ++values_;
    return registry_.setString(keyOf(record), record.valueName, data, 0) != 0;
  }

  LQPlatformInfo& registry_;
  const OBGui::KeyList& records_;
  std::size_t keys_ = 0;
  std::size_t values_ = 0;
  std::size_t unchanged_ = 0;
  std::size_t skipped_ = 0;
  const bool isOnTerminal_ = isatty(STDERR_FILENO) != 0;
};

bool readBatch(const std::string& file, OBGui::RegistryTaskResp& batch, std::string& reason) {
  std::string text;
  const CWmError error = programs::readWholeFile(file, text);
  OBGui::RegisterSubsystem();
  if (error.IsError()) {
    reason = error.AsString();
  } else if (batch.unserialize(text, &reason) != 0) {
    reason = file + ": " + reason;
  }
  return reason.empty();
}

}  // namespace

int RegistryCommands::importFrom(const std::string& file) {
  if (!hasInstance()) return kExitUsage;
  OBGui::RegistryTaskResp batch;
  std::string reason;
  if (!readBatch(file, batch, reason)) {
    complainAbout(reason + "; nothing was written");
    return kExitFile;
  }
  Import import(registry_, batch.keys);
  std::size_t record = 0;
  if (!import.check(record, reason)) {
    if (registry_.getRegError() == kRegUnavailable) return complain(kRoot);
    complainAbout(file + ": record " + std::to_string(record + 1) + ": " + reason + "; nothing was written");
    return kExitFile;
  }
  lqregistry::WriteBatch transaction;
  const bool isWritten = import.write();
  if (!isWritten) complain(kRoot);
  if (!transaction.commit() || !isWritten) {
    complainAbout("the registry file " + lqregistry::File() +
                  " could not be written to the end; repeat the import, which does no harm");
    return kExitUnavailable;
  }
  std::printf("%s\n", import.summary().c_str());
  return kExitDone;
}
