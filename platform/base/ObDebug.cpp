// The printf-style calls of the loggers: compare with the threshold, format, hand over.
#include "lqregistry/ObDebug.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "platform/base/log_core.h"

namespace {

std::string formatted(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));
std::string formatted(const char* format, va_list arguments) {
  std::array<char, 1024> shortText;
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(shortText.data(), shortText.size(), format, arguments);
  std::string text;
  if (length < 0) {
    text = format;  // a text that cannot be formatted is better than none
  } else if (static_cast<std::size_t>(length) < shortText.size()) {
    text.assign(shortText.data(), static_cast<std::size_t>(length));
  } else {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

bool isShown(int level) {
  return level <= oblog::effectiveLevel.load(std::memory_order_relaxed);
}

}  // namespace

void ObLogger::Error(const char* tag, const char* format, ...) const {
  va_list arguments;
  va_start(arguments, format);
  oblog::write({oblog::Kind::kError, 0, 0, logId_, tag, formatted(format, arguments)});
  va_end(arguments);
}

void ObLogger::Debug(const char* tag, const char* format, ...) const {
  if (!isShown(kLqLogDefaultLevel)) return;
  va_list arguments;
  va_start(arguments, format);
  oblog::write({oblog::Kind::kPlain, kLqLogDefaultLevel, 0, logId_, tag, formatted(format, arguments)});
  va_end(arguments);
}

void ObLogger::DebugLvl(int level, const char* tag, const char* format, ...) const {
  if (!isShown(level)) return;
  va_list arguments;
  va_start(arguments, format);
  oblog::write({oblog::Kind::kLevelled, level, 0, logId_, tag, formatted(format, arguments)});
  va_end(arguments);
}

void ObLogger::DebugLvl(int level, std::int64_t context, const char* tag, const char* format, ...) const {
  if (!isShown(level)) return;
  va_list arguments;
  va_start(arguments, format);
  oblog::write({oblog::Kind::kLevelled, level, context, logId_, tag, formatted(format, arguments)});
  va_end(arguments);
}
