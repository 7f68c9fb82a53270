#include "lqhost/service/command_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

#include "lqhost/instance.h"
#include "lqhost/service/resident_lock.h"
#include "lqregistry/PrintableText.h"

namespace host {

namespace {

constexpr const char* kSocket = "lqhost.sock";
constexpr mode_t kSocketMode = 0600;
constexpr const char* kGreeting = "lqhost 1";
// How long whoever is at the other end may say, or read, nothing.
constexpr std::chrono::seconds kPatience{10};
// How long commands that are under way may go on when the resident stops.
constexpr std::chrono::seconds kStopWait{10};
// How long an answer may still take to be read when the resident stops.
constexpr std::chrono::seconds kLastWords{1};
constexpr std::chrono::milliseconds kRetryEvery{50};
constexpr int kForever = -1;
constexpr std::size_t kMaxLine = 128;

// Commands: seconds until a spare thread ends, callers waiting until another thread joins, threads at most,
// threads that stay; and how many may be answered or wait.
constexpr std::uint64_t kIdleSeconds = 30;
constexpr std::uint64_t kCallersPerThread = 1;
constexpr std::uint32_t kMaxThreads = 4;
constexpr std::uint32_t kMinThreads = 1;
constexpr std::size_t kMaxCallers = 64;

CWmError systemError(const std::string& what) {
  return {kLqErrFile, what + ": " + std::system_category().message(errno)};
}

auto_handle openBase() {
  return auto_handle(::open(baseDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// By way of the open directory, because the path of a socket may have 107 characters only.
sockaddr_un addressIn(const auto_handle& directory) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(directory.get()) + "/" + kSocket;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

const sockaddr* asAddress(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// The kernel's word, for a socket whose mode somebody has changed.
bool isPeerTrusted(int connection) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         mayAsk(peer.uid, ::geteuid());
}

constexpr int milliseconds(std::chrono::milliseconds time) {
  return static_cast<int>(time.count());
}

// Whoever does not read, a stopped process say, gets so long for the whole text; less once `stop`, unless -1,
// is readable.
bool sendAll(int connection, int stop, const std::string& text) {
  using Clock = std::chrono::steady_clock;
  auto deadline = Clock::now() + kPatience;
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t now =
        ::send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (now > 0) {
      sent += static_cast<std::size_t>(now);
      continue;
    }
    if (now == 0 || (errno != EINTR && errno != EAGAIN)) return false;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd both[] = {{connection, POLLOUT, 0}, {stop, POLLIN, 0}};
    if (left.count() <= 0 || ::poll(both, 2, milliseconds(left)) == 0) return false;
    if (both[1].revents != 0) {
      deadline = std::min(deadline, Clock::now() + kLastWords);
      stop = -1;
    }
  }
  return true;
}

// Whether something can be read within `milliseconds`; not when `stop`, unless -1, becomes readable first.
bool waitToRead(int connection, int stop, int milliseconds) {
  pollfd both[] = {{connection, POLLIN, 0}, {stop, POLLIN, 0}};
  int ready = 0;
  do {
    ready = ::poll(both, 2, milliseconds);
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && both[0].revents != 0 && both[1].revents == 0;
}

// The next line without its end; none when that does not come.
std::optional<std::string> readLine(int connection, int stop, int milliseconds) {
  std::string line;
  for (char next = 0; line.size() < kMaxLine && waitToRead(connection, stop, milliseconds);) {
    if (::recv(connection, &next, 1, 0) != 1) break;
    if (next == '\n') return line;
    line += next;
  }
  return std::nullopt;
}

bool readExactly(int connection, std::size_t size, std::string& text) {
  text.resize(size);
  for (std::size_t got = 0; got < size;) {
    const ssize_t now = ::recv(connection, text.data() + got, size - got, 0);
    if (now < 0 && errno == EINTR) continue;
    if (now <= 0) return false;
    got += static_cast<std::size_t>(now);
  }
  return true;
}

// A connection on which the resident has shown that it is alive; invalid when there is none.
auto_handle connectToResident() {
  const auto_handle directory = openBase();
  auto_handle connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressIn(directory);
  if (!directory.isValid() || !connection.isValid() ||
      ::connect(connection.get(), asAddress(address), sizeof(address)) != 0 ||
      readLine(connection.get(), -1, milliseconds(kPatience)) != kGreeting)
    connection.reset();
  return connection;
}

CWmError unanswered(const std::string& how) {
  return {kLqErrNotConnected, "instance " + instanceName() + " has a resident host, which " + how +
                                  "; nothing is done beside it. Look at its log, or start it anew"};
}

// The texts are whole lines and escaped already; what is no line of a resident must not reach a terminal.
std::string printableLines(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::size_t length = 1;
    if (text[0] == '\n') {
      result += '\n';
    } else {
      length = lqtext::appendPrintable(result, text);
    }
    text.remove_prefix(length);
  }
  return result;
}

CWmError askOn(int connection, const std::string& question, std::optional<CommandResult>& answer) {
  CommandResult result;
  std::size_t outBytes = 0;
  std::size_t errBytes = 0;
  // A command takes as long as it takes; a number that a busy resident does not tell is not worth a wait.
  const bool isNumber = question == kAskCallbacks;
  const bool isAsked = sendAll(connection, -1, question + "\n");
  const int wait = isNumber ? milliseconds(kPatience) : kForever;
  const std::optional<std::string> head = isAsked ? readLine(connection, -1, wait) : std::nullopt;
  if (!head)
    return unanswered(isNumber ? "is too busy to say how it is"
                               : "ended before it had answered; what it did is in its log");
  if (!(std::istringstream(*head) >> result.exitCode >> outBytes >> errBytes) ||
      !readExactly(connection, outBytes, result.out) || !readExactly(connection, errBytes, result.err))
    return unanswered("gave an answer that breaks off");
  result.out = printableLines(result.out);
  result.err = printableLines(result.err);
  answer = std::move(result);
  return {};
}

}  // namespace

bool mayAsk(uid_t peer, uid_t own) {
  return peer == 0 || peer == own;
}

CWmError askResident(const std::string& question, std::optional<CommandResult>& answer,
                     std::chrono::milliseconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  while (isHostResident()) {
    if (const auto_handle connection = connectToResident(); connection.isValid())
      return askOn(connection.get(), question, answer);
    if (std::chrono::steady_clock::now() > deadline) return unanswered("does not answer");
    std::this_thread::sleep_for(kRetryEvery);
  }
  return {};
}

ResidentSocket::ResidentSocket() = default;

ResidentSocket::~ResidentSocket() {
  finish();
}

bool ResidentSocket::finish() {
  if (stop_.isValid()) ::eventfd_write(stop_.get(), 1);
  if (acceptor_.joinable()) acceptor_.join();
  if (listener_.isValid()) ::unlinkat(directory_.get(), kSocket, 0);
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
  ::unlinkat(directory_.get(), kSocket, 0);
  if (::bind(listener.get(), asAddress(address), sizeof(address)) != 0 ||
      ::fchmodat(directory_.get(), kSocket, kSocketMode, 0) != 0 || ::listen(listener.get(), SOMAXCONN) != 0)
    return systemError(pathInBase(kSocket));
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
    if (!connection.isValid() || pool_.pendingCount() >= kMaxCallers || !isPeerTrusted(connection.get()) ||
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
  const std::optional<std::string> question = readLine(connection, stop_.get(), milliseconds(kPatience));
  if (!question) return;
  const CommandResult result = answer_(*question);
  sendAll(connection, stop_.get(),
          std::to_string(result.exitCode) + " " + std::to_string(result.out.size()) + " " +
              std::to_string(result.err.size()) + "\n" + result.out + result.err);
}

}  // namespace host
