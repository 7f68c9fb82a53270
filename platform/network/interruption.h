// Ending every network wait of the process at once, when it stops.
#pragma once

// From now on, waits are not begun and those under way end.
void interruptAll();
bool isInterrupted();

// Becomes readable with interruptAll() and stays so: every wait watches it next to its socket. -1 when the
// system had no descriptor for it; then waits only end by themselves.
int interruptionDescriptor();
