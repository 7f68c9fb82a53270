// Watching what the current thread sends to the server and hears from it, to tell what a pass really did.
//
// The platform has one observer for the process; here it is given to whichever watch the session's thread has
// opened last, and from there to the ones opened before it. So a pass can be watched while other threads
// serve requests.
#pragma once

#include <functional>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/OBGui.h"

namespace host {

// Opened and closed on the same thread, the last opened first closed.
class WireWatch {
 public:
  using Event = CLqNetwork::WireEvent;
  // `batch` is what was sent or came, null when that was something else or nothing.
  using Handler = std::function<void(const Event&, const OBGui::RegistryTaskResp* batch)>;

  explicit WireWatch(Handler handler);
  ~WireWatch();
  WireWatch(const WireWatch&) = delete;
  WireWatch& operator=(const WireWatch&) = delete;

  // To be called once, before any session is used.
  static void install();

 private:
  static void dispatch(const Event& event);

  Handler handler_;
  WireWatch* outer_;
};

}  // namespace host
