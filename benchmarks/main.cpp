// Measures one family of rows and prints a JSON object for each comparison; scripts/bench runs it.
//
//   lq_bench ROW SIZE [ROUNDS]
//   lq_bench --once pass|upload FOLDER     for the rows that look at a process from outside
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "benchmarks/rows.h"

namespace {

struct Row {
  std::string_view name;
  void (*measure)(std::size_t size);
};
constexpr Row kRows[] = {
    {"pass", bench::passRow},     {"peak", bench::peakRow},     {"sync", bench::syncRow},
    {"upload", bench::uploadRow}, {"values", bench::valuesRow}, {"callbacks", bench::callbacksRow},
    {"start", bench::startRow},   {"xml", bench::xmlRow},       {"log", bench::logRow},
    {"counts", bench::countsRow},
};

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 4 && std::string_view(argv[1]) == "--once") return bench::runOnce(argv[2], argv[3]);
  if (argc == 4) bench::setRounds(std::atoi(argv[3]));
  for (const Row& row : kRows) {
    if ((argc != 3 && argc != 4) || row.name != argv[1]) continue;
    row.measure(std::strtoul(argv[2], nullptr, 10));
    return 0;
  }
  std::fprintf(stderr, "usage: lq_bench ROW SIZE [ROUNDS]\n");
  return 2;
} catch (const std::exception& fault) {
  std::fprintf(stderr, "lq_bench: %s\n", fault.what());
  return 1;
}
