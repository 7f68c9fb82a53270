// A client machine and its server for measuring: a folder of its own, a registry that has joined, a ready
// server on a loopback address, and the folder's texts of batches.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "benchmarks/batch.h"
#include "benchmarks/process.h"

namespace bench {

inline constexpr std::int64_t kClientId = 42;
inline constexpr const char* kClientName = "client42";
inline constexpr const char* kInstance = "Instance001";

// A fresh folder below the one that LQ_BENCH_FOLDER names, removed at its end. What is measured waits for
// that disk, so without the variable it is not below /tmp, which may be memory.
class Folder {
 public:
  Folder();
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  std::string path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// A program that was built beside this one.
std::string siblingOf(const std::string& name);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// The ready server as a child of this process.
class ReadyServer {
 public:
  ReadyServer(const std::string& address, const std::string& keyHex);

  // What it answers from now on; how many batches were acknowledged as applied since the last time.
  int answerWith(const std::string& file);

 private:
  Child child_;
};

class Machine {
 public:
  Machine();

  // A registry that has just joined, in the place of the one before, without a cache; both of this process's
  // connections to it are open.
  void begin() const;
  // Throws unless one batch was acknowledged as applied since the server was told its answer.
  void demandApplied();
  // The text of a batch, made at its first use.
  std::string batchFile(std::size_t records, int version) const;

  Folder folder;
  std::string address;
  std::string keyHex;
  ReadyServer server;
};

// One pass as a host runs it: 0 when a batch came and was handled.
int synchronise();
// What the registry in use holds in the place of a setting.
std::string valueOf(const Setting& setting);

// What a process needs to use the machine in the folder; quiet.
void use(const std::string& folder);

}  // namespace bench
