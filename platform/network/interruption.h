// Ending every network wait of the process at once, when it stops.
#pragma once

#include "lqregistry/CWmError.h"

// From now on, waits are not begun and those under way end.
void interruptAll();
bool isInterrupted();
CWmError stopping();  // kLqErrStopping, for a step that ends for that

// Becomes readable with interruptAll() and stays so: every wait watches it next to its socket. -1 when the
// system had no descriptor for it; then waits only end by themselves.
int interruptionDescriptor();
