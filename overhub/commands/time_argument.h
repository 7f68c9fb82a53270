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

// Reads one of these forms, into seconds since the epoch. An error that says what is taken instead.
CWmError readTime(const std::string& text, std::int64_t& time);
