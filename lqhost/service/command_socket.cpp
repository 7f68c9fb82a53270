#include "lqhost/service/command_socket.h"

#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <system_error>

#include "lqhost/instance.h"
#include "lqhost/service/command_protocol.h"

namespace host {

namespace {

constexpr mode_t kSocketMode = 0600;
// How long commands that are under way may go on when the resident stops.
constexpr std::chrono::seconds kStopWait{10};

// Commands: seconds until a spare thread ends, callers waiting until another thread joins, threads at most,
// threads that stay. Any number may wait: whoever may ask could as well stop the resident.
constexpr std::uint64_t kIdleSeconds = 30;
constexpr std::uint64_t kCallersPerThread = 1;
constexpr std::uint32_t kMaxThreads = 4;
constexpr std::uint32_t kMinThreads = 1;

CWmError systemError(const std::string& what) {
  return {kLqErrFile, what + ": " + std::system_category().message(errno)};
}

// The kernel's word, for a socket whose mode somebody has changed.
bool isPeerTrusted(int connection) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         mayAsk(peer.uid, ::geteuid());
}

}  // namespace

bool mayAsk(uid_t peer, uid_t own) {
  return peer == 0 || peer == own;
}

ResidentSocket::ResidentSocket() = default;

ResidentSocket::~ResidentSocket() {
  finish();
}

bool ResidentSocket::finish() {
  if (stop_.isValid()) ::eventfd_write(stop_.get(), 1);
  if (acceptor_.joinable()) acceptor_.join();
  if (listener_.isValid()) ::unlinkat(directory_.get(), kCommandSocket, 0);
  listener_.reset();
  return pool_.drain(kStopWait);
}

CWmError ResidentSocket::open() {
  directory_ = openBase();
  if (!directory_.isValid()) return systemError(baseDirectory());
  stop_.reset(::eventfd(0, EFD_CLOEXEC));
  auto_handle listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!stop_.isValid() || !listener.isValid()) return systemError("a socket in " + baseDirectory());
  const sockaddr_un address = addressIn(directory_);
  // Whoever left one is gone: this process holds the resident's lock.
  ::unlinkat(directory_.get(), kCommandSocket, 0);
  if (::bind(listener.get(), asAddress(address), sizeof(address)) != 0 ||
      ::fchmodat(directory_.get(), kCommandSocket, kSocketMode, 0) != 0 ||
      ::listen(listener.get(), SOMAXCONN) != 0)
    return systemError(pathInBase(kCommandSocket));
  listener_ = std::move(listener);
  return {};
}

// What a pool thread gets.
struct ResidentSocket::Caller {
  const ResidentSocket* socket;
  auto_handle connection;
};

CWmError ResidentSocket::serve(Answer answer) {
  answer_ = std::move(answer);
  if (!pool_.initThreadPool("lqhost-commands", kIdleSeconds, kCallersPerThread, kMaxThreads, kMinThreads))
    return {kLqErrFile, "the system gives no thread to answer commands with"};
  acceptor_ = std::thread([this] { accept(); });
  return {};
}

void ResidentSocket::accept() {
  while (waitToRead(listener_.get(), stop_.get(), kForever)) {
    auto_handle connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    // Greeted here, so that a caller learns that somebody is at home, however long earlier commands take.
    if (!connection.isValid() || !isPeerTrusted(connection.get()) ||
        !sendAll(connection.get(), stop_.get(), std::string(kGreeting) + "\n"))
      continue;
    auto caller = std::make_unique<Caller>(Caller{this, std::move(connection)});
    if (pool_.doWork(&answerOnPool, caller.get()) == 0) static_cast<void>(caller.release());
  }
}

void* ResidentSocket::answerOnPool(void* caller) {
  const std::unique_ptr<Caller> owned(static_cast<Caller*>(caller));
  owned->socket->answerOn(owned->connection.get());
  return nullptr;
}

void ResidentSocket::answerOn(int connection) const {
  const std::optional<std::string> question = readLine(connection, stop_.get(), kPatience);
  if (!question) return;
  const CommandResult result = answer_(*question);
  sendAll(connection, stop_.get(),
          std::to_string(result.exitCode) + " " + std::to_string(result.out.size()) + " " +
              std::to_string(result.err.size()) + "\n" + result.out + result.err);
}

}  // namespace host
