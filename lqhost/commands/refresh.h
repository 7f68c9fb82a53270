// `lqhost refresh`: reapplies the cached settings once now, and reports what that did.
#pragma once

namespace host {

// Runs the product's refresh task once for the instance in focus and prints the report; the program's exit
// code.
int refresh();

}  // namespace host
