#include "lqhost/log_file.h"

#include <string>

#include "lqregistry/LQPlatformInfo.h"

namespace host {

namespace {

// The resident host has a log of its own: two processes that rotate one file lose lines.
constexpr const char* kResidentLogFile = "lqhost.log";
constexpr const char* kCommandLogFile = "lqhost-command.log";
constexpr const char* kStandardError = "-";

}  // namespace

CWmError setUpLog(programs::LogOptions options, bool isResident) {
  LQPI_EventManager eventManager(0, 1);
  if (options.file == kStandardError) {
    options.file.clear();
  } else if (const char* const directory = eventManager.getLogFilesDirectory();
             options.file.empty() && directory != nullptr) {
    options.file = std::string(directory) + "/" + (isResident ? kResidentLogFile : kCommandLogFile);
  }
  CWmError error = programs::configureLog(options);
  if (!error.IsError()) return {};
  options.file.clear();
  static_cast<void>(programs::configureLog(options));  // standard error can always be had
  return error;
}

}  // namespace host
