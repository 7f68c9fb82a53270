// The report of a pass for a person: one row a value, and the totals.
#pragma once

#include <cstddef>

#include "lqhost/pass/pass_observer.h"

namespace host {

// Prints what became of the batch, judged by what the registry holds now; the number of records that failed.
std::size_t reportBatch(const PassFacts& facts);

}  // namespace host
