// How many files and sockets a resident program may have open.
#pragma once

namespace programs {

// Raises this process's limit to the highest that it may give itself: the usual one is made for programs
// without thousands of callers. Nothing is lost when that fails.
void raiseDescriptorLimit();

}  // namespace programs
