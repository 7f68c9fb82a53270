// The upload of a whole registry, beside one ordered scan and one serialisation over one bare connection.
#include "benchmarks/batch.h"
#include "benchmarks/floor.h"
#include "benchmarks/machine.h"
#include "benchmarks/rows.h"
#include "lqregistry/LqRegistryManagerClnt.h"

namespace bench {

void uploadRow(std::size_t size) {
  Machine machine;
  machine.begin();
  FloorClient floor(machine.folder.path(), machine.address, machine.keyHex);
  machine.server.answerWith(machine.batchFile(size, 0));
  demand(synchronise() == 0, "no pass");
  floor.pass();
  const std::string verdict = machine.folder / "verdict";
  writeFile(verdict, "<OBGui.RegistryTaskResp taskStatus=\"3\"/>");
  machine.server.answerWith(verdict);
  std::size_t textBytes = 0;
  const auto ours = [] {
    LqRegistryManagerClnt client(kInstance);
    demand(client.uploadKeys() == kResultOk && client.receivedMessage != nullptr, "no upload");
  };
  textBytes = floor.upload();
  compare({"upload", "", size, {{"text_bytes", static_cast<double>(textBytes)}}},
          {{"ours", {}, [&] { return timed(ours); }, {}},
           {"floor", {}, [&] { return timed([&] { floor.upload(); }); }, {}}});
}

}  // namespace bench
