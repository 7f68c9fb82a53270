// A line of what commands say of a client: a label, and below each other what belongs to them.
#pragma once

#include <string>

namespace host {

inline void addLine(std::string& text, const std::string& label, const std::string& content) {
  constexpr std::size_t kLabelWidth = 14;
  text += label;
  text.append(label.size() < kLabelWidth ? kLabelWidth - label.size() : 1, ' ');
  text += content + "\n";
}

}  // namespace host
