// A time as a person gives it on the command line.
#pragma once

#include <cstdint>
#include <string>

#include "lqregistry/CWmError.h"

// What such an argument takes, for help and complaints.
inline constexpr const char* kTimeForms =
    "seconds since the epoch, a time in UTC such as 2027-01-01T06:00, or so much from now: +90 (seconds), "
    "+30m, "
    "+12h, +1d, +2w";

// A time that was typed. What is meant by "from now" is for the store's clock to say, when the time is used.
struct TypedTime {
  std::int64_t seconds = 0;  // since the epoch, or from now
  bool isFromNow = false;

  std::int64_t at(std::int64_t now) const { return isFromNow ? now + seconds : seconds; }
};

// Reads one of these forms. An error that says what is taken instead.
CWmError readTime(const std::string& text, TypedTime& time);

// The same for what is written down: a time that does not depend on when it is read.
CWmError readFixedTime(const std::string& text, std::int64_t& time);
