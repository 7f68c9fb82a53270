#include "overhub/store/uploads.h"

#include <algorithm>
#include <cstring>  // explicit_bzero

#include "lqregistry/pstring.h"
#include "overhub/store/clients.h"
#include "overhub/store/query.h"
#include "records/record_rules.h"

namespace {

using soci::into;
using soci::use;

}  // namespace

CWmError describeUpload(const Store& store, const OBGui::RegistryTaskResp& message, Upload& upload,
                        std::string& protectedText) {
  std::string text;
  protectedText.clear();
  if (message.serializeForPeople(text) == 0) protectedText = pstring(text).getV8Password();
  explicit_bzero(text.data(), text.size());
  if (protectedText.empty())
    return {kLqErrFile, "the upload of " + upload.client +
                            " is not stored, since it cannot be protected with " + store.keyFile()};
  upload.bytes = static_cast<std::int64_t>(text.size());
  upload.keys = static_cast<std::int64_t>(std::count_if(message.keys->begin(), message.keys->end(), isKey));
  upload.values = static_cast<std::int64_t>(message.keys->size()) - upload.keys;
  return {};
}

void keepUpload(soci::session& session, std::int64_t clientId, const Upload& upload,
                const std::string& protectedText) {
  std::int64_t number = 0;
  session << "SELECT COALESCE(MAX(number), 0) + 1 FROM uploads WHERE client = :client",
      use(clientId, "client"), into(number);
  session << "INSERT INTO uploads (client, number, time, key_count, value_count, bytes, text) VALUES"
             " (:client, :number, :time, :keys, :values, :bytes, :text)",
      use(clientId, "client"), use(number, "number"), use(upload.time, "time"), use(upload.keys, "keys"),
      use(upload.values, "values"), use(upload.bytes, "bytes"), use(protectedText, "text");
  const std::int64_t last = number - 2;
  session << "DELETE FROM uploads WHERE client = :client AND number <= :last", use(clientId, "client"),
      use(last, "last");
}

CWmError addUpload(const Store& store, const std::string& name, const OBGui::RegistryTaskResp& message) {
  Upload upload;
  upload.client = name;
  std::string text;
  CWmError error = describeUpload(store, message, upload, text);
  if (error.IsError()) return error;
  const Database& database = store.database();
  return database.write([&](soci::session& session) -> CWmError {
    const auto client = findClient(session, name);
    if (!client) return {kLqErrRequestRefused, "there is no client \"" + name + "\""};
    if (message.client->clientId.get() != static_cast<std::int32_t>(client->id)) {
      return {kLqErrRequestRefused, "unknown client id " + std::to_string(message.client->clientId.get()) +
                                        ": " + name + " is client " + std::to_string(client->id)};
    }
    upload.time = database.now(session);
    session << "UPDATE contacts SET last_seen = :now WHERE client = :client", use(upload.time, "now"),
        use(client->id, "client");
    keepUpload(session, client->id, upload, text);
    return {};
  });
}

CWmError listUploads(const Store& store, std::vector<Upload>& uploads) {
  return store.database().read([&](soci::session& session) -> CWmError {
    uploads.clear();
    Upload row;
    forEachRow(
        session,
        "SELECT c.name, u.time, u.key_count, u.value_count, u.bytes FROM uploads u JOIN clients c ON"
        " c.id = u.client WHERE u.number = (SELECT MAX(number) FROM uploads n WHERE n.client = u.client)",
        [&] { uploads.push_back(row); }, into(row.client), into(row.time), into(row.keys), into(row.values),
        into(row.bytes));
    return {};
  });
}

CWmError readUpload(const Store& store, const std::string& name, WhichUpload which, std::string& text) {
  const std::int64_t newer = which == WhichUpload::kNewest ? 0 : 1;
  std::string protectedText;
  CWmError error = store.database().read([&](soci::session& session) -> CWmError {
    protectedText.clear();
    const auto client = findClient(session, name);
    if (!client) return {kLqErrRequestRefused, "there is no client \"" + name + "\""};
    session << "SELECT text FROM uploads WHERE client = :client ORDER BY number DESC LIMIT 1 OFFSET :newer",
        use(client->id, "client"), use(newer, "newer"), into(protectedText);
    return {};
  });
  if (error.IsError()) return error;
  pstring opened;
  if (!pstring::fromV8Password(protectedText, opened))
    return {kLqErrFile, "the upload of " + name +
                            " in the store is damaged, or was protected with another key than " +
                            store.keyFile()};
  text = opened.reveal();
  return {};
}
