#include "overhub/server/server.h"

#include <exception>
#include <string>
#include <utility>

#include "lqregistry/ObDebug.h"
#include "overhub/server/serve_step.h"

namespace {

constexpr const char* kTag = "overhub::Server";

}  // namespace

CWmError Server::listen(const std::string& address, std::uint16_t port) {
  auto listener = std::make_unique<LqListener>(
      [this](const std::string& identity, std::string& key) { return keys_.find(identity, key); });
  CWmError error = listener->open(address, port);
  if (!error.IsError()) listeners_.push_back(std::move(listener));
  return error;
}

CWmError Server::start() {
  try {
    threads_.reserve(listeners_.size() * kThreadsPerPort);
    for (const auto& listener : listeners_) {
      for (std::size_t i = 0; i < kThreadsPerPort; ++i) {
        threads_.emplace_back([this, &accepting = *listener] { work(accepting); });
        const std::lock_guard lock(mutex_);
        ++running_;
      }
    }
    return {};
  } catch (const std::exception& shortage) {
    for (const auto& listener : listeners_) listener->stop();
    for (auto& thread : threads_) thread.join();
    threads_.clear();
    return {kLqErrConnect, std::string("the system gives no threads to serve with: ") + shortage.what()};
  }
}

bool Server::awaitThreads(std::chrono::milliseconds wait) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, wait, [this] { return running_ == 0; });
}

std::size_t Server::stop(std::size_t& cutOff, std::chrono::milliseconds wait) {
  cutOff = 0;
  for (const auto& listener : listeners_) listener->turnAway();
  if (!awaitThreads(wait)) {
    for (const auto& listener : listeners_) {
      cutOff += listener->census().attached;
      listener->stop();
    }
    CLqNetwork::InterruptAll();
    if (!awaitThreads(kLastWait)) {
      const std::lock_guard lock(mutex_);
      return running_;
    }
  }
  for (auto& thread : threads_) thread.join();
  return 0;
}

void Server::work(LqListener& listener) {
  while (auto session = listener.accept()) serveOne(listener, std::move(session));
  const std::lock_guard lock(mutex_);
  --running_;
  changed_.notify_all();
}

void Server::serveOne(LqListener& listener, std::unique_ptr<CLqNetwork> session) {
  try {
    if (serveStep(*session, store_)) listener.await(std::move(session));
  } catch (const std::exception& fault) {
    ObEvent().Error(kTag, "a session was dropped: %s", fault.what());
  }
}
