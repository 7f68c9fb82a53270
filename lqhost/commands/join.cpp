// `lqhost join`: reads the join file that the server's administrator handed over, and writes what a client
// needs to know into the registry.
#include <unistd.h>

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "common/host_name.h"
#include "common/join_file.h"
#include "common/terminal_text.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/pass/cached_settings.h"
#include "lqhost/rollback/standing_memory.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqPassLock.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"

namespace host {

namespace {

// Where the installation lies and what the machine is called; empty texts stand for the defaults.
struct JoinOptions {
  std::string file;
  std::string home;     // installation home; default kDefaultHome
  std::string base;     // base directory; default the folder "Base" of the home
  std::string machine;  // physical machine name; default the system's host name
  std::string host;     // client host name; default the machine name
};

constexpr const char* kDefaultHome = "/opt/velmor";
constexpr const char* kBaseFolder = "Base";

CWmError makeDirectory(const std::string& path) {
  std::error_code failure;
  std::filesystem::create_directories(path, failure);
  if (failure) return {kLqErrFile, "cannot create the directory " + path + ": " + failure.message()};
  // What lies there is loaded, applied and believed later on.
  return FXFile::CheckTrusted(path);
}

// As it stands when the working directory is gone.
std::string absolutePath(const std::string& path) {
  std::error_code failure;
  const auto absolute = std::filesystem::absolute(path, failure);
  return failure ? path : absolute.lexically_normal().string();
}

void fillDefaults(JoinOptions& options) {
  if (options.home.empty()) options.home = kDefaultHome;
  options.home = absolutePath(options.home);
  if (options.base.empty()) options.base = options.home + "/" + kBaseFolder;
  options.base = absolutePath(options.base);
  if (options.machine.empty()) options.machine = programs::ownHostName();
  if (options.machine.empty()) options.machine = "localhost";
  if (options.host.empty()) options.host = options.machine;
}

// One value that joining writes.
struct Written {
  std::string key;
  const char* name;
  std::string value;

  Written(std::string keyPath, const char* valueName, std::string data)
      : key(std::move(keyPath)), name(valueName), value(std::move(data)) {}
  Written(const lqsettings::Setting& setting, std::string data)
      : Written(setting.key, setting.name, std::move(data)) {}
};

std::vector<Written> settingsOf(const programs::JoinFile& file, const JoinOptions& options) {
  return {
      {lqsettings::kServerHost, file.serverHost},
      {lqsettings::kServerName, file.serverName},
      {lqsettings::kSessionIdentity, file.clientName},
      {lqsettings::kSessionKey, file.sessionKeyHex},
      {lqsettings::kPhysicalMachine, options.machine},
      {lqsettings::kHostName, options.host},
      {lqsettings::kPlatformType, std::to_string(kPlatformUnix)},
      {std::string(lqsettings::kHostsKey) + "/" + options.host, lqsettings::kClientOfHost, file.clientName},
      {lqsettings::kVelmorHome, options.home},
      {lqsettings::kBaseHome, options.base},
      {lqsettings::kSyncEnabled, "1"},
      {lqsettings::kLogDirectory, options.home + "/" + lqsettings::kLogFolder},
      {lqsettings::kAntiChatter, "0"},  // joining ends here: the client may talk to the server from now on
  };
}

// Whether the instance in focus has joined before as another client, or another server: its settings cache is
// of a batch that has nothing to do with this client's.
bool wasAnother(const programs::JoinFile& file) {
  const auto isOther = [](const lqsettings::Setting& setting, const std::string& value) {
    std::string before;
    return LQPlatformInfo().getString(setting.key, setting.name, before) != 0 && before != value;
  };
  std::uint64_t id = 0;
  const bool isIdKnown = LQClient(file.clientName, false, 0).getClientId(id, nullptr) == 0;
  return isOther(lqsettings::kServerHost, file.serverHost) ||
         isOther(lqsettings::kServerName, file.serverName) ||
         isOther(lqsettings::kSessionIdentity, file.clientName) ||
         (isIdKnown && id != static_cast<std::uint64_t>(file.clientId));
}

// Writes everything as one change, for the instance in focus, creating the directories, and drops a cache
// that is another client's. After an error the registry is as it was.
CWmError record(const programs::JoinFile& file, const JoinOptions& options, bool& isCacheDropped) {
  for (const std::string& name : {options.host, options.machine, file.clientName}) {
    if (name.find('/') != std::string::npos)
      return {kLqErrFile, "a host, machine or client name cannot hold a \"/\": " + name};
  }
  for (const std::string& directory : {options.base, options.home + "/" + lqsettings::kLogFolder,
                                       std::filesystem::path(lqregistry::File()).parent_path().string()}) {
    if (directory.empty()) continue;  // the registry's, when it is a name in the working directory
    if (CWmError error = makeDirectory(directory); error.IsError()) return error;
  }

  const std::string baseBefore = baseDirectory();
  std::optional<LqPassLock> lock;  // to the end, so that no pass of the former client stores its cache again
  if (wasAnother(file)) lock.emplace("join");
  lqregistry::WriteBatch batch;
  LQPlatformInfo info;
  bool written = true;
  for (const Written& setting : settingsOf(file, options))
    written = written && info.setString(setting.key, setting.name, setting.value, 0) != 0;
  // Last, because it does not tell why it fails: what keeps everything from being written is known by now.
  written = written && LQClient::recordClient(file.clientName, static_cast<std::uint64_t>(file.clientId));
  // Before the commit: a kill in between costs the former client a cache, which its next pass stores.
  for (const std::string& base : {baseBefore, options.base}) {
    CWmError error = written && lock ? dropCachedSettings(*lock, base, isCacheDropped) : CWmError();
    if (!error.IsError()) continue;
    batch.abandon();
    return error;
  }
  if (written && batch.commit()) {
    if (lock) forgetChanges();
    return {};
  }
  batch.abandon();
  std::string why = info.getRegErrorText();
  if (why.empty()) why = lqregistry::File() + ": the registry could not be written; the log tells why";
  return {kLqErrFile, std::move(why)};
}

int join(const programs::JoinFile& file, const JoinOptions& options) {
  bool isCacheDropped = false;
  if (const CWmError error = record(file, options, isCacheDropped); error.IsError())
    return print(complaint(kExitNotJoined, error.AsString()));
  std::string said =
      programs::escapedForTerminal(instanceName() + " joined " + file.serverName + " at " + file.serverHost +
                                   " as client " + file.clientName + ", id " + std::to_string(file.clientId) +
                                   "; the registry is " + lqregistry::File()) +
      "\n";
  if (isCacheDropped)
    said += "the settings cache was another client's, or of another server, and is dropped\n";
  return print({kExitOk, said, ""});
}

// The join file is read as whoever started this, who may be the only one that it is for.
int prepare(programs::JoinFile& file, JoinOptions& options, std::vector<std::string>& places) {
  if (const CWmError error = programs::readJoinFile(options.file, file); error.IsError())
    return print(complaint(kExitUsage, error.AsString()));
  fillDefaults(options);
  places.push_back(options.base);
  return kExitOk;
}

}  // namespace

void addJoin(CommandLine& line) {
  const auto options = std::make_shared<JoinOptions>();
  const auto file = std::make_shared<programs::JoinFile>();
  line.add(
          "join", "Join a management server: record what this client needs to know",
          [options, file] { return join(*file, *options); },
          [options, file](std::vector<std::string>& places) { return prepare(*file, *options, places); })
      .required("FILE", options->file, "The join file that `overhub add-client` wrote")
      .option("--home", options->home, "Installation home; otherwise " + std::string(kDefaultHome))
      .option("--base", options->base, "Base directory; otherwise the folder Base of the home")
      .option("--machine", options->machine, "Physical machine name; otherwise the system's host name")
      .option("--host", options->host, "Client host name; otherwise the machine name");
}

}  // namespace host
