// The store as commands take it.
#pragma once

#include <functional>

#include "common/command_line.h"
#include "overhub/store/store.h"

// Adds the options of every command that say where the store is.
void describeStore(programs::CommandLine::Options options, Store::Place& place);

// For a command that needs a store that is there. `place` is looked at when the command runs, and has to live
// until then.
programs::CommandLine::Action onStore(const Store::Place& place, std::function<int(const Store&)> command);

// For one that makes it, if need be.
programs::CommandLine::Action onMadeStore(const Store::Place& place,
                                          std::function<int(const Store&)> command);
