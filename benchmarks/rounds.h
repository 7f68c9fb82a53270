// Timing several sides of one comparison turn about, and saying so as one JSON object a line.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

// What one round of one side gave, each figure by its name with its unit: "ms", "cpu_ms", "ns".
using Figures = std::map<std::string, double>;

struct Side {
  std::string name;
  std::function<void()> prepare;  // outside the timed stretch
  std::function<Figures()> run;   // inside it
  std::function<void()> check;    // outside again; throws when the work was not done
};

// Which measurement this is, and what else is known of it.
struct Subject {
  std::string row;
  std::string kind;
  std::size_t size = 0;
  Figures facts{};
};

// A round that is not counted, then as many as `--rounds` says, each with every side; who begins changes from
// round to round. Before each turn the heap gives its free pages back, so that no side works in another's.
void compare(const Subject& subject, const std::vector<Side>& sides);

// Facts alone, where there is nothing to time.
void report(const Subject& subject);

void setRounds(int rounds);

// The wall time of `work` in milliseconds, as the figure "ms".
Figures timed(const std::function<void()>& work);
double millisecondsOf(const std::function<void()>& work);

// Throws when `holds` is false: no figure of work that was not done.
void demand(bool holds, const std::string& what);

}  // namespace bench
