#include "lqhost/pass/failure_reason.h"

#include "records/record_rules.h"
#include "records/secret_values.h"

namespace host {

FailureReason reasonOf(const RegistryWrites::Failure& failure) {
  using enum lqregistry::WriteFault;
  switch (failure.fault) {
    case kBadName:
      return {host::kBadName, "the registry does not take this name or path: " + failure.reason};
    case kReadOnly:
      return {host::kReadOnly, "the registry may only be read: " + failure.reason};
    case kFull:
      return {kDiskFull, "there is no room for it, or the disk takes no writes: " + failure.reason};
    case kLocked:
      return {host::kLocked, "another process keeps the registry locked: " + failure.reason};
    case kDamaged:
      return {host::kDamaged, "the registry is damaged: " + failure.reason};
    case kNone:
    case kOther:
      break;
  }
  return {kRegistry, "the registry cannot be written: " + failure.reason};
}

FailureReason whyUnprotected() {
  const CWmError error = pstring::CheckKey();
  if (!error.IsError()) return {};
  return {kProtection, std::string("protected values cannot be written: ") + error.AsString()};
}

FailureReason whyRefused(const OBGui::RegistryKeyInfo& record) {
  const bool isRemoval = isToBeRemoved(record);
  if (record.valueName->empty())
    return isRemoval ? FailureReason{kNoName, "a record without a name cannot be removed"} : FailureReason{};
  if (isKey(record) && !isRemoval && !isCreatableKey(record))
    return {kForbidden, "keys may not be created remotely"};
  return {};
}

FailureReason whyFailed(const OBGui::RegistryKeyInfo& record, const RegistryWrites& writes) {
  FailureReason refused = whyRefused(record);
  if (*refused.kind != '\0') return refused;
  if (const auto failure = writes.failed.find(writtenPlaceOf(record)); failure != writes.failed.end())
    return reasonOf(failure->second);
  if (isProtected(record)) {
    if (record.encryptedValue->isUnreadable())
      return {kProtection, "it was protected with another key than this machine's, or altered"};
    if (FailureReason reason = whyUnprotected(); *reason.kind != '\0') return reason;
  }
  if (writes.lost) return reasonOf(*writes.lost);
  return {kOverridden, "it was applied, and something on this machine has changed it since"};
}

}  // namespace host
