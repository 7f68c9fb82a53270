#include "overhub/store/client_ids.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "lqregistry/LQClient.h"

namespace {

constexpr const char* kHighest = "highest";
constexpr auto kServerId = static_cast<std::int64_t>(kServerClientId);

// What the file holds up to the end of its first line; empty when there is none.
std::string firstLine(const std::string& file) {
  std::string text;
  if (!file_access::exists(file) || file_access::readWhole(file, text).IsError()) return {};
  return text.substr(0, text.find('\n'));
}

// The id in the client's batch; one that cannot be read is false, and its fault joins those in `skipped`.
bool readId(const DataStore& store, const std::string& client, std::int64_t& id, std::string& skipped) {
  OBGui::RegistryTaskResp batch;
  const CWmError error = store.readBatch(client, batch);
  if (error.IsError()) {
    skipped += (skipped.empty() ? "" : "; ") + std::string(error.AsString());
    return false;
  }
  id = batch.client->clientId;
  return true;
}

CWmError refused(std::string why) {
  return {kLqErrRequestRefused, std::move(why)};
}

}  // namespace

CWmError ClientIds::load(std::string& skipped) {
  const std::string text = firstLine(store_.idFile(kHighest));
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), highest_);
  if (fault == std::errc() && end == text.data() + text.size() && highest_ >= kServerId) return {};
  return rebuild(skipped);
}

CWmError ClientIds::choose(std::optional<std::int64_t> wanted, std::int64_t& id) const {
  if (!wanted) {
    if (highest_ == std::numeric_limits<std::int64_t>::max())
      return refused("the highest id is in use; choose a free one with --id");
    id = highest_ + 1;
    return {};
  }
  id = *wanted;
  if (id == kServerId) return refused("the id " + std::to_string(id) + " is the management server's own");
  const std::string name = owner(id);
  if (!name.empty()) return refused("client " + name + " has the id " + std::to_string(id) + " already");
  return {};
}

// The client that has the id; empty when none has.
std::string ClientIds::owner(std::int64_t id) const {
  const std::string name = firstLine(store_.idFile(std::to_string(id)));
  if (!store_.hasClient(name)) return {};
  // A registration that broke off, or a person, may have left the id behind.
  OBGui::RegistryTaskResp batch;
  const bool isOther = !store_.readBatch(name, batch).IsError() && batch.client->clientId != id;
  return isOther ? "" : name;
}

CWmError ClientIds::assign(std::int64_t id, const std::string& client) {
  CWmError error = file_access::replace(store_.idFile(std::to_string(id)), client + '\n');
  if (error.IsError() || id <= highest_) return error;
  highest_ = id;
  return writeHighest();
}

// The highest id is written last, as the sign that all is there.
CWmError ClientIds::rebuild(std::string& skipped) {
  highest_ = kServerId;
  std::vector<std::string> names;
  CWmError error = store_.clientNames(names);
  for (const std::string& name : names) {
    std::int64_t id = 0;
    if (!readId(store_, name, id, skipped)) continue;
    if (!error.IsError()) error = file_access::replace(store_.idFile(std::to_string(id)), name + '\n');
    highest_ = std::max(highest_, id);
  }
  return error.IsError() ? error : writeHighest();
}

CWmError ClientIds::writeHighest() const {
  return file_access::replace(store_.idFile(kHighest), std::to_string(highest_) + '\n');
}
