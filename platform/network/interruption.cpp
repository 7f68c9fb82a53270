#include "platform/network/interruption.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "lqregistry/CLqNetwork.h"

namespace {

std::atomic<bool> interrupted{false};

}  // namespace

void interruptAll() {
  interrupted = true;
  const std::uint64_t one = 1;
  // It can only fail when the descriptor is missing or has been written before; the flag stands either way.
  [[maybe_unused]] const ssize_t written = ::write(interruptionDescriptor(), &one, sizeof one);
}

bool isInterrupted() {
  return interrupted;
}

CWmError stopping() {
  return {kLqErrStopping, "this process is stopping"};
}

int interruptionDescriptor() {
  // Never closed: sessions may still end while the process's statics are torn down.
  static const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return descriptor;
}
