// Lengths of time as people say them, the same in every list, report and page.
#pragma once

#include <cstdint>
#include <string>

namespace programs {

// "40 s", "5 min", "3 h", "2 days", "3 weeks", "5 months", "4 years": in the largest unit of which there are
// two, so that what is left out is less than half, and nobody reads of "1 days". Below 0 with a minus sign.
std::string durationText(std::int64_t seconds);

// How long `time` is ago at `now`, both in seconds since the epoch: "just now" in the first seconds, then "40
// s ago" and so on. "never" for a time of 0, and "in the future" when one of two clocks is behind.
std::string ageText(std::int64_t time, std::int64_t now);

}  // namespace programs
