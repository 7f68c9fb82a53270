#include "lqhost/commands/upload.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "lqhost/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/pass/wire_watch.h"
#include "lqregistry/LqRegistryManagerClnt.h"

namespace host {

namespace {

// How far the upload is; set on the uploading thread, shown from another.
struct Progress {
  std::atomic<std::size_t> recordsSent{0};
  std::atomic<bool> sent{false};
  std::atomic<std::int64_t> verdict{0};  // the taskStatus of the reply; 0: none came
};

// Shows phase and seconds on standard error once a second, if that is a terminal.
class ProgressLine {
 public:
  explicit ProgressLine(const Progress& progress) : progress_(progress) {
    if (isatty(STDERR_FILENO) != 0) thread_ = std::thread([this] { run(); });
  }
  ~ProgressLine() {
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (int seconds = 0; !ended_; ++seconds) {
      if (progress_.sent) {
        std::fprintf(stderr, "\r%zu records sent, waiting for the server's verdict ... %d s",
                     progress_.recordsSent.load(), seconds);
      } else {
        std::fprintf(stderr, "\rreading and sending the registry ... %d s", seconds);
      }
      std::fflush(stderr);
      changed_.wait_for(lock, std::chrono::seconds(1), [this] { return ended_; });
    }
    std::fputs("\r\033[K", stderr);
  }

  const Progress& progress_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace

int upload() {
  if (!requireJoined()) return kExitNotJoined;
  Progress progress;
  const WireWatch watch([&progress](WireWatch::Kind kind, const OBGui::RegistryTaskResp& batch) {
    if (kind == WireWatch::Kind::kReceived) {
      progress.verdict = batch.taskStatus;
    } else {
      progress.recordsSent = batch.keys->size();
      progress.sent = true;
    }
  });
  unsigned result = kResultFailed;
  {
    const ProgressLine line(progress);
    LqRegistryManagerClnt client(instanceName());
    result = client.uploadKeys();
  }

  if (!progress.sent) {
    std::fprintf(stderr, "lqhost: nothing was uploaded; the log tells why\n");
    return kExitFailed;
  }
  if (result != kResultOk || progress.verdict == 0) {
    std::fprintf(stderr, "lqhost: %zu records were sent, but the server %s\n", progress.recordsSent.load(),
                 progress.verdict == 0 ? "gave no verdict" : "could not keep them");
    return kExitFailed;
  }
  std::printf("%zu records uploaded and kept by the server\n", progress.recordsSent.load());
  return kExitOk;
}

}  // namespace host
