// The text form of a message, written field by field into one buffer. A tree that is built only to be printed
// would touch every byte three times.
#pragma once

#include <string>
#include <string_view>

#include "lqregistry/CNMessageBase.h"

namespace lqmessage {

// How a protected string is told from its V8 text where it stands in clear.
inline constexpr std::string_view kClearPrefix = "clear:";

enum class Layout { kOneLine, kForPeople };

// Replaces `text`. Protected strings as their V8 text, or in clear when `revealProtected`. False when one can
// be neither told nor protected; the text then stays as it was.
bool writeMessage(const CNMessageBase& message, std::string& text, bool revealProtected, Layout layout);

}  // namespace lqmessage
