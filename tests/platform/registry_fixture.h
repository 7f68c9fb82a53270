// A registry file of its own for each test, seen from instance "I1", and other processes that use it.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/ObLog.h"
#include "tests/support/test_support.h"

// A forked process that opens the registry for itself and answers questions about it until it is killed. To
// be made while this process has the file closed (see UseFile) and runs no other threads.
class OtherProcess {
 public:
  explicit OtherProcess(const std::function<bool(const std::string&)>& answer) {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_) != 0) throw std::runtime_error("no socket pair");
    pid_ = fork();
    if (pid_ != 0) return;
    char question[256];
    for (;;) {
      const ssize_t size = read(ends_[1], question, sizeof question);
      if (size < 0) _exit(1);
      const char verdict = answer(std::string(question, static_cast<std::size_t>(size))) ? 'y' : 'n';
      if (write(ends_[1], &verdict, 1) != 1) _exit(1);
    }
  }
  ~OtherProcess() {
    kill();
    close(ends_[0]);
    close(ends_[1]);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  bool ask(const std::string& question) {
    char verdict = 'n';
    return write(ends_[0], question.data(), question.size()) > 0 && read(ends_[0], &verdict, 1) == 1 &&
           verdict == 'y';
  }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
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

  static std::optional<std::string> valueOf(const std::string& key, const std::string& name) {
    LQPlatformInfo info(LQPI_Focus::getFocus());
    std::string data;
    if (!info.getString(key, name, data)) return std::nullopt;
    return data;
  }

  test_support::TempDir dir_;
  std::string file_ = dir_ / "registry.db";
  LQPlatformInfo info_;
};
