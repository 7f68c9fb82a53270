#include "platform/registry/watched_writes.h"

#include <utility>

#include "lqregistry/LqWriteWatch.h"

namespace lqregistry {

namespace {

// Of the write under way on this thread.
struct Noted {
  bool isChange = false;
  bool wasThere = false;
  std::string before;
  WriteFault fault = WriteFault::kNone;
  std::string reason;
};

thread_local WriteWatch* innermost = nullptr;
thread_local Noted noted;

}  // namespace

void tellWatch(const WriteEvent& event) {
  innermost->handler_(event);
}

WriteWatch::WriteWatch(Handler handler) : handler_(std::move(handler)), outer_(innermost) {
  innermost = this;
}

WriteWatch::~WriteWatch() {
  innermost = outer_;
  noted = {};
}

void noteBefore(const StoredValue* value) {
  if (innermost == nullptr) return;
  noted.isChange = true;
  noted.wasThere = value != nullptr;
  noted.before = value == nullptr ? "" : value->data;
}

void noteFault(const Outcome& outcome) {
  if (innermost == nullptr) return;
  noted.fault = outcome.fault == WriteFault::kNone ? WriteFault::kOther : outcome.fault;
  noted.reason = outcome.reason;
}

void tellLostBatch() {
  if (innermost == nullptr) return;
  const WriteFault fault = noted.fault == WriteFault::kNone ? WriteFault::kOther : noted.fault;
  tellWatch({{}, {}, false, {}, fault, noted.reason});
}

WatchedWrite::WatchedWrite() {
  if (innermost != nullptr) noted.isChange = false;
}

void WatchedWrite::end(bool isDone, int code, const std::string& key, const std::string& name,
                       const std::string& reason) {
  if (innermost == nullptr) return;
  if (isDone) {
    if (noted.isChange) tellWatch({key, name, noted.wasThere, noted.before, WriteFault::kNone, {}});
    return;
  }
  // What is not there is no fault of the registry's: it is created next, or was to be removed.
  if (code == kRegKeyMissing || code == kRegValueMissing) return;
  if (code == kRegBadName) {
    tellWatch({key, name, false, {}, WriteFault::kBadName, reason});
  } else {
    tellWatch(
        {key, name, false, {}, noted.fault == WriteFault::kNone ? WriteFault::kOther : noted.fault, reason});
  }
}

}  // namespace lqregistry
