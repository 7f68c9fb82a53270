// What many tests expect of the programs they run, and of the processes and threads that they start.
#pragma once

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <ctime>
#include <thread>

#include "tests/support/test_support.h"

namespace test_support {

// That a program ended with this exit code, and what it said on one of its streams held each of these parts.
inline void expectSaid(const ProgramResult& result, int exitCode, const std::string& stream,
                       const std::vector<std::string>& parts, int line) {
  const std::string where = " at line " + std::to_string(line) + ", of\n" + result.out + result.err;
  EXPECT_EQ(result.exitCode, exitCode) << where;
  for (const std::string& part : parts) EXPECT_TRUE(contains(stream, part)) << part << where;
}
inline void expectOut(const ProgramResult& result, int exitCode, const std::vector<std::string>& parts,
                      int line = __builtin_LINE()) {
  expectSaid(result, exitCode, result.out, parts, line);
}
inline void expectErr(const ProgramResult& result, int exitCode, const std::vector<std::string>& parts,
                      int line = __builtin_LINE()) {
  expectSaid(result, exitCode, result.err, parts, line);
}

// What a program said that did what it was asked for.
inline std::string outOf(const ProgramResult& result, int line = __builtin_LINE()) {
  expectOut(result, 0, {}, line);
  return result.out;
}

// As long as nothing comes, this process sleeps, whoever waits in it.
inline void expectSleeping() {
  constexpr double kSeconds = 0.2;
  const std::clock_t before = std::clock();
  std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
  EXPECT_LT(static_cast<double>(std::clock() - before), kSeconds / 4 * CLOCKS_PER_SEC);
}

// What this process has taken of its heap; 0 under a sanitizer, which has one of its own.
inline std::size_t memoryInUse() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// Every byte from this one on, in order.
inline std::string everyByte(int first = 1) {
  std::string bytes;
  for (int byte = first; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

// Begins `work`, whose result is the exit code, in a process of its own.
template <class Work>
pid_t startChild(const Work& work) {
  const pid_t child = fork();
  if (child != 0) return child;
  _exit(work());
}

}  // namespace test_support
