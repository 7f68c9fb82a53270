#include "overhub/server/server.h"

#include <chrono>
#include <exception>
#include <iterator>
#include <utility>

#include "lqregistry/ObDebug.h"
#include "overhub/server/session.h"

namespace {

constexpr const char* kTag = "overhub::Server";

}  // namespace

CWmError Server::listen(const std::string& address, std::uint16_t port) {
  auto listener = std::make_unique<LqListener>(
      [this](const std::string& identity, std::string& key) { return store_.findSessionKey(identity, key); });
  CWmError error = listener->open(address, port);
  if (!error.IsError()) listeners_.push_back(std::move(listener));
  return error;
}

void Server::start() {
  for (const auto& listener : listeners_)
    acceptors_.emplace_back([this, &accepting = *listener] { acceptCallers(accepting); });
}

std::size_t Server::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  for (const auto& listener : listeners_) listener->stop();
  for (auto& acceptor : acceptors_) acceptor.join();

  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::seconds(kStopSeconds), [this] { return running_ == 0; });
  joinFinished();
  return running_;
}

void Server::acceptCallers(LqListener& listener) {
  while (auto network = listener.accept()) {
    if (!takeRoom()) return;
    try {
      startSession(std::move(network));
    } catch (const std::exception& fault) {
      giveRoomBack();
      ObEvent().Error(kTag, "a caller was dropped: no thread for it: %s", fault.what());
    }
  }
}

bool Server::takeRoom() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return stopping_ || running_ < kMaxSessions; });
  joinFinished();
  if (!stopping_) ++running_;
  return !stopping_;
}

void Server::giveRoomBack() {
  const std::lock_guard lock(mutex_);
  --running_;
  changed_.notify_all();
}

void Server::startSession(std::unique_ptr<CLqNetwork> network) {
  const std::lock_guard lock(mutex_);
  Worker& worker = workers_.emplace_back();
  try {
    worker.thread = std::thread(
        [this, &worker, network = std::move(network)]() mutable { runSession(worker, std::move(network)); });
  } catch (...) {
    workers_.pop_back();
    throw;
  }
}

void Server::runSession(Worker& worker, std::unique_ptr<CLqNetwork> network) {
  try {
    serveSession(*network, store_);
  } catch (const std::exception& fault) {
    ObEvent().Error(kTag, "a session was dropped: %s", fault.what());
  }
  network.reset();
  const std::lock_guard lock(mutex_);
  worker.isDone = true;
  --running_;
  changed_.notify_all();
}

void Server::joinFinished() {
  for (auto worker = workers_.begin(); worker != workers_.end();) {
    const auto next = std::next(worker);
    if (worker->isDone) {
      worker->thread.join();
      workers_.erase(worker);
    }
    worker = next;
  }
}
