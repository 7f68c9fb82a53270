// How the programs begin: as the user that the registry belongs to, for that user only, and with a disk that
// is full an error like any other.
#include <grp.h>
#include <sys/stat.h>

#include "common/program_start.h"
#include "tests/lqhost/host_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

class ProgramStart : public HostTest {
 protected:
  static uid_t ownerOf(const std::string& path) {
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
    return file.st_uid;
  }
  // The user that a command is expected to run as where `path` belongs to `user`: that one if root starts it.
  // The ordinary user can give nothing away, and stays. A user that has a name has groups of its own.
  uid_t giveAway(const std::string& path, uid_t user = kNobody) const {
    if (geteuid() != 0) return geteuid();
    EXPECT_EQ(chown(path.c_str(), user, user == kNobody ? 4 : user), 0);
    return user;
  }
};

TEST_F(ProgramStart, ACommandOfRootRunsAsTheUserThatTheRegistryBelongsTo) {
  const uid_t user = giveAway(dir_.path());
  const std::vector<std::string> value{"--instance", "Instance001", "A", "name"};
  const auto lqreg = [&](std::vector<std::string> words) {
    words.insert(words.begin() + 1, value.begin(), value.end());
    return runProgram(onClient(words, "lqreg"));
  };
  EXPECT_EQ(lqreg({"set", "data"}).exitCode, 0);
  for (const char* const suffix : {"", ".key"}) EXPECT_EQ(ownerOf(clientRegistry_ + suffix), user);
  EXPECT_EQ(lqreg({"get"}).out, "data\n");

  // The file counts before its folder; what it belongs to is nobody else's to write.
  ASSERT_EQ(chown(dir_.path().c_str(), geteuid(), getegid()), 0);
  const auto refused = runProgram(onClient({"set", "--instance", "I1", "A", "name", "new"}, "lqreg"));
  EXPECT_EQ(refused.exitCode, geteuid() == 0 ? 3 : 0) << refused.err;
}

TEST_F(ProgramStart, JoiningAsRootIsForTheUserThatTheInstallationBelongsTo) {
  addClient();
  fs::create_directory(home_);
  fs::permissions(home_, fs::perms::owner_all);
  const uid_t user = giveAway(home_, 54321);       // a number that no user has
  ASSERT_EQ(chmod(dir_.path().c_str(), 0711), 0);  // so that this user can get there
  const std::vector<std::string> join{"join", joinFile_, "--home", home_, "--machine", "machine1"};
  EXPECT_EQ(lqhost(join).exitCode, user == geteuid() ? 0 : 3) << "a registry that is not that user's";
  clientRegistry_ = home_ + "/registry.db";
  expectErr(lqhost({"join", joinFile_, "--base", home_ + "/Base"}), 3, {"directory /opt/velmor/Log_Files:"});
  EXPECT_EQ(lqhost(join).exitCode, 0);
  for (const char* const made : {"/registry.db", "/registry.db.key", "/Base", "/Log_Files"})
    EXPECT_EQ(ownerOf(home_ + made), user) << made;

  // No command leaves behind what the service user could not write.
  lqhost({"sync"});
  lqhost({"status"});
  for (const auto& entry : fs::recursive_directory_iterator(home_))
    EXPECT_TRUE(ownerOf(entry.path()) == user && modeOf(entry.path()) == (entry.is_directory() ? 0700 : 0600))
        << entry.path();
}

TEST_F(ProgramStart, GivesUpEveryRightOfRootForGood) {
  if (geteuid() != 0) {
    EXPECT_FALSE(programs::becomeServiceUser({"/etc/passwd", dir_.path()}).IsError()) << "nothing to do";
    return;
  }
  const pid_t child = startChild([&] {
    giveAway(dir_.path());
    const gid_t roots[] = {0, 4};
    if (setgroups(2, roots) != 0) _exit(2);
    // What is root's is passed over, and what is not there counts as its folder.
    const CWmError error = programs::becomeServiceUser({"/etc/passwd", dir_ / "none"});
    const bool isForGood = !error.IsError() && setuid(0) != 0 && setgid(0) != 0;
    const std::string now = readFile("/proc/self/status");
    for (const char* const own : {"\nUid:\t65534\t65534\t65534\t65534\n",
                                  "\nGid:\t65534\t65534\t65534\t65534\n", "\nGroups:\t65534 \n"})
      if (!contains(now, own)) return 1;
    return isForGood ? 0 : 1;
  });
  EXPECT_EQ(endOf(child), 0);
}

TEST_F(ProgramStart, AFileThatMayGrowNoFurtherIsAnErrorThatIsTold) {
  addClient();
  const std::pair<std::vector<std::string>, const char*> commands[] = {
      {onClient({"set", "--instance", "I1", "A", "name", "data"}, "lqreg"), "disk I/O error (file \""},
      {onClient({"join", joinFile_, "--home", home_}), "lqhost: disk I/O error (file \""},
      {{programPath("overhub"), "--data", data_, "set", "web-1", "p", "n", "v"},
       "overhub.db: disk I/O error; nothing was changed, see that its disk is sound and has room"}};
  for (auto [command, reason] : commands) {
    command.insert(command.begin(), {"sh", "-c", "ulimit -f 1; exec \"$0\" \"$@\""});
    expectErr(runProgram(command), 3, {reason});
  }
  EXPECT_TRUE(batchOf("web-1").keys->empty());
}

}  // namespace
