// The time by which a deadline is kept: the time since the machine started, which no clock that is set can
// move, and the wall clock for a deadline that outlasts a restart.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace host {

struct Moment {
  std::string boot;            // differs with each start of the machine
  std::int64_t sinceBoot = 0;  // milliseconds, time asleep included
  std::int64_t wall = 0;       // seconds since the epoch
};

Moment thisMoment();

// Sets what thisMoment gives, for tests; an empty function gives the machine's clocks back. Not while another
// thread asks.
void useClock(std::function<Moment()> clock);

}  // namespace host
