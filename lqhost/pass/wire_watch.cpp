#include "lqhost/pass/wire_watch.h"

#include <utility>

namespace host {

namespace {
thread_local WireWatch* innermost = nullptr;
}  // namespace

WireWatch::WireWatch(Handler handler) : handler_(std::move(handler)), outer_(innermost) {
  innermost = this;
}

WireWatch::~WireWatch() {
  innermost = outer_;
}

void WireWatch::install() {
  CLqNetwork::SetObserver(&dispatch);
}

void WireWatch::dispatch(const Event& event) {
  const auto* const batch = messageAs<OBGui::RegistryTaskResp>(event.message);
  for (const WireWatch* watch = innermost; watch != nullptr; watch = watch->outer_) {
    watch->handler_(event, batch);
    if (event.decline != nullptr && !event.decline->empty()) return;  // for the others it never came
  }
}

}  // namespace host
