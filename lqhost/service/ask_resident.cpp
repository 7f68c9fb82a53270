#include "lqhost/service/ask_resident.h"

#include <sstream>
#include <string_view>
#include <thread>

#include "lqhost/instance.h"
#include "lqhost/service/resident_lock.h"
#include "lqregistry/PrintableText.h"

namespace host {

namespace {

constexpr std::chrono::milliseconds kRetryEvery{50};

bool readExactly(int connection, std::size_t size, std::string& text) {
  text.resize(size);
  // For nothing, this waits until there is more to read or the connection ends, one of which comes next.
  return ::recv(connection, text.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

// A connection on which the resident has shown that it is alive; invalid when there is none.
auto_handle connectToResident() {
  const auto_handle directory = openBase();
  auto_handle connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressIn(directory);
  if (!directory.isValid() || !connection.isValid() ||
      ::connect(connection.get(), asAddress(address), sizeof(address)) != 0 ||
      readLine(connection.get(), -1, kPatience) != kGreeting)
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
  const auto wait = isNumber ? kPatience : kForever;
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

}  // namespace host
