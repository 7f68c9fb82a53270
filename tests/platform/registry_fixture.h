// A registry file of its own for each test, seen from instance "I1", and other processes that use it.
#pragma once

#include <sqlite3.h>
#include <sys/socket.h>

#include <csignal>
#include <functional>
#include <optional>
#include <stdexcept>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObLog.h"
#include "tests/support/expectations.h"

// A forked process that answers questions until it is killed, with a number or with yes and no; whether it
// opens the registry is for itself. To be made while this process has the registry closed (see UseFile) and
// runs no other threads.
class OtherProcess {
 public:
  explicit OtherProcess(const std::function<int(const std::string&)>& answer) {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_) != 0)
      throw std::runtime_error("no socket pair");
    pid_ = fork();
    if (pid_ != 0) return;
    close(ends_[0]);
    std::string room(1 << 18, '\0');
    for (;;) {
      const ssize_t size = read(ends_[1], room.data(), room.size());
      if (size <= 0) _exit(1);
      const int given = answer(room.substr(0, static_cast<std::size_t>(size)));
      if (write(ends_[1], &given, sizeof given) < 0) _exit(1);
    }
  }
  ~OtherProcess() {
    kill();
    close(ends_[0]);
    close(ends_[1]);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  bool ask(const std::string& question) const { return answerTo(question) == 1; }
  // -1 when there is none.
  int answerTo(const std::string& question) const {
    int given = -1;
    if (send(ends_[0], question.data(), question.size(), MSG_NOSIGNAL) > 0)
      recv(ends_[0], &given, sizeof given, 0);
    return given;
  }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    endOf(pid_);
    pid_ = 0;
  }

 private:
  int ends_[2] = {-1, -1};
  pid_t pid_ = 0;
};

class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() {
    lqregistry::UseFile(file_);
    LQPI_Focus::setFocus("I1");
    info_.setFocus("I1");
  }
  ~RegistryTest() override {
    lqregistry::UseFile("/nowhere");  // closes this test's file
    LQPI_Focus::setFocus(nullptr);
  }

  // What another process is asked to do with a value.
  static bool carryOut(const std::string& order) {
    static lqregistry::WriteBatch* batch = nullptr;  // until the process lets go of it, or is killed
    LQPlatformInfo info(LQPI_Focus::getFocus());
    if (order.starts_with("read ")) return valueOf("A", "name") == order.substr(5);
    if (order.starts_with("write ")) return info.setString("A", "name", order.substr(6), 0) != 0;
    if (order == "commit") return batch->commit();
    if (order == "begin") (batch = new lqregistry::WriteBatch)->lock();
    if (order == "begin") return true;
    return order == "find it read-only" && info.setString("A", "name", "new", 0) == 0 &&
           info.getRegError() == kRegUnavailable && contains(info.getRegErrorText(), "read-only");
  }

  // A statement on the registry file, behind the library's back.
  void sql(const std::string& statement) const {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(file_.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, statement.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
  }

  TempDir dir_;
  std::string file_ = dir_ / "registry.db";
  LQPlatformInfo info_;
};
