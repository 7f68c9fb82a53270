// `lqhost status`: what a person wants to know of a client: joined to what, how the last passes went, when
// the next are due, and which values differ from what the cache says they should be.
#pragma once

namespace host {

// Prints the report for the instance in focus; the program's exit code.
int status();

}  // namespace host
