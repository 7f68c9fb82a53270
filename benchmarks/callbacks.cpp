// A pass in which every value changes: with a callback for each of them, beside none with one.
#include <atomic>

#include "benchmarks/batch.h"
#include "benchmarks/machine.h"
#include "benchmarks/rows.h"
#include "lqregistry/LqRegistryChangeMgr.h"

namespace bench {

namespace {

std::atomic<std::size_t> told{0};

void note(OBGui::RegistryKeyInfo /*key*/) {
  ++told;
}

}  // namespace

void callbacksRow(std::size_t size) {
  Machine machine;
  machine.begin();
  int version = 0;
  const auto nextText = [&] { machine.server.answerWith(machine.batchFile(size, version = 1 - version)); };
  LqRegistryChangeMgr& changes = *LqRegistryChangeMgr::GetInstance();
  const auto watch = [&] {
    for (std::size_t i = 0; i < size; ++i) {
      const Setting setting = settingOf(i, 0);
      changes.Register(setting.keyPath, setting.name, &note);
    }
    told = 0;
    nextText();
  };
  const auto unwatch = [&] {
    changes.callBackMaps.clear();
    nextText();
  };
  const auto pass = [] { return timed([] { demand(synchronise() == 0, "no pass"); }); };
  const auto demandApplied = [&] { machine.demandApplied(); };
  const auto demandTold = [&] {
    machine.demandApplied();
    changes.callBackThreadPool.waitIdle();
    demand(told == size, "not every callback ran");
  };
  compare({"callbacks", "changed", size},
          {{"ours", watch, pass, demandTold}, {"unwatched", unwatch, pass, demandApplied}});
}

}  // namespace bench
