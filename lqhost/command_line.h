// The command line, put together from commands that each describe themselves. The library behind it is slow
// to compile and stays in one file.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace host {

class CommandLine {
 public:
  // What a command does, once the process is set up; the program's exit code.
  using Action = std::function<int()>;
  // What a command reads as whoever started it, before the process becomes the service user; adds the places
  // whose owner that may be. An exit code other than 0 ends the program.
  using Preparation = std::function<int(std::vector<std::string>& places)>;
  using Pairs = std::vector<std::pair<std::string, std::string>>;

  // The arguments of the program, or of one command. What they are read into must outlive the line; what it
  // holds before is the default.
  class Options {
   public:
    explicit Options(CLI::App& app) : app_(&app) {}
    Options& required(const char* name, std::string& into, const std::string& description);
    Options& option(const char* name, std::string& into, const std::string& description);
    Options& option(const char* name, std::uint16_t& into, const std::string& description);
    Options& bounded(const char* name, std::uint32_t& into, std::uint32_t least, std::uint32_t most,
                     const std::string& description);
    Options& bounded(const char* name, int& into, int least, int most, const std::string& description);
    // The environment variable is looked at when the option is not given.
    Options& fromEnvironment(const char* name, const char* variable, std::string& into,
                             const std::string& description);
    Options& repeated(const char* name, std::vector<std::string>& into, const std::string& description);
    Options& repeated(const char* name, Pairs& into, const char* words, const std::string& description);

   private:
    CLI::App* app_;
  };

  CommandLine(const char* program, const char* description, const char* footer);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  Options options();  // those of every command
  Options add(const char* command, const char* description, Action action, Preparation preparation = {});

  // Nothing when a command was chosen; otherwise help or the mistake was printed, and this is the exit code.
  std::optional<int> parse(int argc, char** argv);
  const std::string& chosen() const { return chosen_; }
  int prepare(std::vector<std::string>& places) const { return preparation_ ? preparation_(places) : 0; }
  int run() const { return action_(); }

 private:
  std::unique_ptr<CLI::App> app_;
  std::string chosen_;
  Preparation preparation_;
  Action action_;
};

// Reads a file of `name = "value"` lines, such as a join file. False with the reason.
bool readEntries(const std::string& path, std::map<std::string, std::string>& entries, std::string& error);

}  // namespace host
