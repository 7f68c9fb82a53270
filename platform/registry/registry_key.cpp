#include "platform/registry/registry_key.h"

#include "lqregistry/LqRegistryFile.h"
#include "platform/registry/registry_connection.h"
#include "platform/secret/protection_key.h"

namespace lqregistry {

namespace {

constexpr const char* kKeySuffix = ".key";
constexpr std::chrono::milliseconds kWait{5000};

// Over a connection of its own, since it is asked in the middle of write batches as well. What it reads never
// changes once it is there.
lqsecret::KeyFacts describeKey(lqsecret::KeyUse use) {
  const std::string file = File();
  lqsecret::KeyFacts facts{keyFileOf(file), file, {}, {}};
  Connection connection;
  const Access access = use == lqsecret::KeyUse::kProtect ? Access::kWriting : Access::kReading;
  const Outcome outcome = connection.open(file, access, kWait);
  if (outcome.ok()) {
    facts.fingerprint = connection.keyFingerprint();
  } else if (outcome.code == kRegKeyMissing) {
    facts.problem = file + ": " + outcome.reason + ", so no protection key belongs to it";
    if (lqsecret::keyFileExists(facts.path))
      facts.problem += "; put back the registry that " + facts.path + " was made with";
  } else {
    facts.problem = file + ": " + outcome.reason;
  }
  return facts;
}

// Named when the library is loaded, before anybody can need a key.
const bool isSourceNamed = [] {
  lqsecret::setKeySource(&describeKey);
  return true;
}();

}  // namespace

std::string keyFileOf(const std::string& registryFile) {
  return registryFile + kKeySuffix;
}

}  // namespace lqregistry
