// What a command and the resident host of its instance say to each other, and the socket by which they do.
//
// While a resident host runs, modules and their change callbacks live there, so the commands that change or
// send something ask it (ask_resident.h) instead of working beside it. It answers (command_socket.h) through
// a Unix socket in the base directory, one question a connection:
//
//   the resident   "lqhost 1\n"                              at once, which shows that it is alive
//   the command    "sync\n"                                  one of the questions below
//   the resident   "<exit code> <bytes> <bytes>\n"           then standard output and standard error
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <optional>
#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/FXFile.h"

namespace host {

// The questions.
inline constexpr const char* kAskSync = "sync";
inline constexpr const char* kAskFreshSync = "sync --fresh";
inline constexpr const char* kAskRefresh = "refresh";
inline constexpr const char* kAskUpload = "upload";
inline constexpr const char* kAskRollback = "rollback";
inline constexpr const char* kAskReport = "report";          // what became of the newest report, as a line
inline constexpr const char* kAskRegistered = "registered";  // what modules have registered, a line a place
inline constexpr const char* kAskCallbacks = "callbacks";    // how many wait, as a number

inline constexpr const char* kCommandSocket = "lqhost.sock";
inline constexpr const char* kGreeting = "lqhost 1";
// How long whoever is at the other end may say, or read, nothing.
inline constexpr std::chrono::milliseconds kPatience{10'000};
inline constexpr std::chrono::milliseconds kForever{-1};

// The base directory, open; and the address of the socket by way of it, because the path of a socket may have
// 107 characters only.
auto_handle openBase();
sockaddr_un addressIn(const auto_handle& directory);
const sockaddr* asAddress(const sockaddr_un& address);

// The steps below end early once `stop`, unless -1, is readable.

// Whoever does not read, a stopped process say, gets kPatience for the whole text.
bool sendAll(int connection, int stop, const std::string& text);
// Whether something can be read in time.
bool waitToRead(int connection, int stop, std::chrono::milliseconds time);
// The next line without its end; none when that does not come in time.
std::optional<std::string> readLine(int connection, int stop, std::chrono::milliseconds time);

}  // namespace host
