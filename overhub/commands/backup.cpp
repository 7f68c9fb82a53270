// `overhub backup`: a copy of the store with its key.
#include <memory>

#include "lqregistry/UtcText.h"
#include "overhub/commands/commands.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/store/copy.h"

namespace {

constexpr const char* kFooter =
    R"(The server and other commands may run meanwhile. FILE.key is the key that protects the secrets in FILE: whoever
has both has them all, so keep them as safe as the store, and neither without the other.

To restore, stop every server of the store and put the two where they were:
  rm -f DIR/overhub.db-wal DIR/overhub.db-shm
  install -m 0600 FILE DIR/overhub.db && install -m 0600 FILE.key DIR/secret.key
The next command says that it found a restored copy: revisions and ids of clients go on behind a gap, and every
client is handed removals until the store knows again what it holds. Clients added after the backup join anew.)";

// A name in a shell's command.
std::string inQuotes(const std::string& text) {
  std::string result = "'";
  for (const char byte : text) result += byte == '\'' ? std::string("'\\''") : std::string(1, byte);
  return result + "'";
}

// The database has tools of its own, which know more of it.
int nameTools(const Store& store, const std::string& file) {
  std::int64_t now = 0;
  const CWmError error = store.database().read([&](soci::session& session) {
    now = store.database().now(session);
    return CWmError();
  });
  if (error.IsError()) return storeFailed(error);
  const std::string uri = inQuotes(store.place());
  warn("the store is in PostgreSQL, which copies it; these commands do, and nothing was copied yet:");
  print("pg_dump --format=custom --no-owner --file=" + inQuotes(file) + " --dbname=" + uri + "\n" +
        "install -m 0600 " + inQuotes(store.keyFile()) + " " + inQuotes(keyOfCopy(file)) + "\n" +
        "# to restore, into an empty database, and before any server is started on it:\n" +
        "pg_restore --single-transaction --no-owner --dbname=" + uri + " " + inQuotes(file) + "\n" +
        "psql --dbname=" + uri + " --command=\"INSERT INTO facts VALUES ('copy', '" + lqtext::utcText(now) +
        "')\"\n");
  return kExitRefused;
}

int backup(const Store& store, bool isFile, const std::string& file) {
  if (!isFile) return nameTools(store, file);
  const CWmError error = copyStore(store, file);
  if (error.IsError()) return storeFailed(error);
  print(file + " is a copy of the store, " + keyOfCopy(file) + " of its key\n");
  return kExitOk;
}

}  // namespace

void addBackup(programs::CommandLine& line, const Store::Place& place) {
  const auto file = std::make_shared<std::string>();
  line.add("backup", "Copy the store, which may be in use, with its key",
           onStore(place,
                   [file, &place](const Store& store) { return backup(store, place.uri.empty(), *file); }))
      .required("FILE", *file, "A file that is not there yet; the key goes into FILE.key")
      .footer(kFooter);
}
