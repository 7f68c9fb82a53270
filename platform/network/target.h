// The text form of an attach target, "host*client*port1*port2", and its parts.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "lqregistry/CWmError.h"

struct Target {
  std::string host;
  std::string client;
  std::array<std::uint16_t, 2> ports{};  // tried in this order
};

// Takes a MangleHostName text apart, from the right; kLqErrBadTarget when it is none.
CWmError parseTarget(const std::string& text, Target& target);
