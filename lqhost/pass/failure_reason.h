// Why a record could not be applied: a word that programs go by, and a text for people.
#pragma once

#include <string>

#include "lqhost/pass/registry_writes.h"

namespace host {

// The words; docs/wire.md explains each. Those of the machine as a whole have no record.
inline constexpr const char* kForbidden = "forbidden";
inline constexpr const char* kNoName = "noName";
inline constexpr const char* kBadName = "badName";
inline constexpr const char* kTooLong = "tooLong";
inline constexpr const char* kReadOnly = "readOnly";
inline constexpr const char* kDiskFull = "diskFull";
inline constexpr const char* kLocked = "locked";
inline constexpr const char* kDamaged = "damaged";
inline constexpr const char* kRegistry = "registry";
inline constexpr const char* kProtection = "protection";
inline constexpr const char* kOverridden = "overridden";
inline constexpr const char* kCacheLostProblem = "cacheLost";
inline constexpr const char* kCacheKeptProblem = "cacheKept";
inline constexpr const char* kCacheUnreadableProblem = "cacheUnreadable";
inline constexpr const char* kUnknown = "unknown";

struct FailureReason {
  const char* kind = "";  // empty: there is none
  std::string text;
};

FailureReason reasonOf(const RegistryWrites::Failure& failure);

// Why this machine cannot protect values, or open protected ones; no kind when it can.
FailureReason whyUnprotected();

// What applying refuses whatever the registry is like; no kind for any other record. `record` has been
// through markExpired, or is taken as it came.
FailureReason whyRefused(const OBGui::RegistryKeyInfo& record);

// Why the registry does not hold what this record of a batch asks for, after the pass that made these writes.
FailureReason whyFailed(const OBGui::RegistryKeyInfo& record, const RegistryWrites& writes);

}  // namespace host
