#include "benchmarks/rounds.h"

#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>

namespace bench {

namespace {

int countedRounds = 5;

using Samples = std::map<std::string, std::vector<double>>;

std::string numberText(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", number);
  return text;
}

std::string listText(const std::vector<double>& numbers) {
  std::string text;
  for (const double number : numbers) text += (text.empty() ? "" : ",") + numberText(number);
  return "[" + text + "]";
}

// `{"NAME":VALUE,...}` with the values as `write` writes them. Names here need no escaping.
template <class Map, class Write>
std::string objectText(const Map& map, Write write) {
  std::string text;
  for (const auto& [name, value] : map)
    text += (text.empty() ? "\"" : ",\"") + name + "\":" + std::string(write(value));
  return "{" + text + "}";
}

void print(const Subject& subject, const std::map<std::string, Samples>& sides) {
  const std::string figures =
      objectText(sides, [](const Samples& samples) { return objectText(samples, listText); });
  std::printf("{\"row\":\"%s\",\"case\":\"%s\",\"size\":%zu,\"sides\":%s,\"facts\":%s}\n",
              subject.row.c_str(), subject.kind.c_str(), subject.size, figures.c_str(),
              objectText(subject.facts, numberText).c_str());
  std::fflush(stdout);
}

Figures turn(const Side& side) {
  if (side.prepare) side.prepare();
  malloc_trim(0);
  Figures figures = side.run();
  if (side.check) side.check();
  return figures;
}

}  // namespace

void setRounds(int rounds) {
  countedRounds = rounds;
}

void compare(const Subject& subject, const std::vector<Side>& sides) {
  std::map<std::string, Samples> results;
  for (std::size_t round = 0; round <= static_cast<std::size_t>(countedRounds); ++round) {
    for (std::size_t i = 0; i < sides.size(); ++i) {
      const Side& side = sides[(round + i) % sides.size()];
      for (const auto& [name, value] : turn(side))
        if (round > 0) results[side.name][name].push_back(value);
    }
  }
  print(subject, results);
}

void report(const Subject& subject) {
  print(subject, {});
}

double millisecondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

Figures timed(const std::function<void()>& work) {
  return {{"ms", millisecondsOf(work)}};
}

void demand(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error(what);
}

}  // namespace bench
