// `lqhost sync` as a whole process, beside the peer's load of the same settings: a configuration store with a
// client, a service that writes, and a bus between them.
#include <cstdlib>
#include <filesystem>

#include "benchmarks/batch.h"
#include "benchmarks/machine.h"
#include "benchmarks/process.h"
#include "benchmarks/rows.h"
#include "lqregistry/LqRegistryFile.h"

namespace bench {

namespace {

constexpr const char* kService = "dconf-service";

// A bus and a service of its own for the peer, with their files in the machine's folder.
class Peer {
 public:
  explicit Peer(const Folder& folder) : folder_(folder.path()), bus_(startIn(folder)) {
    setenv("DBUS_SESSION_BUS_ADDRESS", bus_.hear().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  }

  // "cpu_ms" is that of the client and the service together, without the bus.
  Figures load(const std::string& file) const {
    const double before = cpuOf(kService, folder_);
    Figures figures = runProcess({{"dconf", "load", "/"}, {}, file});
    figures["client_cpu_ms"] = figures["cpu_ms"];
    figures["cpu_ms"] += cpuOf(kService, folder_) - before;
    return figures;
  }

  std::string valueOf(const Setting& setting) const {
    const std::string file = folder_ + "/read";
    runProcess({{"dconf", "read", "/" + setting.keyPath + "/" + setting.name}, {}, "/dev/null", file});
    return readFile(file);
  }

 private:
  static Child startIn(const Folder& folder) {
    // One each: some files of the peer's have the same name below two of them.
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_RUNTIME_DIR", "HOME"}) {
      std::filesystem::create_directory(folder / name);
      setenv(name, (folder / name).c_str(), 1);  // NOLINT(concurrency-mt-unsafe): no other thread yet
    }
    return Child({"dbus-daemon", "--session", "--nofork", "--print-address=1"});
  }

  std::string folder_;
  Child bus_;
};

std::string peerFile(const Machine& machine, std::size_t size, int version) {
  const std::string file = machine.folder / "peer." + std::to_string(size) + "." + std::to_string(version);
  writeFile(file, dconfTextOf(size, version));
  return file;
}

}  // namespace

void syncRow(std::size_t size) {
  Machine machine;
  machine.begin();
  const Peer peer(machine.folder);
  const std::string peerFiles[] = {peerFile(machine, size, 0), peerFile(machine, size, 1)};
  const Command sync{{siblingOf("lqhost"), "sync"},
                     {"VELMOR_REGISTRY=" + lqregistry::File(), std::string("VELMOR_VM=") + kInstance}};
  for (const bool isChanging : {true, false}) {
    int ours = 0;
    int peers = 0;
    const auto next = [&](int& version) { return version = isChanging ? 1 - version : version; };
    compare({"sync", isChanging ? "changed" : "unchanged", size},
            {{"ours",
              [&] {
                machine.server.answerWith(machine.batchFile(size, next(ours)));
                use("/nowhere");  // so that nobody else has the registry open
              },
              [&] { return runProcess(sync); },
              [&] {
                use(machine.folder.path());
                const Setting setting = settingOf(size - 1, ours);
                demand(valueOf(setting) == setting.value, "lqhost did not apply the batch");
              }},
             {"peer", [&] { next(peers); }, [&] { return peer.load(peerFiles[peers]); },
              [&] {
                const Setting setting = settingOf(size - 1, peers);
                demand(peer.valueOf(setting) == "'" + setting.value + "'\n", "the peer did not load");
              }}});
  }
}

}  // namespace bench
