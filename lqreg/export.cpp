// lqreg export: the instance's registry as a batch of key records.
//
// The batch is what a client uploads to its server, so that a file from either source can be imported: for
// each key below the root a "KEY" record and then its values, with paths relative to the root.
#include <cstdio>
#include <string_view>

#include "common/whole_file.h"
#include "lqreg/key_walk.h"
#include "lqreg/registry_commands.h"
#include "lqregistry/OBGui.h"
#include "records/key_records.h"

namespace {

constexpr const char* kRoot = "~";
constexpr std::string_view kBelowRoot = "~/";
constexpr const char* kAbsoluteRoot = "SOFTWARE";
constexpr const char* kValueType = "STRING";

OBGui::RegistryKeyInfo recordOf(std::string keyPath, const std::string& name, const char* type,
                                const std::string& value) {
  OBGui::RegistryKeyInfo record;
  record.keyPath = std::move(keyPath);
  record.valueName = name;
  record.valueType = type;
  record.value = value;
  record.deleteFlag = 0;
  record.enabledFlag = 1;
  return record;
}

// A walked key's path relative to the root; it keeps the root's sign where it would be taken for another path
// without it.
std::string relativePath(const std::string& path) {
  if (path == kRoot) return {};
  std::string relative = path.substr(kBelowRoot.size());
  return relative.starts_with(kRoot) || relative.starts_with(kAbsoluteRoot) ? path : relative;
}

void append(OBGui::KeyList& records, const WalkedKey& key) {
  if (key.depth != 0) {
    const std::string parent = key.path.substr(0, key.path.size() - key.name.size() - 1);
    records.push_back(recordOf(relativePath(parent), key.name, KEYTYPE, ""));
  }
  const std::string path = relativePath(key.path);
  for (const auto& [name, data] : key.values) records.push_back(recordOf(path, name, kValueType, data));
}

bool printWhole(const std::string& text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

}  // namespace

int RegistryCommands::exportTo(const std::string& file) {
  if (!hasInstance()) return kExitUsage;
  OBGui::RegistryTaskResp batch;
  batch.taskStatus = OBGui::kTaskUpload;
  OBGui::KeyList& records = batch.keys.edit();
  if (!walkKeys(registry_, kRoot, [&records](const WalkedKey& key) { append(records, key); }))
    return complain(kRoot);

  std::string text;
  if (batch.serializeForPeople(text) != 0) {
    complainAbout("not enough memory for the export");
    return kExitUnavailable;
  }
  if (file.empty()) {
    if (printWhole(text)) return kExitDone;
    complainAbout("the export could not be written to standard output");
    return kExitFile;
  }
  const CWmError error = programs::replaceWholeFile(file, text);
  if (!error.IsError()) return kExitDone;
  complainAbout(error.AsString());
  return kExitFile;
}
