// `overhub uploads`: what clients have uploaded of their registries.
#include <memory>

#include "overhub/commands/commands.h"
#include "overhub/commands/listing.h"
#include "overhub/commands/reporting.h"
#include "overhub/commands/store_place.h"
#include "overhub/store/file_access.h"
#include "overhub/store/uploads.h"
#include "records/record_rules.h"
#include "records/secret_values.h"

namespace {

constexpr const char* kFooter = R"(Examples:
  overhub uploads
  overhub uploads web-1
  overhub uploads web-1 --out web-1.xml    (for "lqreg import" on a machine)
Secrets are hidden in the list. In a file that --out writes the machine's session key stands in clear.)";

struct Uploads {
  std::string client;
  std::string file;
  bool isOneBefore = false;
  Listing list{"uploads",
               {{"CLIENT", "client", Listing::Kind::text},
                {"TIME", "time", Listing::Kind::time},
                {"KEYS", "keys", Listing::Kind::number},
                {"VALUES", "values", Listing::Kind::number},
                {"BYTES", "bytes", Listing::Kind::number}}};
  Listing values{"values",
                 {{"KEY", "path", Listing::Kind::text},
                  {"NAME", "name", Listing::Kind::text},
                  {"VALUE", "value", Listing::Kind::text}}};
};

int printUploads(const Store& store, Listing& list) {
  std::vector<Upload> found;
  const CWmError error = listUploads(store, found);
  if (error.IsError()) return storeFailed(error);
  for (const Upload& upload : found)
    list.addRow({upload.client, upload.time, upload.keys, upload.values, upload.bytes});
  list.sortBy("client");
  print(list.output());
  return kExitOk;
}

int showUpload(const Uploads& wanted, const std::string& text) {
  OBGui::RegistryTaskResp upload;
  if (std::string reason; upload.unserialize(text, &reason) != 0)
    return complain(kExitDataUnusable,
                    "the upload of " + wanted.client + " in the store is damaged: " + reason);
  Listing list = wanted.values;
  for (const OBGui::RegistryKeyInfo& record : upload.keys.get()) {
    list.addRow({keyOf(record), isKey(record) ? "" : record.valueName.get(),
                 isSecret(record) || isSecretValue(record.valueName.get(), record.value.get())
                     ? kHiddenSecret
                     : record.value.get()});
  }
  print(wanted.list.isForPrograms() ? list.json() : list.text(0));  // there are no ages in it
  return kExitOk;
}

// To a file that is not there yet.
int exportUpload(const std::string& text, const std::string& file) {
  const CWmError error = file_access::create(file, text);
  return error.IsError() ? complain(kExitRefused, std::string(error.AsString()) +
                                                      "; --out takes a file that is not there yet")
                         : kExitOk;
}

int uploads(const Store& store, Uploads& wanted) {
  if (wanted.client.empty()) return printUploads(store, wanted.list);
  std::string text;
  const WhichUpload which = wanted.isOneBefore ? WhichUpload::kOneBefore : WhichUpload::kNewest;
  const CWmError error = readUpload(store, wanted.client, which, text);
  if (error.IsError()) return storeFailed(error);
  if (text.empty())
    return complain(kExitRefused, "client " + wanted.client + " has uploaded nothing " +
                                      (wanted.isOneBefore ? "before its newest upload" : "yet") +
                                      "; \"lqhost upload\" on its machine does");
  return wanted.file.empty() ? showUpload(wanted, text) : exportUpload(text, wanted.file);
}

}  // namespace

void addUploads(programs::CommandLine& line, const Store::Place& place) {
  const auto wanted = std::make_shared<Uploads>();
  auto options = line.add("uploads", "List what clients have uploaded of their registries",
                          onStore(place, [wanted](const Store& store) { return uploads(store, *wanted); }));
  options.option("CLIENT", wanted->client, "Show what this one has uploaded")
      .option("--out FILE", wanted->file, "Write it to this file instead, which must not be there yet")
      .needs("CLIENT")
      .flag("--previous", wanted->isOneBefore, "Not its newest upload, but the one before")
      .needs("CLIENT");
  wanted->list.describe(options);
  options.footer(kFooter);
}
