#include "lqhost/pass/unsettled_work.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <mutex>
#include <sstream>

#include "common/file_lock.h"
#include "lqhost/instance.h"
#include "lqregistry/FXFile.h"
#include "lqregistry/ObDebug.h"
#include "lqregistry/UtcText.h"

namespace host {

namespace {

constexpr const char* kTag = "host::UnsettledWork";
constexpr const char* kNoteFile = "lqhost.unsettled";
// Held while a note is looked at and replaced, between processes; never for long.
constexpr const char* kNoteLock = "lqhost.unsettled.lock";

// As they stand in the file, in the order of Unsettled.
constexpr std::array<const char*, 6> kWords = {"synchronisation",  "push",         "cache-lost", "cache-kept",
                                               "cache-unreadable", "cache-dropped"};

std::mutex noteMutex;                       // the same within the process
std::optional<UnsettledNote> onlyInMemory;  // a note that could not be written; guarded by noteMutex

// When a process began, in ticks since the machine did: tells it from a later one of the same number, after a
// restart of the machine above all. Empty when there is no such process.
std::string beginningOf(const std::string& process) {
  constexpr int kFieldsBefore = 19;  // between the name, which may hold anything, and the beginning
  std::ifstream file("/proc/" + process + "/stat");
  std::string text;
  std::getline(file, text, '\0');
  const std::size_t nameEnd = text.rfind(')');
  if (nameEnd == std::string::npos) return {};
  std::istringstream in(text.substr(nameEnd + 1));
  std::string field;
  for (int i = 0; i <= kFieldsBefore; ++i) in >> field;
  return in ? field : std::string();
}

// Begins with the process and its beginning, see isUnderWay. The count tells what one process does apart, the
// time what processes do that began alike, before and after a restart of the machine.
std::string newToken() {
  static std::atomic<unsigned> count;
  const std::string process = std::to_string(::getpid());
  return process + "." + beginningOf(process) + "." + std::to_string(std::time(nullptr)) + "." +
         std::to_string(++count);
}

std::string fileText(const UnsettledNote& note) {
  return std::string(kWords[static_cast<std::size_t>(note.why)]) + " " + std::to_string(note.since) + " " +
         note.token + "\n";
}

UnsettledNote parsed(const std::string& text) {
  std::istringstream in(text);
  std::string word;
  UnsettledNote note;
  in >> word >> note.since >> note.token;
  for (std::size_t i = 0; i < kWords.size(); ++i)
    if (word == kWords[i]) note.why = static_cast<Unsettled>(i);
  return note;
}

std::optional<UnsettledNote> readNote() {
  if (onlyInMemory) return onlyInMemory;
  const std::string path = pathInBase(kNoteFile);
  if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return std::nullopt;
  std::string text;
  // That there is a note says enough: one that cannot be read counts as one that cannot be understood.
  static_cast<void>(FXFile::ReadContents(path, text));
  return parsed(text);
}

CWmError writeNote(const UnsettledNote& note) {
  CWmError error = FXFile::ReplaceContents(pathInBase(kNoteFile), fileText(note));
  onlyInMemory = error.IsError() ? std::optional(note) : std::nullopt;
  if (error.IsError()) ObEvent().Error(kTag, "Cannot note what is under way: %s", error.AsString());
  return error;
}

void removeNote() {
  onlyInMemory.reset();
  const std::string path = pathInBase(kNoteFile);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT)
    ObEvent().Error(kTag, "%s cannot be removed; the next refresh is a synchronisation", path.c_str());
}

// Between the processes of the machine, where the base directory lets it be had.
programs::FileLock lockNote() {
  return programs::FileLock::waitFor(pathInBase(kNoteLock));
}

}  // namespace

std::optional<UnsettledNote> standingNote() {
  const std::lock_guard lock(noteMutex);
  return readNote();
}

bool isUnderWay(const UnsettledNote& note) {
  std::istringstream token(note.token);
  std::string process;
  std::string beginning;
  std::getline(token, process, '.');
  std::getline(token, beginning, '.');
  return note.why == Unsettled::kPass && !beginning.empty() && beginningOf(process) == beginning;
}

std::string unsettledText(const UnsettledNote& note) {
  const std::string since = " since " + lqtext::utcText(note.since);
  switch (note.why) {
    case Unsettled::kPass:
      return "a synchronisation that began" + since.substr(6) + " has not stored the settings cache";
    case Unsettled::kPush:
      return "the server pushed a batch, and no synchronisation has followed" + since;
    case Unsettled::kCacheLost:
      return "the settings cache could not be written" + since;
    case Unsettled::kCacheKept:
      return "the settings cache was kept, because the server's reply has fewer records" + since +
             "; it works against the server until it is replaced";
    case Unsettled::kCacheDropped:
      return "the settings cache was dropped, and no synchronisation has stored another" + since;
    case Unsettled::kCacheUnreadable:
      break;
  }
  return "the settings cache cannot be read, and was not replaced" + since;
}

UnsettledWork::UnsettledWork(Unsettled why) : own_{why, std::time(nullptr), newToken()} {
  const std::lock_guard lock(noteMutex);
  const programs::FileLock between = lockNote();
  before_ = readNote();
  error_ = writeNote(own_);
}

void UnsettledWork::replaceOwn(const std::optional<UnsettledNote>& by) {
  const std::lock_guard lock(noteMutex);
  const programs::FileLock between = lockNote();
  const std::optional<UnsettledNote> standing = readNote();
  if (!standing || standing->token != own_.token) return;
  if (by) {
    error_ = writeNote(*by);
  } else {
    removeNote();
  }
}

void UnsettledWork::settle() {
  replaceOwn(std::nullopt);
}

void UnsettledWork::restore() {
  replaceOwn(before_);
}

void UnsettledWork::leave(Unsettled why) {
  // What lasts is told from when it began.
  const bool lasts = before_ && before_->why == why;
  replaceOwn(UnsettledNote{why, lasts ? before_->since : own_.since, own_.token});
}

}  // namespace host
