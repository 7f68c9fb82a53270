// A crowd that wants nothing: opens connections to a listener and does with them what strangers and sleepers
// do, until its standard input ends. For measuring what that costs those who want something.
//
//   crowd ADDRESS PORT SILENT HALF_OPEN BYTEWISE [SLEEPERS LIBRARY ENTRY KEYFILE...]
//
// SILENT connections say nothing, HALF_OPEN ones begin a handshake, BYTEWISE ones send a byte a second, and
// for each KEYFILE, whose lines are an identity and its key, SLEEPERS sessions attach and then say nothing.
// Prints "ready" once all are there.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "tests/support/scripted_peer.h"

namespace {

using test_support::PeerSession;
using test_support::PlainSocket;

constexpr int kSecond = 1000;  // milliseconds

std::list<PlainSocket> connect(const char* address, int port, int count, const std::string& first) {
  std::list<PlainSocket> sockets;
  for (int i = 0; i < count; ++i) {
    if (!sockets.emplace_back().connectTo(address, static_cast<std::uint16_t>(port))) sockets.pop_back();
    if (!first.empty() && !sockets.empty()) sockets.back().send(first);
  }
  return sockets;
}

void addSleepers(std::vector<std::unique_ptr<PeerSession>>& all, const char* address, int port, int count,
                 const std::string& library, const std::string& entry, const char* keyFile) {
  std::ifstream file(keyFile);
  for (std::string identity, key; file >> identity >> key;) {
    for (int i = 0; i < count; ++i) {
      auto session = PeerSession::call(address, static_cast<std::uint16_t>(port), identity, key);
      if (session == nullptr) continue;
      session->writeFrame(PeerSession::kAttach, "<Session.AttachRequest version=\"1\" library=\"" + library +
                                                    "\" entry=\"" + entry + "\" caller=\"crowd\"/>");
      if (session->readFrame().kind == PeerSession::kConfirm) all.push_back(std::move(session));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) return 2;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const char* const address = argv[1];
  const int port = std::atoi(argv[2]);
  // The header of a TLS record that never comes whole.
  const std::string handshake("\x16\x03\x01\x02\x00", 5);
  const auto silent = connect(address, port, std::atoi(argv[3]), {});
  const auto halfOpen = connect(address, port, std::atoi(argv[4]), handshake);
  const auto bytewise = connect(address, port, std::atoi(argv[5]), handshake);
  std::vector<std::unique_ptr<PeerSession>> sleepers;
  for (int i = 9; i < argc; ++i)
    addSleepers(sleepers, address, port, std::atoi(argv[6]), argv[7], argv[8], argv[i]);
  std::printf("ready: %zu silent, %zu half-open, %zu byte-wise, %zu attached\n", silent.size(),
              halfOpen.size(), bytewise.size(), sleepers.size());
  std::fflush(stdout);
  for (pollfd input{STDIN_FILENO, POLLIN, 0}; poll(&input, 1, kSecond) == 0;)
    for (const PlainSocket& socket : bytewise) socket.send("\x01");
  return 0;
}
