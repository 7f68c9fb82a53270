// From the start of a process to its end after one small pass: `lqhost sync`, and a host that only runs the
// task, beside a process that only loads the library.
#include "benchmarks/machine.h"
#include "benchmarks/process.h"
#include "benchmarks/rows.h"
#include "lqregistry/LqRegistryFile.h"

namespace bench {

void startRow(std::size_t size) {
  Machine machine;
  machine.begin();
  machine.server.answerWith(machine.batchFile(size, 0));
  demand(synchronise() == 0, "no pass");
  const std::vector<std::string> environment = {"VELMOR_REGISTRY=" + lqregistry::File(),
                                                std::string("VELMOR_VM=") + kInstance};
  use("/nowhere");
  const auto running = [&](const std::vector<std::string>& words) {
    return [words, environment] { return runProcess({words, environment}); };
  };
  const auto ready = [&] { machine.server.answerWith(machine.batchFile(size, 0)); };
  const auto demandApplied = [&] { machine.demandApplied(); };
  compare({"start", "unchanged", size},
          {{"ours", ready, running({siblingOf("lqhost"), "sync"}), demandApplied},
           {"task", ready, running({siblingOf("lq_bench_host"), "pass"}), demandApplied},
           {"loading", {}, running({siblingOf("lq_bench_host")}), {}}});
}

}  // namespace bench
