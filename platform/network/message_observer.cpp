#include "platform/network/message_observer.h"

#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "lqregistry/ObDebug.h"

namespace {

struct Registered {
  std::mutex mutex;
  std::shared_ptr<const CLqNetwork::Observer> observer;
};

// Never destroyed: sessions may be in use while the process ends.
Registered& registered() {
  static auto* const instance = new Registered;
  return *instance;
}

}  // namespace

void CLqNetwork::SetObserver(Observer observer) {
  auto shared = observer ? std::make_shared<const Observer>(std::move(observer)) : nullptr;
  const std::lock_guard<std::mutex> lock(registered().mutex);
  registered().observer.swap(shared);
}

void observe(const CLqNetwork::WireEvent& event) {
  std::shared_ptr<const CLqNetwork::Observer> observer;
  {
    const std::lock_guard<std::mutex> lock(registered().mutex);
    observer = registered().observer;
  }
  if (observer == nullptr) return;
  try {
    (*observer)(event);
  } catch (const std::exception& fault) {  // what was sent is sent; what came may still be declined
    ObEvent().Error("CLqNetwork::Observer", "the message observer failed: %s", fault.what());
    if (event.decline != nullptr) *event.decline = std::string("its observer failed: ") + fault.what();
  }
}
