#include "lqregistry/UtcText.h"

#include <array>

namespace {

constexpr const char* kTimeFormat = "%Y-%m-%dT%H:%M:%SZ";
constexpr std::size_t kTimeBuffer = 32;

}  // namespace

std::string lqtext::utcText(std::time_t time) {
  std::tm parts{};
  gmtime_r(&time, &parts);
  std::array<char, kTimeBuffer> text{};
  std::strftime(text.data(), text.size(), kTimeFormat, &parts);
  return text.data();
}
