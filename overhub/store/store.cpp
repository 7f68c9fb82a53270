#include "overhub/store/store.h"

#include <unistd.h>

#include "common/file_lock.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/OBGui.h"
#include "lqregistry/pstring.h"
#include "overhub/store/copy.h"
#include "overhub/store/file_access.h"
#include "overhub/store/query.h"
#include "overhub/store/schema.h"
#include "records/host_report.h"

namespace {

const std::string kKeyFact = "key";      // what tells the store's key from another
const std::string kStoreFact = "store";  // which store it is, as random as an id has to be
constexpr const char* kKeyProbe = "overhub";

std::unique_ptr<Engine> engineOf(const Store::Place& place) {
  if (place.uri.empty()) return sqliteEngine(place.directory + "/overhub.db");
  return postgresqlEngine(place.uri);
}

// The same key makes the same text of it, and nothing can be told from that.
std::string fingerprint() {
  return pstring(kKeyProbe).getV8Password();
}

void writeFact(soci::session& session, const std::string& name, const std::string& value) {
  session << "INSERT INTO facts (name, value) VALUES (:name, :value)", soci::use(name), soci::use(value);
}

}  // namespace

Store::Store(const Place& place) : Store(place.directory, engineOf(place)) {}

Store::Store(std::string directory, std::unique_ptr<Engine> engine)
    : directory_(std::move(directory)), database_(std::move(engine)) {}

std::string Store::joinFile(const std::string& client) const {
  return directory_ + "/join/" + client + ".join";
}

std::string Store::keyFile() const {
  return directory_ + "/secret.key";
}

CWmError Store::readFacts(std::string& fingerprint, std::int64_t& version) const {
  return database_.read([&](soci::session& session) -> CWmError {
    CWmError error = schema::look(session, database_.engine(), version);
    if (error.IsError()) return {kLqErrFile, place() + ": " + error.AsString()};
    if (version != 0)
      session << "SELECT value FROM facts WHERE name = :name", soci::use(kKeyFact), soci::into(fingerprint);
    return {};
  });
}

CWmError Store::checkKey(const std::string& known) const {
  CWmError error = pstring::CheckKey();
  if (error.IsError()) return error;
  if (fingerprint() == known) return {};
  return {kLqErrFile, keyFile() + " is not the key of the store " + place() +
                          "; copy the secret.key of the machine that made the store, or of its backup"};
}

CWmError Store::open() {
  CWmError error = database_.engine().check();
  // What others could have put here would be handed to every client.
  if (!error.IsError()) error = FXFile::CheckTrusted(directory_);
  if (error.IsError()) return error;
  pstring::UseKeyFile(keyFile());
  OBGui::RegisterSubsystem();
  HostReport::RegisterSubsystem();
  std::string known;
  std::int64_t version = 0;
  error = readFacts(known, version);
  if (error.IsError()) return error;
  if (version == 0)
    return {kLqErrFile, place() + ": there is no store in it; \"overhub add-client NAME\" makes one"};
  error = checkKey(known);
  if (!error.IsError() && schema::isOld(version)) error = upgrade(version);
  std::string epoch;
  if (!error.IsError()) error = beginEpoch(database_, epoch);
  notice_ += (notice_.empty() || epoch.empty() ? "" : "; ") + epoch;
  return error;
}

CWmError Store::upgrade(std::int64_t version) {
  const std::string before = std::to_string(version);
  CWmError error = database_.writeOnce(
      [&](soci::session& session) { return schema::upgrade(session, database_.engine(), version); });
  if (error.IsError())
    return {error.GetCode(), std::string(error.AsString()) + "; the store stays one of version " + before};
  notice_ = "the store was one of version " + before + " and is one of version " + std::to_string(version) +
            " from now on, which an overhub of before cannot use";
  return error;
}

CWmError Store::prepare() {
  return makeReady(false);
}

CWmError Store::prepareWithKey() {
  return makeReady(true);
}

CWmError Store::makeReady(bool mayHaveKey) {
  CWmError error = file_access::makeDirectory(directory_);
  if (!error.IsError()) error = FXFile::CheckTrusted(directory_);
  if (!error.IsError()) error = file_access::makeDirectory(directory_ + "/join");
  programs::FileLock lock;
  if (!error.IsError()) {
    lock = programs::FileLock::waitFor(directory_ + "/store.lock");
    error = lock.error();
  }
  if (!error.IsError()) error = database_.engine().prepare();
  std::string known;
  std::int64_t version = 0;
  if (!error.IsError()) error = readFacts(known, version);
  if (!error.IsError() && version == 0) error = make(mayHaveKey);
  return error.IsError() ? error : open();
}

CWmError Store::make(bool mayHaveKey) {
  // The key comes before the store, so that none is ever without one, and never after it.
  const bool hasKey = file_access::exists(keyFile());
  if (hasKey && !mayHaveKey)
    return {kLqErrFile, keyFile() + " is there, and the store that it belongs to is not in " + place() +
                            "; put the store back from a backup, or move the key away to begin anew"};
  CWmError error = hasKey ? CWmError() : pstring::CreateKeyFile(keyFile());
  if (error.IsError()) return error;
  pstring::UseKeyFile(keyFile());
  bool isOurs = false;
  error = database_.writeOnce([&](soci::session& session) -> CWmError {
    std::int64_t version = 0;
    CWmError fault = schema::look(session, database_.engine(), version);
    const bool isMade = version != 0;
    if (isMade) {
      std::string known;
      session << "SELECT value FROM facts WHERE name = :name", soci::use(kKeyFact), soci::into(known);
      isOurs = known == fingerprint();
    }
    if (fault.IsError() || isMade) return fault;
    isOurs = true;
    fault = schema::prepare(session, database_.engine());
    if (fault.IsError()) return fault;
    const std::string key = fingerprint();
    const std::string store = newSessionKeyHex();
    writeFact(session, kKeyFact, key);
    writeFact(session, kStoreFact, store);
    return {};
  });
  if (isOurs && !error.IsError()) return error;
  // Another server was faster and has a key of its own, or nothing was made.
  if (!hasKey && error.GetCode() != kLqErrConnectionLost) ::unlink(keyFile().c_str());
  if (error.IsError()) return error;
  return {kLqErrFile,
          place() + ": another server has made the store just now; copy its secret.key to " + keyFile()};
}
