// What `lqhost monitor` and `lqhost alerts` have in common.
#pragma once

namespace host {

// Runs the product's log-monitoring check of that plain name once and prints what it logs; the exit code.
[[nodiscard]] int runLogCheck(const char* function);

}  // namespace host
