// What of this machine's registry an upload did not carry. The product uploads what it can read into its
// buffer and passes over the rest; here it is counted and named.
#pragma once

#include <cstddef>
#include <string>

#include "lqregistry/OBGui.h"

namespace host {

struct LeftOut {
  std::size_t count = 0;
  std::string lines;  // what and why, for people: the first kNamedLeftOut, and how many more
};
inline constexpr std::size_t kNamedLeftOut = 20;

// Compares the registry of the instance in focus, as it is now, with the records that were sent.
LeftOut leftOutOf(const OBGui::KeyList& sent);

}  // namespace host
