// The report of a pass for a person: one row a value, and the totals.
#pragma once

#include <cstddef>
#include <string>

#include "lqhost/pass/pass_watch.h"

namespace host {

struct BatchReport {
  std::string text;
  std::size_t failed = 0;  // records
};

// What became of the batch, judged by what the registry holds now.
BatchReport reportOf(PassDetails details);

}  // namespace host
