// `lqreg import`: writes a batch of key records, as export or a client's upload leaves it, into the registry.
//
// The whole batch is checked before anything is written, and then written as one transaction. Its paths are
// below the root of the instance, also one that begins with "SOFTWARE": a file that came from elsewhere
// cannot reach other parts of the registry.
#include <algorithm>
#include <memory>

#include "common/machine_identity.h"
#include "lqreg/commands/commands.h"
#include "lqreg/commands/reporting.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/OBGui.h"
#include "records/record_rules.h"

using lqsettings::kInstanceRoot;

namespace {

// Asked for to learn of a key whether it is there; whether it has such a value does not matter.
constexpr const char* kProbe = "probe";

// A record that does not say whether it is enabled counts as such. What identifies the machine is up to
// `lqhost join`.
bool isSkipped(const OBGui::RegistryKeyInfo& record) {
  if (!isKey(record) && programs::isMachineIdentity(record.keyPath.get(), record.valueName.get()))
    return true;
  return record.deleteFlag == 1 || (record.enabledFlag.isSet() && record.enabledFlag == 0);
}

// The same key as keyOf gives, as this instance's registry takes it: below its root, whatever it begins with.
std::string placeOf(const OBGui::RegistryKeyInfo& record) {
  const std::string& path = record.keyPath;
  const std::string holder = path.starts_with(kInstanceRoot) ? path : subKeyPath(kInstanceRoot, path);
  return isKey(record) ? subKeyPath(holder, record.valueName) : holder;
}

class Import {
 public:
  Import(LQPlatformInfo& registry, const OBGui::KeyList& records) : registry_(registry), records_(records) {}

  // Whether every record can be written; the error names the first that cannot.
  CWmError check() {
    for (std::size_t i = 0; i < records_.size(); ++i) {
      if (isSkipped(records_[i])) continue;
      const CWmError error = checkRecord(records_[i]);
      if (error.IsError())
        return {error.GetCode(), "record " + std::to_string(i + 1) + ": " + error.AsString()};
    }
    return {};
  }

  // Writes the records; false at the first that fails, for which the registry object has the error.
  [[nodiscard]] bool write() {
    return std::all_of(records_.begin(), records_.end(),
                       [this](const auto& record) { return write(record); });
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
    const bool isRead =
        registry_.getString(placeOf(record), hasKey ? kProbe : record.valueName.get(), current);
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

  CWmError checkRecord(const OBGui::RegistryKeyInfo& record) {
    const bool isProtected = record.valueType.get() == ENCRYPTEDTYPE;
    const std::string data = dataOf(record);
    if (record.valueName->empty()) return {kLqErrFile, "the name is empty"};
    if (isProtected && record.encryptedValue->isUnreadable())
      return {kLqErrFile, "the value was not protected with this machine's key"};
    if (isProtected && data.empty() && !record.encryptedValue->empty())
      return {kLqErrFile, std::string("the value cannot be protected: ") + pstring::CheckKey().AsString()};
    if (find(record, data) == Found::kRefused) return {kLqErrFile, registry_.getRegErrorText()};
    return {};
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
      return registry_.createRegKey(placeOf(record));
    }
    ++values_;
    return registry_.setString(placeOf(record), record.valueName, data, 0) != 0;
  }

  LQPlatformInfo& registry_;
  const OBGui::KeyList& records_;
  std::size_t keys_ = 0;
  std::size_t values_ = 0;
  std::size_t unchanged_ = 0;
  std::size_t skipped_ = 0;
};

CWmError readBatch(const std::string& file, OBGui::RegistryTaskResp& batch) {
  std::string text;
  if (CWmError error = FXFile::ReadContents(file, text); error.IsError()) return error;
  OBGui::RegisterSubsystem();
  std::string why;
  if (batch.unserialize(text, &why) != 0) return {kLqErrBadMessage, file + ": " + why};
  return {};
}

// What the batch does not name stays as it is.
int importFrom(LQPlatformInfo& registry, const std::string& file) {
  if (!hasInstance(registry)) return kExitUsage;
  OBGui::RegistryTaskResp batch;
  if (const CWmError error = readBatch(file, batch); error.IsError())
    return complain(kExitFile, std::string(error.AsString()) + "; nothing was written");
  Import import(registry, batch.keys);
  if (const CWmError error = import.check(); error.IsError()) {
    if (registry.getRegError() == kRegUnavailable) return refused(registry, kInstanceRoot);
    return complain(kExitFile, file + ": " + error.AsString() + "; nothing was written");
  }
  lqregistry::WriteBatch transaction;
  const int exitCode = import.write() ? kExitDone : refused(registry, kInstanceRoot);
  if (!transaction.commit() || exitCode != kExitDone) {
    return complain(kExitUnavailable, "the registry file " + lqregistry::File() +
                                          " could not be written to the end; repeat the import, which does "
                                          "no harm");
  }
  print(import.summary() + "\n");
  return kExitDone;
}

}  // namespace

void addImport(programs::CommandLine& line, LQPlatformInfo& registry) {
  const auto file = std::make_shared<std::string>();
  line.add("import", "Write the keys and values of a file into the instance",
           [&registry, file] { return importFrom(registry, *file); })
      .required("FILE", *file, "A file that export wrote, or a client's upload");
}
