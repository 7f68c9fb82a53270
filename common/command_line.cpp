#include "common/command_line.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstring>
#include <iostream>
#include <limits>
#include <sstream>

#include "common/terminal_text.h"

namespace programs {

namespace {

// The check that an argument is a number from `least` to the highest of 64 bits.
std::function<std::string(const std::string&)> numberFrom(std::int64_t least) {
  return [least](const std::string& text) -> std::string {
    std::int64_t number = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (fault == std::errc() && end == text.data() + text.size() && number >= least) return {};
    return "a number from " + std::to_string(least) + " to " +
           std::to_string(std::numeric_limits<std::int64_t>::max()) + " is needed";
  };
}

// Of the program's footer what concerns one command: the lines that begin with the program's name are
// examples of the command that they name.
std::string footerFor(const std::string& program, const std::string& command, const std::string& footer) {
  constexpr const char* kHeading = "Examples:";
  std::string kept;
  bool hasExample = false;
  std::istringstream lines(footer);
  for (std::string line; std::getline(lines, line);) {
    const bool isExample = line.starts_with("  " + program + " ");
    if (isExample && (line + " ").find(" " + command + " ") == std::string::npos) continue;
    hasExample = hasExample || isExample;
    kept += line + "\n";
  }
  if (const std::size_t heading = kept.find(kHeading); !hasExample && heading != std::string::npos)
    kept.erase(heading, kept.find_first_not_of('\n', heading + std::strlen(kHeading)) - heading);
  while (kept.ends_with('\n')) kept.pop_back();
  return kept;
}

}  // namespace

using Options = CommandLine::Options;

template <class T>
CLI::Option& Options::add(const std::string& name, T& into, const std::string& description) {
  const std::size_t end = name.find(' ');
  last_ = app_->add_option(name.substr(0, end), into, description);
  if (end != std::string::npos) last_->type_name(name.substr(end + 1));
  return *last_;
}

template <class T>
Options& Options::option(const char* name, T& into, const std::string& description) {
  add(name, into, description);
  if (into != T()) last_->capture_default_str();
  return *this;
}

template <class T>
Options& Options::required(const char* name, T& into, const std::string& description) {
  add(name, into, description).required();
  return *this;
}

template <class T>
Options& Options::bounded(const char* name, T& into, std::type_identity_t<T> least,
                          std::type_identity_t<T> most, const std::string& description) {
  add(name, into, description).check(CLI::Range(least, most))->capture_default_str();
  return *this;
}

Options& Options::ports(const char* name, std::vector<std::uint16_t>& into, const std::string& description) {
  std::string held;
  for (const std::uint16_t port : into) held += (held.empty() ? "" : ",") + std::to_string(port);
  add(name, into, description)
      .delimiter(',')
      ->expected(static_cast<int>(into.size()))
      ->check(CLI::Range(1, static_cast<int>(std::numeric_limits<std::uint16_t>::max())))
      ->default_str(held);
  return *this;
}

Options& Options::option(const char* name, std::optional<std::int64_t>& into, std::int64_t least,
                         const std::string& description) {
  add(name, into, description).check(numberFrom(least));
  return *this;
}

Options& Options::required(const char* name, std::int64_t& into, const std::string& description) {
  add(name, into, description).check(numberFrom(std::numeric_limits<std::int64_t>::min()))->required();
  return *this;
}

Options& Options::maybeWithValue(const char* name, std::optional<std::string>& into,
                                 const std::string& description) {
  const std::string all = name;
  const std::size_t end = all.find(' ');
  last_ = app_->add_option_function<std::vector<std::string>>(
      all.substr(0, end),
      [&into](const std::vector<std::string>& given) { into = given.empty() ? "" : given.front(); },
      description);
  last_->expected(0, 1)->type_name(end == std::string::npos ? "" : all.substr(end + 1));
  return *this;
}

Options& Options::flag(const char* name, bool& into, const std::string& description) {
  last_ = app_->add_flag(name, into, description);
  return *this;
}

Options& Options::fromEnvironment(const char* variable) {
  last_->envname(variable);
  return *this;
}

Options& Options::excludes(const char* other) {
  last_->excludes(other);
  return *this;
}

Options& Options::needs(const char* other) {
  last_->needs(other);
  return *this;
}

Options& Options::footer(const char* text) {
  app_->footer(text);
  return *this;
}

CommandLine::CommandLine(const char* program, const char* description, const char* footer)
    : app_(std::make_unique<CLI::App>(description, program)) {
  app_->footer(footer);
  app_->set_version_flag("--version", std::string(program) + " " LQ_VERSION, "Print the version and exit");
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
  app->footer(footerFor(app_->get_name(), command, app_->get_footer()));
  app->callback([this, command, does = std::move(action), before = std::move(preparation)] {
    chosen_ = command;
    action_ = does;
    preparation_ = before;
  });
  return Options(*app);
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::RequiredError& error) {
    const std::vector<std::string> unknown = app_->remaining();
    if (unknown.empty() || !app_->get_subcommands().empty()) return app_->exit(error) == 0 ? 0 : kExitUsage;
    std::cerr << "there is no command \"" << escapedForTerminal(unknown.front())
              << "\"\nRun with --help for more information.\n";
    return kExitUsage;
  } catch (const CLI::ParseError& error) {
    return app_->exit(error) == 0 ? 0 : kExitUsage;
  }
  return std::nullopt;
}

template Options& Options::option(const char*, std::string&, const std::string&);
template Options& Options::option(const char*, std::optional<std::string>&, const std::string&);
template Options& Options::option(const char*, std::uint16_t&, const std::string&);
template Options& Options::option(const char*, std::vector<std::string>&, const std::string&);
template Options& Options::option(const char*, CommandLine::Pairs&, const std::string&);
template Options& Options::required(const char*, std::string&, const std::string&);
template Options& Options::required(const char*, std::vector<std::string>&, const std::string&);
template Options& Options::bounded(const char*, int&, int, int, const std::string&);
template Options& Options::bounded(const char*, std::uint16_t&, std::uint16_t, std::uint16_t,
                                   const std::string&);
template Options& Options::bounded(const char*, std::uint32_t&, std::uint32_t, std::uint32_t,
                                   const std::string&);

}  // namespace programs
