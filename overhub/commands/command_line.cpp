#include "overhub/commands/command_line.h"

#include <charconv>
#include <limits>
#include <utility>

#include "overhub/commands/exit_codes.h"
#include "overhub/commands/reporting.h"

CLI::App* addCommand(CLI::App& app, CommandLine& line, const char* name, const char* description,
                     std::function<int(const DataStore&)> command) {
  CLI::App* added = app.add_subcommand(name, description);
  added->fallthrough();
  added->callback([&line, command = std::move(command)] { line.command = command; });
  return added;
}

std::function<int(const DataStore&)> onExisting(std::function<int(const DataStore&)> command) {
  return [command = std::move(command)](const DataStore& store) {
    const CWmError error = store.open();
    return error.IsError() ? complain(kExitDataUnusable, error.AsString()) : command(store);
  };
}

std::function<std::string(const std::string&)> checkNumber(std::int64_t lowest) {
  return [lowest](const std::string& text) -> std::string {
    std::int64_t number = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (fault == std::errc() && end == text.data() + text.size() && number >= lowest) return {};
    return "a number from " + std::to_string(lowest) + " to " +
           std::to_string(std::numeric_limits<std::int64_t>::max()) + " is needed";
  };
}
