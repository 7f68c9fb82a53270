// Sinks, threshold and captures of the log. The state is created at first use and never destroyed, because
// other libraries' statics log while they are torn down.
#include "platform/base/log_core.h"

#include <fcntl.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <mutex>
#include <string_view>

#include "lqregistry/PrintableText.h"
#include "platform/base/file_replacement.h"

namespace oblog {

std::atomic<int> effectiveLevel{kLqLogDefaultLevel};

namespace {

constexpr std::size_t kRotatedFiles = 2;

// Runs before each opening of the file, also when the log turns over. The log holds whatever the product logs
// of the registry, so the file is made here, for its owner only; and a link or a pipe that somebody put in
// its place is neither written to nor waited for.
void prepareLogFile(const std::string& name) {
  auto_handle handle;
  const CWmError error = lqfile::openRegular(name, O_WRONLY | O_CREAT | O_NOFOLLOW, handle);
  if (error.IsError()) throw spdlog::spdlog_ex(error.AsString());
}

std::shared_ptr<spdlog::logger> makeLogger(const Settings& settings) {
  std::vector<spdlog::sink_ptr> sinks;
  if (settings.toStandardError) sinks.push_back(std::make_shared<spdlog::sinks::stderr_sink_mt>());
  if (!settings.file.empty()) {
    spdlog::file_event_handlers handlers;
    handlers.before_open = &prepareLogFile;
    sinks.push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
        settings.file, settings.maxFileBytes, kRotatedFiles, false, handlers));
  }
  auto logger = std::make_shared<spdlog::logger>("oblog", sinks.begin(), sinks.end());
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);
  logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e %P %t %v");
  return logger;
}

struct State {
  std::mutex mutex;
  int threshold = kLqLogDefaultLevel;
  std::shared_ptr<spdlog::logger> logger = makeLogger(Settings{});
  std::vector<std::pair<int, std::vector<Line>*>> captures;  // level and where the lines go

  void updateEffectiveLevel() {
    int level = threshold;
    for (const auto& [captureLevel, lines] : captures) level = std::max(level, captureLevel);
    effectiveLevel.store(level, std::memory_order_relaxed);
  }
};

State& state() {
  static auto* const theState = new State;
  return *theState;
}

void appendEscaped(std::string& out, std::string_view text) {
  while (!text.empty()) text.remove_prefix(lqtext::appendPrintable(out, text));
}

std::string render(const Line& line) {
  std::string text = line.kind == Kind::kError ? "E" : std::to_string(line.level);
  text += " [";
  appendEscaped(text, line.tag);
  text += "] ";
  appendEscaped(text, line.text);
  if (line.logId != 0) text += " {log " + std::to_string(line.logId) + "}";
  if (line.context != 0) text += " {context " + std::to_string(line.context) + "}";
  return text;
}

}  // namespace

void write(const Line& line) {
  State& s = state();
  const std::lock_guard lock(s.mutex);
  if (line.kind == Kind::kError || line.level <= s.threshold)
    s.logger->info(spdlog::string_view_t(render(line)));
  for (const auto& [level, lines] : s.captures)
    if (line.kind == Kind::kError || line.level <= level) lines->push_back(line);
}

CWmError Configure(const Settings& settings) {
  try {
    auto logger = makeLogger(settings);
    State& s = state();
    const std::lock_guard lock(s.mutex);
    s.logger = std::move(logger);
    s.threshold = settings.threshold;
    s.updateEffectiveLevel();
    return {};
  } catch (const std::exception& failure) {
    return {kLqErrFile, std::string("cannot open the log file ") + failure.what()};
  }
}

struct Capture::Impl {
  std::vector<Line> lines;
};

Capture::Capture(int level) : impl_(new Impl) {
  State& s = state();
  const std::lock_guard lock(s.mutex);
  s.captures.emplace_back(level, &impl_->lines);
  s.updateEffectiveLevel();
}

Capture::~Capture() {
  State& s = state();
  const std::lock_guard lock(s.mutex);
  std::erase_if(s.captures, [this](const auto& entry) { return entry.second == &impl_->lines; });
  s.updateEffectiveLevel();
  delete impl_;
}

std::vector<Line> Capture::Lines() const {
  const std::lock_guard lock(state().mutex);
  return impl_->lines;
}

void Capture::Clear() {
  const std::lock_guard lock(state().mutex);
  impl_->lines.clear();
}

}  // namespace oblog
