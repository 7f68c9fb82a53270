// `lqreg export`: the instance's registry as a batch of key records.
//
// The batch is what a client uploads to its server, so that a file from either source can be imported: for
// each key below the root a "KEY" record and then its values, with paths relative to the root.
#include <memory>

#include "lqreg/commands/commands.h"
#include "lqreg/commands/key_walk.h"
#include "lqreg/commands/reporting.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/OBGui.h"
#include "records/record_rules.h"

using lqsettings::kInstanceRoot;

namespace {

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
  if (path == kInstanceRoot) return {};
  std::string relative = path.substr(subKeyPath(kInstanceRoot, "").size());
  return relative.starts_with(kInstanceRoot) || relative.starts_with(lqsettings::kAbsoluteRoot) ? path
                                                                                                : relative;
}

void append(OBGui::KeyList& records, const WalkedKey& key) {
  if (key.depth != 0) {
    const std::string parent = key.path.substr(0, key.path.size() - key.name.size() - 1);
    records.push_back(recordOf(relativePath(parent), key.name, KEYTYPE, ""));
  }
  const std::string path = relativePath(key.path);
  for (const auto& [name, data] : key.values) records.push_back(recordOf(path, name, STRINGTYPE, data));
}

// To standard output when `file` is empty.
int exportTo(LQPlatformInfo& registry, const std::string& file) {
  if (!hasInstance(registry)) return kExitUsage;
  OBGui::RegistryTaskResp batch;
  batch.taskStatus = OBGui::kTaskUpload;
  OBGui::KeyList& records = batch.keys.edit();
  if (!walkKeys(registry, kInstanceRoot, [&records](const WalkedKey& key) { append(records, key); }))
    return refused(registry, kInstanceRoot);

  std::string text;
  if (batch.serializeForPeople(text) != 0)
    return complain(kExitUnavailable, "not enough memory for the export");
  if (file.empty()) {
    print(text);
    return kExitDone;
  }
  const CWmError error = FXFile::ReplaceContents(file, text);
  return error.IsError() ? complain(kExitFile, error.AsString()) : kExitDone;
}

}  // namespace

void addExport(programs::CommandLine& line, LQPlatformInfo& registry) {
  const auto file = std::make_shared<std::string>();
  line.add("export", "Write all keys and values of the instance to a file",
           [&registry, file] { return exportTo(registry, *file); })
      .option("FILE", *file, "The file, replaced if it is there; without it, standard output");
}
