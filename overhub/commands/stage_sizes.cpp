#include "overhub/commands/stage_sizes.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace {

constexpr std::size_t kWhole = 100;  // percent

// False for what is neither a number nor a percentage. `isWhole` for what is all of them by itself, and not
// only rounded up.
bool readStage(std::string word, std::size_t machines, std::size_t& end, bool& isWhole) {
  const bool isPercentage = word.ends_with('%');
  if (isPercentage) word.pop_back();
  const auto [rest, fault] = std::from_chars(word.data(), word.data() + word.size(), end);
  if (word.empty() || fault != std::errc() || rest != word.data() + word.size() || end == 0) return false;
  isWhole = end >= (isPercentage ? kWhole : machines);
  if (!isPercentage) return true;
  if (end > kWhole) return false;
  end = (machines * end + kWhole - 1) / kWhole;
  return true;
}

}  // namespace

CWmError readStages(const std::string& text, std::size_t machines, std::vector<std::size_t>& ends) {
  CWmError fault{kLqErrArgument, "--stages takes " + std::string(kStageForms) + ", and not \"" + text + "\""};
  ends.clear();
  std::istringstream words(text);
  std::size_t before = 0;
  bool isWhole = false;
  for (std::string word; std::getline(words, word, ',');) {
    std::size_t end = 0;
    if (!readStage(word, machines, end, isWhole) || end < before) return fault;
    before = end;
    end = std::min(end, machines);
    if (ends.empty() || end > ends.back()) ends.push_back(end);
  }
  if (!isWhole || text.ends_with(',')) return fault;
  return {};
}
