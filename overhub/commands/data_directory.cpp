#include "overhub/commands/data_directory.h"

#include <utility>

#include "overhub/commands/reporting.h"

programs::CommandLine::Action onExisting(const std::string& data,
                                         std::function<int(const DataStore&)> command) {
  return [&data, command = std::move(command)] {
    const DataStore store(data);
    const CWmError error = store.open();
    return error.IsError() ? dataUnusable(error) : command(store);
  };
}
