#include "lqhost/command_line.h"

#include <CLI/CLI.hpp>

#include "lqhost/exit_codes.h"

namespace host {

using Options = CommandLine::Options;

Options& Options::required(const char* name, std::string& into, const std::string& description) {
  app_->add_option(name, into, description)->required();
  return *this;
}

Options& Options::option(const char* name, std::string& into, const std::string& description) {
  CLI::Option* const option = app_->add_option(name, into, description);
  if (!into.empty()) option->capture_default_str();
  return *this;
}

Options& Options::option(const char* name, std::uint16_t& into, const std::string& description) {
  app_->add_option(name, into, description)->capture_default_str();
  return *this;
}

Options& Options::bounded(const char* name, std::uint32_t& into, std::uint32_t least, std::uint32_t most,
                          const std::string& description) {
  app_->add_option(name, into, description)->check(CLI::Range(least, most))->capture_default_str();
  return *this;
}

Options& Options::bounded(const char* name, int& into, int least, int most, const std::string& description) {
  app_->add_option(name, into, description)->check(CLI::Range(least, most))->capture_default_str();
  return *this;
}

Options& Options::fromEnvironment(const char* name, const char* variable, std::string& into,
                                  const std::string& description) {
  app_->add_option(name, into, description)->envname(variable)->capture_default_str();
  return *this;
}

Options& Options::repeated(const char* name, std::vector<std::string>& into, const std::string& description) {
  app_->add_option(name, into, description);
  return *this;
}

Options& Options::repeated(const char* name, Pairs& into, const char* words, const std::string& description) {
  app_->add_option(name, into, description)->type_name(words);
  return *this;
}

CommandLine::CommandLine(const char* program, const char* description, const char* footer)
    : app_(std::make_unique<CLI::App>(description, program)) {
  app_->footer(footer);
  app_->require_subcommand(1);
  app_->fallthrough();
}

CommandLine::~CommandLine() = default;

Options CommandLine::options() {
  return Options(*app_);
}

Options CommandLine::add(const char* command, const char* description, Action action,
                         Preparation preparation) {
  CLI::App* const app = app_->add_subcommand(command, description);
  app->callback([this, command, does = std::move(action), prepares = std::move(preparation)] {
    chosen_ = command;
    preparation_ = prepares;
    action_ = does;
  });
  return Options(*app);
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app_->exit(error) == 0 ? kExitOk : kExitUsage;
  }
  return std::nullopt;
}

bool readEntries(const std::string& path, std::map<std::string, std::string>& entries, std::string& error) {
  try {
    for (const CLI::ConfigItem& item : CLI::ConfigTOML().from_file(path))
      if (item.inputs.size() == 1) entries[item.name] = item.inputs[0];
  } catch (const CLI::Error& failure) {
    error = failure.what();
  }
  return error.empty();
}

}  // namespace host
