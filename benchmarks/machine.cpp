#include "benchmarks/machine.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "benchmarks/rounds.h"
#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQClient.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqPeriodicTaskStatus.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/LqSettings.h"
#include "lqregistry/ObLog.h"
#include "lqregistry/sync_task.h"

namespace bench {

namespace {

constexpr const char* kRegistry = "registry.db";

std::filesystem::path placeForFolders() {
  const char* const chosen = std::getenv("LQ_BENCH_FOLDER");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return chosen != nullptr ? chosen : "/var/tmp";
}

// Several may run at once, each with a server.
std::string ownAddress() {
  const auto pid = static_cast<unsigned>(getpid());
  return "127.100." + std::to_string(pid >> 8 & 255) + "." + std::to_string(1 + (pid & 127));
}

}  // namespace

Folder::Folder() {
  std::string name = placeForFolders() / "lqbench.XXXXXX";
  demand(mkdtemp(name.data()) != nullptr, "cannot create " + name);
  path_ = name;
}

Folder::~Folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string siblingOf(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return std::move(text).str();
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  demand(!out.flush().fail(), "cannot write " + path);
}

ReadyServer::ReadyServer(const std::string& address, const std::string& keyHex)
    : child_({siblingOf("lq_bench_server"), address, kClientName, keyHex}) {
  answerWith("/dev/null");  // answered once it listens
}

int ReadyServer::answerWith(const std::string& file) {
  child_.tell(file);
  return std::stoi(child_.hear());
}

Machine::Machine() : address(ownAddress()), keyHex(newSessionKeyHex()), server(address, keyHex) {
  use(folder.path());
}

void Machine::begin() const {
  lqregistry::UseFile("/nowhere");  // closes it
  for (const char* end : {"", "-wal", "-shm", ".key"}) std::filesystem::remove(folder / kRegistry + end);
  std::filesystem::remove(folder / kSettingsCacheFile);
  use(folder.path());
  lqregistry::WriteBatch batch;
  LQPlatformInfo info;
  demand(LQClient::recordClient(kClientName, kClientId), "the client was not recorded");
  const std::pair<lqsettings::Setting, std::string> settings[] = {
      {lqsettings::kServerHost, address},
      {lqsettings::kServerName, "overhub"},
      {lqsettings::kSessionIdentity, kClientName},
      {lqsettings::kSessionKey, keyHex},
      {lqsettings::kPhysicalMachine, "machine42"},
      {lqsettings::kHostName, "host42"},
      {lqsettings::kPlatformType, std::to_string(kPlatformUnix)},
      {{"Hosts/host42", lqsettings::kClientOfHost}, kClientName},
      {lqsettings::kVelmorHome, folder.path()},
      {lqsettings::kBaseHome, folder.path()},
      {lqsettings::kSyncEnabled, "1"},
      {lqsettings::kLogDirectory, folder.path()},
      {lqsettings::kAntiChatter, "0"},
  };
  for (const auto& [setting, value] : settings)
    demand(info.setString(setting.key, setting.name, value, 0) != 0, "the machine did not join");
  demand(batch.commit(), "the machine did not join");
  std::string name;
  info.getString(lqsettings::kServerName.key, lqsettings::kServerName.name, name);  // opens the reading one
}

void Machine::demandApplied() {
  demand(server.answerWith("/dev/null") == 1, "the batch was not acknowledged as applied");
}

std::string Machine::batchFile(std::size_t records, int version) const {
  const std::string file = folder / "batch." + std::to_string(records) + "." + std::to_string(version);
  if (!std::filesystem::exists(file)) writeFile(file, textOf(batchOf(records, version)));
  return file;
}

int synchronise() {
  LqPeriodicTaskStatus status;
  return RegistryDownload_OnTimer(&status);
}

std::string valueOf(const Setting& setting) {
  std::string value;
  LQPlatformInfo().getString(setting.keyPath, setting.name, value);
  return value;
}

void use(const std::string& folder) {
  oblog::Settings quiet;
  quiet.toStandardError = false;
  static_cast<void>(oblog::Configure(quiet));  // fails over a log file only
  lqregistry::UseFile(folder + "/" + kRegistry);
  LQPI_Focus::setFocus(kInstance);
}

}  // namespace bench
