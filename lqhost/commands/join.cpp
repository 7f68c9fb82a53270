// `lqhost join`: reads the join file that the server's administrator handed over, and writes what a client
// needs to know into the registry.
#include <unistd.h>

#include <array>
#include <charconv>
#include <filesystem>
#include <map>
#include <memory>
#include <vector>

#include "common/text_table.h"
#include "lqhost/commands/commands.h"
#include "lqhost/instance.h"

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"

namespace host {

namespace {

// What the join file says. The session key is a secret.
struct JoinFile {
  std::string serverHost;
  std::string serverName;
  std::string clientName;
  std::uint64_t clientId = 0;
  std::string sessionKey;  // hexadecimal
};

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
constexpr const char* kLogFolder = "Log_Files";

std::string systemHostName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "localhost";
}

bool makeDirectory(const std::string& path, std::string& error) {
  std::error_code failure;
  std::filesystem::create_directories(path, failure);
  if (failure) {
    error = "cannot create the directory " + path + ": " + failure.message();
  } else {
    // What lies there is loaded, applied and believed later on.
    error = FXFile::CheckTrusted(path).AsString();
  }
  return error.empty();
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
  if (options.machine.empty()) options.machine = systemHostName();
  if (options.host.empty()) options.host = options.machine;
}

// One value that joining writes.
struct Setting {
  std::string section;
  const char* name;
  std::string value;
};

std::vector<Setting> settingsOf(const JoinFile& file, const JoinOptions& options) {
  return {
      {"Overhub", "sOHHOSTNAME", file.serverHost},
      {"Overhub", "sOHCLIENTNAME", file.serverName},
      {"Overhub", "sSESSIONIDENTITY", file.clientName},
      {"Overhub", "sSESSIONKEY", file.sessionKey},
      {"Machine", "sPHYSICALNAME", options.machine},
      {"Machine", "sHOSTNAME", options.host},
      {"Machine", "nPLATFORMTYPE", std::to_string(kPlatformUnix)},
      {"Hosts/" + options.host, "sCLIENTNAME", file.clientName},
      {"Base", "dVELMORHOME", options.home},
      {"Base", "dBASEHOME", options.base},
      {"EventManager", "bEnableRegistrySync", "1"},
      {"EventManager", "dOBLOGDIR", options.home + "/" + kLogFolder},
      {"Session", "bANTICHATTER", "0"},  // joining ends here: the client may talk to the server from now on
  };
}

// False with the reason in `error`.
bool readJoinFile(const std::string& path, JoinFile& file, std::string& error) {
  std::map<std::string, std::string> entries;
  if (!readEntries(path, entries, error)) {
    error += ": cannot read the join file; `overhub add-client` writes one";
    return false;
  }
  const auto take = [&](const char* name, std::string& into) {
    into = entries[name];
    if (!into.empty()) return true;
    error = path + ": the join file lacks \"" + name + "\"; have `overhub add-client` write a new one";
    return false;
  };
  std::string id;
  if (!take("server-host", file.serverHost) || !take("server-name", file.serverName) ||
      !take("client-name", file.clientName) || !take("client-id", id) ||
      !take("session-key", file.sessionKey))
    return false;
  const auto [end, failure] = std::from_chars(id.data(), id.data() + id.size(), file.clientId);
  std::string key;
  // The largest is what a message can carry.
  constexpr std::uint64_t kMaxClientId = 0x7fffffffffffffff;
  if (failure != std::errc() || file.clientId > kMaxClientId || end != id.data() + id.size() ||
      file.clientId == 0) {
    error = path + ": client-id is not a positive number: " + id;
  } else if (!sessionKeyFromHex(file.sessionKey, key)) {
    error = path + ": session-key is not a key of " + std::to_string(2 * kSessionKeyBytes) +
            " hexadecimal digits";
  }
  return error.empty();
}

// Writes everything as one change, for the instance in focus, creating the directories. False with the
// reason; the registry is then as it was.
bool record(const JoinFile& file, JoinOptions options, std::string& error) {
  fillDefaults(options);
  for (const std::string& name : {options.host, options.machine, file.clientName}) {
    if (name.find('/') == std::string::npos) continue;
    error = "a host, machine or client name cannot hold a \"/\": " + name;
    return false;
  }
  if (!makeDirectory(options.base, error) || !makeDirectory(options.home + "/" + kLogFolder, error))
    return false;

  const std::string folder = std::filesystem::path(lqregistry::File()).parent_path().string();
  if (!folder.empty() && !makeDirectory(folder, error)) return false;

  lqregistry::WriteBatch batch;
  LQPlatformInfo info;
  bool written = LQClient::recordClient(file.clientName, file.clientId);
  for (const Setting& setting : settingsOf(file, options))
    written = written && info.setString(setting.section, setting.name, setting.value, 0) != 0;
  if (written && batch.commit()) return true;
  batch.abandon();
  error = info.getRegErrorText();
  if (error.empty()) error = lqregistry::File() + ": the registry could not be written; the log tells why";
  return false;
}

// The join file is read as whoever started this, who may be the only one that it is for.
int prepare(JoinOptions options, JoinFile& file, std::vector<std::string>& places) {
  std::string error;
  if (!readJoinFile(options.file, file, error)) return print(complaint(kExitUsage, error));
  fillDefaults(options);
  places.push_back(options.base);
  return kExitOk;
}

int join(const JoinOptions& options, const JoinFile& file) {
  std::string error;
  if (!record(file, options, error)) return print(complaint(kExitNotJoined, error));
  const std::string said = instanceName() + " joined " + file.serverName + " at " + file.serverHost +
                           " as client " + file.clientName + ", id " + std::to_string(file.clientId) +
                           "; the registry is " + lqregistry::File();
  return print({kExitOk, programs::escapedForTerminal(said) + "\n", ""});
}

}  // namespace

void addJoin(CommandLine& line) {
  const auto options = std::make_shared<JoinOptions>();
  const auto file = std::make_shared<JoinFile>();
  line.add(
          "join", "Join a management server: record what this client needs to know",
          [options, file] { return join(*options, *file); },
          [options, file](std::vector<std::string>& places) { return prepare(*options, *file, places); })
      .required("FILE", options->file, "The join file that `overhub add-client` wrote")
      .option("--home", options->home, "Installation home; otherwise " + std::string(kDefaultHome))
      .option("--base", options->base, "Base directory; otherwise the folder Base of the home")
      .option("--machine", options->machine, "Physical machine name; otherwise the system's host name")
      .option("--host", options->host, "Client host name; otherwise the machine name");
}

}  // namespace host
