// The table of message classes by name, from which what is received is built. Any thread.
#pragma once

#include <string_view>

#include "lqregistry/CNMessageBase.h"

namespace lqmessage {

// Null for a class that nobody has registered (registerMessageClass).
MessageFactory factoryOf(std::string_view className);

}  // namespace lqmessage
