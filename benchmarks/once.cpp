// One pass or one upload in a process that does nothing else: how much memory it takes at most, and how many
// statements and system calls it makes.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "benchmarks/batch.h"
#include "benchmarks/floor.h"
#include "benchmarks/machine.h"
#include "benchmarks/process.h"
#include "benchmarks/rows.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"

namespace bench {

namespace {

struct Work {
  const char* kind;
  int before;  // the version that the machine holds; -1: none
  int now;
};
constexpr Work kPasses[] = {{"new", -1, 0}, {"changed", 0, 1}, {"unchanged", 0, 0}};
constexpr Work kUpload = {"upload", 0, 0};

// The most that this process has had in memory so far.
double peakMebibytes() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kibibytes = 0;
    if (word == "VmHWM:" && status >> kibibytes) return kibibytes / 1024;
  }
  return 0;
}

// What has to be there before the one pass or upload: the machine, and the server's answer.
void arrange(Machine& machine, const Work& work, std::size_t size) {
  machine.begin();
  if (work.before >= 0) {
    machine.server.answerWith(machine.batchFile(size, work.before));
    demand(synchronise() == 0, "no pass");
  }
  if (work.kind == kUpload.kind) {
    const std::string verdict = machine.folder / "verdict";
    writeFile(verdict, "<OBGui.RegistryTaskResp taskStatus=\"3\"/>");
    machine.server.answerWith(verdict);
  } else {
    machine.server.answerWith(machine.batchFile(size, work.now));
  }
  lqregistry::UseFile("/nowhere");  // closed
}

Command once(const Machine& machine, const Work& work, const std::string& output) {
  return {
      {siblingOf("lq_bench"), "--once", work.kind == kUpload.kind ? "upload" : "pass", machine.folder.path()},
      {},
      "/dev/null",
      output};
}

double numberIn(const std::string& file) {
  return std::stod(readFile(file));
}

void reportPeak(const Work& work, std::size_t size) {
  Machine machine;
  const std::string said = machine.folder / "said";
  const Side side{"ours", [&] { arrange(machine, work, size); },
                  [&] {
                    runProcess(once(machine, work, said));
                    return Figures{{"mib", numberIn(said)}};
                  },
                  [&] {
                    if (work.kind != kUpload.kind) machine.demandApplied();
                  }};
  const double textBytes = static_cast<double>(readFile(machine.batchFile(size, 0)).size());
  compare({"peak", work.kind, size, {{"text_bytes", textBytes}}}, {side});
}

// The tracer's summary: a line for each kind of call, with its number in the fourth column and its name in
// the last.
Figures systemCallsIn(const std::string& summary) {
  Figures calls;
  std::istringstream lines(summary);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream columns(line);
    double share = 0;
    double seconds = 0;
    double each = 0;
    double count = 0;
    std::string name;
    if (!(columns >> share >> seconds >> each >> count)) continue;
    while (columns >> name) {
    }
    calls[name == "total" ? "system_calls" : "call " + name] = count;
  }
  return calls;
}

void reportCounts(const Work& work, std::size_t size) {
  Machine machine;
  const std::string counted = machine.folder / "counted";
  Subject subject{"counts", work.kind, size};
  arrange(machine, work, size);
  Command command = once(machine, work, "/dev/null");
  command.environment = {"LD_PRELOAD=" + siblingOf("../lib/liblq_bench_counter.so"),
                         "LQ_BENCH_COUNTS=" + counted};
  runProcess(command);
  std::istringstream statements(readFile(counted));
  for (std::string name; statements >> name;) statements >> subject.facts[name];

  arrange(machine, work, size);
  command = once(machine, work, "/dev/null");
  const std::vector<std::string> tracer = {"strace", "-f", "-c", "-o", counted};
  command.words.insert(command.words.begin(), tracer.begin(), tracer.end());
  runProcess(command);
  subject.facts.merge(systemCallsIn(readFile(counted)));
  report(subject);
}

}  // namespace

void peakRow(std::size_t size) {
  for (const Work& work : kPasses) reportPeak(work, size);
  if (size >= 100'000) reportPeak(kUpload, size);
}

void countsRow(std::size_t size) {
  for (const Work& work : kPasses) reportCounts(work, size);
  reportCounts(kUpload, size);
}

int runOnce(const char* work, const char* folder) {
  use(folder);
  if (std::string_view(work) == "upload") {
    LqRegistryManagerClnt client(kInstance);
    demand(client.uploadKeys() == kResultOk && client.receivedMessage != nullptr, "no upload");
  } else {
    demand(synchronise() == 0, "no pass");
  }
  std::printf("%f\n", peakMebibytes());
  return 0;
}

}  // namespace bench
