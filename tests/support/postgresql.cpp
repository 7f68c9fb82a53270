#include "tests/support/postgresql.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace test_support {

namespace {

constexpr auto kUser = "postgres";  // the package makes it

// Where the newest of the installed versions has its programs.
std::string programFolder() {
  std::string newest;
  std::error_code ignored;
  for (const auto& version : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored))
    if (exists(version.path() / "bin/postgres"))
      newest = std::max(newest, (version.path() / "bin/").string());
  if (newest.empty()) throw std::runtime_error("PostgreSQL is missing: install the package postgresql-15");
  return newest;
}

// From a working directory that every user may read, as the programs go back to it.
std::vector<std::string> commandOf(const std::string& program, const std::vector<std::string>& arguments) {
  std::vector<std::string> command{"env", "--chdir=/"};
  if (geteuid() == 0)
    for (const char* word : {"setpriv", "--reuid", kUser, "--regid", kUser, "--clear-groups"})
      command.emplace_back(word);
  command.push_back(programFolder() + program);
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

// A process that does nothing until the other end of its standard input is closed, which the end of the test
// process does, too. Then it stops the server and removes the folder.
pid_t newKeeper(const std::string& folder, const std::string& data, int standardInput) {
  std::vector<std::string> command{"sh", "-c", "exec >/dev/null 2>&1; cat; \"$@\"; rm -rf \"$0\"", folder};
  const auto stop = commandOf("pg_ctl", {"stop", "--mode=immediate", "--pgdata=" + data});
  command.insert(command.end(), stop.begin(), stop.end());
  std::vector<char*> words;
  for (auto& word : command) words.push_back(word.data());
  words.push_back(nullptr);

  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, standardInput, STDIN_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSID);  // what ends the tests from a terminal is not for it
  pid_t keeper = -1;
  const int failure = posix_spawnp(&keeper, "sh", &files, &attributes, words.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  if (failure != 0) throw std::runtime_error("cannot start sh");
  return keeper;
}

}  // namespace

PostgresServer& PostgresServer::shared() {
  static auto& server = *new PostgresServer;  // its keeper sees to the end
  return server;
}

PostgresServer::PostgresServer(Kind) {
  programFolder();
  if (geteuid() == 0) {
    const passwd* user = getpwnam(kUser);
    if (user == nullptr || chown(folder_.path().c_str(), user->pw_uid, user->pw_gid) != 0)
      throw std::runtime_error("no folder for the user postgres: install the package postgresql-15");
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe to be had");
  life_ = ends[1];
  keeper_ = newKeeper(folder_.path(), data_, ends[0]);
  close(ends[0]);
}

PostgresServer::PostgresServer() : PostgresServer(Kind::kEmpty) {
  run("initdb",
      {"--pgdata=" + data_, "--username=lq", "--auth=trust", "--encoding=UTF8", "--no-locale", "--no-sync"});
  start();
}

PostgresServer::PostgresServer(PostgresServer& primary) : PostgresServer(Kind::kEmpty) {
  run("pg_basebackup",
      {"--pgdata=" + data_, "--host=" + primary.folder_.path().string(), "--username=lq", "--no-sync",
       "--checkpoint=fast", "--create-slot", "--slot=standby", "--write-recovery-conf"});
  start();
  // Only now, or the standby would ask for one of its own when it is promoted.
  primary.query("ALTER SYSTEM SET synchronous_standby_names = '*'");
  primary.query("SELECT pg_reload_conf()");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (primary.query("SELECT sync_state FROM pg_stat_replication") != "sync\n") {
    if (std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("no standby: " + server_->output());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  primary.query("CHECKPOINT");  // done by the process that has commits wait, once it has seen the new setting
}

PostgresServer::~PostgresServer() {
  close(life_);
  endOf(keeper_);
}

void PostgresServer::start() {
  // A crash of the machine is not what is tested, so nothing needs to reach the disk.
  server_.emplace(
      commandOf("postgres", {"-D", data_, "-c", "listen_addresses=", "-c",
                             "unix_socket_directories=" + folder_.path().string(), "-c", "fsync=off"}),
      folder_ / "log");
  if (!server_->waitForOutput("ready to accept"))
    throw std::runtime_error("PostgreSQL: " + server_->output());
}

void PostgresServer::stop() {
  ::kill(server_.value().process(), SIGINT);
  server_->stop();
  server_.reset();
}

void PostgresServer::kill() {
  const pid_t server = server_.value().process();
  ::kill(server, SIGSTOP);  // so that its children are all that there will be
  siginfo_t stopped;
  waitid(P_PID, static_cast<id_t>(server), &stopped, WSTOPPED);
  const auto id = std::to_string(server);
  std::istringstream children(readFile("/proc/" + id + "/task/" + id + "/children"));
  std::vector<int> ends;
  for (pid_t child = 0; children >> child;) {
    ends.push_back(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    ::kill(child, SIGKILL);
  }
  server_.reset();
  for (const int end : ends) {
    pollfd ended{end, POLLIN, 0};
    poll(&ended, 1, -1);
    close(end);
  }
}

void PostgresServer::promote() {
  run("pg_ctl", {"promote", "--wait", "--pgdata=" + data_});
}

std::string PostgresServer::newDatabase() {
  std::string name = "t" + std::to_string(++databases_);
  query("CREATE DATABASE " + name);
  return name;
}

std::string PostgresServer::uri(const std::string& database) const {
  return "postgresql:///" + database + "?user=lq&host=" + folder_.path().string();
}

std::string PostgresServer::uriWith(const PostgresServer& other, const std::string& database) const {
  return uri(database) + "," + other.folder_.path().string() + "&target_session_attrs=read-write";
}

std::string PostgresServer::query(const std::string& sql, const std::string& database) const {
  // A client may look at the standby next, which otherwise has what is done on its disk but does not show it
  // yet.
  const auto settings = "&options=-csynchronous_commit%3Dremote_apply";
  return run("psql", {"--no-psqlrc", "--quiet", "--tuples-only", "--no-align", "--set=ON_ERROR_STOP=1",
                      "--dbname=" + uri(database) + settings, "--command=" + sql});
}

std::string PostgresServer::run(const std::string& program, const std::vector<std::string>& arguments) const {
  const auto done = runProgram(commandOf(program, arguments));
  if (done.exitCode != 0) throw std::runtime_error(program + ": " + done.out + done.err);
  return done.out;
}

}  // namespace test_support
