// The command line of a program, put together from commands that each describe themselves. The library behind
// it is slow to compile and stays in one file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace programs {

// What every program ends with after a mistake on its command line.
inline constexpr int kExitUsage = 2;

class CommandLine {
 public:
  // What a command does, once the process is set up; the program's exit code.
  using Action = std::function<int()>;
  // What a command does before that, as whoever started the program: it reads what only that user may read,
  // and adds the places that it will use. An exit code other than 0 ends the program.
  using Preparation = std::function<int(std::vector<std::string>& places)>;
  using Pairs = std::vector<std::pair<std::string, std::string>>;

  // The arguments of the program, or of one command. What they are read into must outlive the line; what it
  // holds before is the default. A name may be followed by what the help calls the value: "--data DIR".
  class Options {
   public:
    explicit Options(CLI::App& app) : app_(&app) {}
    // Takes text, a number or a pair of texts; a list of those takes every value that is given, also when the
    // option is repeated. What of a type is known stands at the end of command_line.cpp.
    template <class T>
    Options& option(const char* name, T& into, const std::string& description);
    template <class T>
    Options& required(const char* name, T& into, const std::string& description);
    template <class T>
    Options& bounded(const char* name, T& into, std::type_identity_t<T> least, std::type_identity_t<T> most,
                     const std::string& description);
    // As many as it holds before, with commas between them.
    Options& ports(const char* name, std::vector<std::uint16_t>& into, const std::string& description);
    // A number of 64 bits, of which one beyond would otherwise be taken for the highest.
    Options& option(const char* name, std::optional<std::int64_t>& into, std::int64_t least,
                    const std::string& description);
    Options& required(const char* name, std::int64_t& into, const std::string& description);
    // One that may stand without a value, which is then empty; the next argument that is no option is its
    // value.
    Options& maybeWithValue(const char* name, std::optional<std::string>& into,
                            const std::string& description);
    Options& flag(const char* name, bool& into, const std::string& description);

    // Of the one described last: the variable is looked at when it is not given; it does not go together with
    // another one; it goes with that one only.
    Options& fromEnvironment(const char* variable);
    Options& excludes(const char* other);
    Options& needs(const char* other);

    // Of a command: what its help ends with, instead of what the program's does without the examples of
    // other commands.
    Options& footer(const char* text);

   private:
    template <class T>
    CLI::Option& add(const std::string& name, T& into, const std::string& description);

    CLI::App* app_;
    CLI::Option* last_ = nullptr;
  };

  CommandLine(const char* program, const char* description, const char* footer);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  Options options();  // those of every command
  Options add(const char* command, const char* description, Action action, Preparation preparation = {});

  // Nothing when a command was chosen; otherwise help, version or the mistake was printed, and this is the
  // exit code: 0, or kExitUsage.
  [[nodiscard]] std::optional<int> parse(int argc, char** argv);
  const std::string& chosen() const { return chosen_; }
  [[nodiscard]] int prepare(std::vector<std::string>& places) const {
    return preparation_ ? preparation_(places) : 0;
  }
  [[nodiscard]] int run() const { return action_(); }

 private:
  std::unique_ptr<CLI::App> app_;
  std::string chosen_;
  Action action_;
  Preparation preparation_;
};

}  // namespace programs
