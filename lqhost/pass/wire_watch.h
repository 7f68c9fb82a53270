// Watching the registry-task messages that the current thread sends and receives, to tell what a pass really
// did.
//
// The platform has one observer for the process; here it is given to whichever watch the message's thread has
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
  using Kind = CLqNetwork::WireEvent::Kind;
  using Handler = std::function<void(Kind, const OBGui::RegistryTaskResp&)>;

  explicit WireWatch(Handler handler);
  ~WireWatch();
  WireWatch(const WireWatch&) = delete;
  WireWatch& operator=(const WireWatch&) = delete;

  // To be called once, before any session is used.
  static void install();

 private:
  static void dispatch(const CLqNetwork::WireEvent& event);

  Handler handler_;
  WireWatch* outer_;
};

}  // namespace host
