// A whole pass over loopback, ours beside the floor: everything new, everything changed, nothing changed.
#include "benchmarks/batch.h"
#include "benchmarks/floor.h"
#include "benchmarks/machine.h"
#include "benchmarks/rows.h"
#include "lqregistry/LqRegistryManagerClnt.h"

namespace bench {

namespace {

// The versions that a side's passes bring: each another one than the last, or always the same.
class Versions {
 public:
  explicit Versions(bool isChanging) : isChanging_(isChanging) {}
  int next() { return current_ = isChanging_ ? 1 - current_ : current_; }
  int current() const { return current_; }

 private:
  bool isChanging_;
  int current_ = 0;
};

struct Kind {
  const char* name;
  bool isChanging;
  bool isFresh;
};
constexpr Kind kKinds[] = {{"new", false, true}, {"changed", true, false}, {"unchanged", false, false}};

void demandValues(std::size_t size, int version, const std::function<std::string(const Setting&)>& value) {
  for (const std::size_t index : {std::size_t{0}, size / 2, size - 1}) {
    const Setting setting = settingOf(index, version);
    demand(value(setting) == setting.value, "the registry does not hold what the pass brought");
  }
}

void comparePasses(const Kind& kind, std::size_t size) {
  Machine machine;
  machine.begin();
  FloorClient floor(machine.folder.path(), machine.address, machine.keyHex);
  const auto ready = [&](Versions& versions, const std::function<void()>& begin) {
    if (kind.isFresh) begin();
    machine.server.answerWith(machine.batchFile(size, versions.next()));
  };
  Versions ours(kind.isChanging);
  Versions floors(kind.isChanging);
  // What a machine holds that has synchronised before.
  if (!kind.isFresh) {
    ready(ours, {});
    demand(synchronise() == 0, "no pass");
    floor.pass();
    floors.next();
  }
  const double textBytes = static_cast<double>(readFile(machine.batchFile(size, 0)).size());
  compare(
      {"pass", kind.name, size, {{"text_bytes", textBytes}}},
      {{"ours", [&] { ready(ours, [&] { machine.begin(); }); },
        [] { return timed([] { demand(synchronise() == 0, "no pass"); }); },
        [&] {
          machine.demandApplied();
          demandValues(size, ours.current(), [](const Setting& setting) { return valueOf(setting); });
        }},
       {"floor", [&] { ready(floors, [&] { floor.begin(); }); }, [&] { return timed([&] { floor.pass(); }); },
        [&] {
          machine.demandApplied();
          demandValues(size, floors.current(), [&](const Setting& setting) {
            std::string value;
            floor.store().read(setting.keyPath, setting.name, value);
            return value;
          });
        }}});
  // Both sides have had the same passes.
  const std::string cache = readFile(machine.folder / kSettingsCacheFile);
  demand(!cache.empty() && cache == readFile(floor.cacheFile()), "the two caches differ");
}

}  // namespace

void passRow(std::size_t size) {
  for (const Kind& kind : kKinds) comparePasses(kind, size);
}

}  // namespace bench
