// The families of rows; each measures what its file says and prints a line of results a comparison.
#pragma once

#include <cstddef>

#include "benchmarks/rounds.h"

namespace bench {

void passRow(std::size_t size);
void peakRow(std::size_t size);
void syncRow(std::size_t size);
void uploadRow(std::size_t size);
void valuesRow(std::size_t size);
void callbacksRow(std::size_t size);
void startRow(std::size_t size);
void xmlRow(std::size_t size);
void logRow(std::size_t size);
void countsRow(std::size_t size);

// For the rows that look at a process from outside: one pass, or one upload, of the machine in the folder.
int runOnce(const char* work, const char* folder);

}  // namespace bench
