// A server that has its answer ready: sends one prepared text to whoever asks, and takes acknowledgements. It
// is a process of its own, so that what it costs is nobody's memory and, on a second core, nobody's time.
//
//   lq_bench_server ADDRESS IDENTITY KEYHEX
//
// A line on standard input names the file whose text is the answer from then on; the reply is a line with the
// number of outcomes "applied" that came since the line before. Ends with its standard input.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>

#include "benchmarks/wire.h"

namespace {

using bench::FrameKind;

std::string answer;
int applied = 0;

bool isQuestion(std::string_view text) {
  return text.starts_with("<OBGui.RegistryTaskReq") ||
         text.starts_with("<OBGui.RegistryTaskResp taskStatus=\"2\"");  // an upload wants a verdict
}

void serve(bench::Wire& wire, bench::Buffer& payload) {
  static const std::string confirmation = frameOf(FrameKind::kConfirm, {});
  static const std::string goodbye = frameOf(FrameKind::kGoodbye, {});
  for (;;) {
    const FrameKind kind = wire.receive(payload);
    if (kind == FrameKind::kAttach) {
      wire.send(confirmation);
    } else if (kind == FrameKind::kMessage && isQuestion(payload.text())) {
      wire.send(answer);
    } else if (kind == FrameKind::kMessage) {
      applied += payload.text().starts_with("<OBGui.RegistryTaskResp taskStatus=\"3\"") ? 1 : 0;
    } else {
      if (kind == FrameKind::kGoodbye) wire.send(goodbye);
      return;
    }
  }
}

bool takeOrder() {
  std::string file;
  if (!std::getline(std::cin, file)) return false;
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  answer = frameOf(FrameKind::kMessage, text.view());
  std::printf("%d\n", applied);
  std::fflush(stdout);
  applied = 0;
  return true;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 4) return 2;
  std::signal(SIGPIPE, SIG_IGN);
  const bench::Endpoint endpoint(bench::Endpoint::Role::kServer, argv[2], argv[3]);
  const int listener = bench::listenAt(argv[1]);
  bench::Buffer payload;  // kept, so that only the first large upload meets fresh pages
  for (;;) {
    pollfd events[] = {{listener, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (poll(events, 2, -1) < 0) return 1;
    if (events[1].revents != 0 && !takeOrder()) return 0;
    if ((events[0].revents & POLLIN) == 0) continue;
    try {
      const auto wire = endpoint.answer(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
      serve(*wire, payload);
    } catch (const std::exception& fault) {
      std::fprintf(stderr, "ready server: %s\n", fault.what());
    }
  }
} catch (const std::exception& fault) {
  std::fprintf(stderr, "ready server: %s\n", fault.what());
  return 1;
}
