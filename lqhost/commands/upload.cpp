// `lqhost upload`: sends the whole registry of the instance to the server, and says what of it was not sent.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

#include "lqhost/commands/before_work.h"
#include "lqhost/commands/commands.h"
#include "lqhost/commands/exit_codes.h"
#include "lqhost/instance.h"
#include "lqhost/pass/left_out.h"
#include "lqhost/pass/wire_watch.h"
#include "lqhost/service/ask_resident.h"
#include "lqregistry/LqRegistryManagerClnt.h"

namespace host {

namespace {

// How far the upload is; set on the uploading thread, shown from another.
struct Progress {
  std::atomic<std::size_t> recordsSent{0};
  std::atomic<bool> sent{false};
};

// Shows phase and seconds on standard error once a second, until it is asked to end.
void showProgress(const std::stop_token& end, const Progress& progress) {
  std::mutex mutex;
  std::condition_variable_any ended;  // nobody notifies it: the wait ends with the token
  std::unique_lock lock(mutex);
  int seconds = 0;
  do {
    const std::string phase = progress.sent ? std::to_string(progress.recordsSent) +
                                                  " records sent, waiting for the server's verdict"
                                            : "reading and sending the registry";
    std::fprintf(stderr, "\r%s ... %d s", phase.c_str(), seconds++);
  } while (!ended.wait_for(lock, end, std::chrono::seconds(1), [&] { return end.stop_requested(); }));
  std::fputs("\r\033[K", stderr);
}

int upload() {
  if (const auto notJoined = whyNotJoined()) return print(*notJoined);
  if (const auto answered = answerOfResident(kAskUpload)) return print(*answered);
  return print(uploadNow());
}

}  // namespace

CommandResult uploadNow() {
  Progress progress;
  std::int64_t verdict = 0;  // the taskStatus of the reply; 0: none came
  LeftOut left;
  const WireWatch watch([&](const WireWatch::Event& event, const OBGui::RegistryTaskResp* batch) {
    if (batch == nullptr) return;
    if (event.kind == WireWatch::Event::Kind::kReceived) {
      verdict = batch->taskStatus;
    } else {
      progress.recordsSent = batch->keys->size();
      progress.sent = true;
      left = leftOutOf(batch->keys);
    }
  });
  unsigned result = kResultFailed;
  {
    // A resident host has nobody to show it to.
    std::jthread line;  // ended and joined with this block
    if (isatty(STDERR_FILENO) != 0) line = std::jthread(showProgress, std::cref(progress));
    LqRegistryManagerClnt client(instanceName());
    result = client.uploadKeys();
  }

  const std::string records = std::to_string(progress.recordsSent) + " records ";
  if (!progress.sent) return complaint(kExitFailed, "nothing was uploaded; the log tells why");
  if (result != kResultOk || verdict == 0)
    return complaint(kExitFailed, records + "were sent, but the server " +
                                      (verdict == 0 ? "gave no verdict" : "could not keep them"));
  CommandResult uploaded;
  uploaded.out = records + "uploaded and kept by the server\n";
  if (left.count != 0) {
    uploaded.exitCode = kExitPartly;
    uploaded.err = "lqhost: " + std::to_string(left.count) + " were left out:\n" + left.lines;
  }
  return uploaded;
}

void addUpload(CommandLine& line) {
  line.add("upload", "Send the whole registry of the instance to the server", &upload);
}

}  // namespace host
