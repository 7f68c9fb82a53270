// The data directory as most commands take it: it has to be there.
#pragma once

#include <functional>
#include <string>

#include "common/command_line.h"
#include "overhub/store/data_store.h"

// `data` is looked at when the command runs, and has to live until then.
programs::CommandLine::Action onExisting(const std::string& data,
                                         std::function<int(const DataStore&)> command);
