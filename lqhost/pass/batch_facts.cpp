#include "lqhost/pass/batch_facts.h"

#include <cstring>  // explicit_bzero

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"
#include "records/batch_digest.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace host {

namespace {

std::string digestOf(const OBGui::KeyList& batch) {
  std::string hex;
  std::string key;
  std::string digest;
  if (LQPlatformInfo().getString(lqsettings::kSessionKey.key, lqsettings::kSessionKey.name, hex) &&
      sessionKeyFromHex(hex, key))
    digest = batchDigest(batch, key);
  explicit_bzero(hex.data(), hex.size());
  explicit_bzero(key.data(), key.size());
  return digest;
}

RecordProblem problemOf(const OBGui::RegistryKeyInfo& record, FailureReason reason) {
  return {normalisedKeyPath(record.keyPath), record.valueName, std::move(reason)};
}

// A read gives a value with a NUL after it.
bool isTooLong(const OBGui::RegistryKeyInfo& record) {
  return !isKey(record) && !isToBeRemoved(record) && record.value->size() >= kValueBuffer;
}

}  // namespace

BatchFacts factsOf(const OBGui::KeyList& batch) {
  BatchFacts facts;
  facts.records = batch.size();
  facts.digest = digestOf(batch);
  for (const OBGui::RegistryKeyInfo& record : batch) {
    if (FailureReason refused = whyRefused(record); *refused.kind != '\0') {
      facts.refused.push_back(problemOf(record, std::move(refused)));
    } else if (isTooLong(record)) {
      facts.tooLong.push_back(problemOf(
          record,
          {kTooLong, "the value has " + std::to_string(record.value->size()) + " bytes; modules read " +
                         std::to_string(kValueBuffer - 1) + " at most, and find no value"}));
    } else if (isProtected(record) && !isToBeRemoved(record)) {
      facts.secrets.push_back(problemOf(record, {}));
    }
  }
  return facts;
}

}  // namespace host
