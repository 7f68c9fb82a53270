// A PostgreSQL of the tests' own: it listens on a Unix socket in its folder and nowhere else, never runs as
// root, and goes with the test process, however that ends. What cannot be done is thrown, which fails the
// test.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace test_support {

class PostgresServer {
 public:
  // The one that the tests of a process share; started by the first of them.
  static PostgresServer& shared();

  PostgresServer();
  // A standby of that one, which from now on confirms no commit before the standby has it on disk.
  explicit PostgresServer(PostgresServer& primary);
  ~PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  void start();
  void stop();  // ends the sessions that there are
  void kill();  // what a crash does, to the server and to every session
  void promote();

  // Makes an empty database; its name.
  std::string newDatabase();
  // As newDatabase; its URI.
  std::string freshDatabase() { return uri(newDatabase()); }
  std::string uri(const std::string& database) const;
  // For a client that is to find whichever of the two can be written to.
  std::string uriWith(const PostgresServer& other, const std::string& database) const;
  // What a statement gives, one line a row and columns separated by |.
  std::string query(const std::string& sql, const std::string& database = "postgres") const;

 private:
  enum class Kind { kEmpty };
  explicit PostgresServer(Kind);
  // Runs one of PostgreSQL's programs to its end, as the server's user.
  std::string run(const std::string& program, const std::vector<std::string>& arguments) const;

  TempDir folder_;
  std::string data_ = folder_ / "data";
  int life_ = -1;  // the keeper stops the server and removes its folder when this is closed
  pid_t keeper_ = -1;
  std::optional<BackgroundProgram> server_;
  int databases_ = 0;
};

}  // namespace test_support
