// Loaded before SQLite: counts the calls that run and prepare statements, and writes the counts to a file
// when the process ends.
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

struct sqlite3;
struct sqlite3_stmt;

namespace {

std::atomic<unsigned long> steps{0};
std::atomic<unsigned long> preparations{0};

// The function that would have been called.
template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct Writer {
  ~Writer() {
    const char* const file = std::getenv("LQ_BENCH_COUNTS");  // NOLINT(concurrency-mt-unsafe): it ends
    std::FILE* const out = file != nullptr ? std::fopen(file, "w") : nullptr;
    if (out == nullptr) return;
    std::fprintf(out, "steps %lu\npreparations %lu\n", steps.load(), preparations.load());
    std::fclose(out);
  }
} writer;

}  // namespace

#define LQ_EXPORTED extern "C" __attribute__((visibility("default")))

LQ_EXPORTED int sqlite3_step(sqlite3_stmt* statement) {
  static auto* const real = next<int(sqlite3_stmt*)>("sqlite3_step");
  ++steps;
  return real(statement);
}

LQ_EXPORTED int sqlite3_prepare_v2(sqlite3* database, const char* sql, int bytes, sqlite3_stmt** statement,
                                   const char** tail) {
  static auto* const real =
      next<int(sqlite3*, const char*, int, sqlite3_stmt**, const char**)>("sqlite3_prepare_v2");
  ++preparations;
  return real(database, sql, bytes, statement, tail);
}

LQ_EXPORTED int sqlite3_prepare_v3(sqlite3* database, const char* sql, int bytes, unsigned flags,
                                   sqlite3_stmt** statement, const char** tail) {
  static auto* const real =
      next<int(sqlite3*, const char*, int, unsigned, sqlite3_stmt**, const char**)>("sqlite3_prepare_v3");
  ++preparations;
  return real(database, sql, bytes, flags, statement, tail);
}
