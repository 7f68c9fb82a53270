#include "overhub/commands/pass_calls.h"

#include <exception>
#include <system_error>
#include <utility>

#include "lqregistry/CLqNetwork.h"
#include "records/host_report.h"

namespace {

std::string complaintOf(const Store& store, const Client& client, const ClientLink::Way& way) {
  try {
    ClientLink link(store, client, way);
    HostReport::SyncNow request;
    request.version = HostReport::kVersion;
    HostReport::SyncNow answer;
    return link.ask(request, answer).complaint;
  } catch (const std::exception& error) {  // out of memory, in all likelihood
    return error.what();
  }
}

}  // namespace

PassCalls::PassCalls(const Store& store, ClientLink::Way way, int parallel)
    : store_(store), way_(std::move(way)) {
  HostReport::RegisterSubsystem();
  try {
    while (threads_.size() < static_cast<std::size_t>(parallel))
      threads_.emplace_back([this] { callAndCall(); });
  } catch (const std::system_error&) {
    if (threads_.empty()) throw;
  }
}

PassCalls::~PassCalls() {
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  changed_.notify_all();
  CLqNetwork::InterruptAll();
  for (std::thread& thread : threads_) thread.join();
}

void PassCalls::add(const Client& client) {
  {
    const std::lock_guard lock(mutex_);
    standings_[client.id] = {};
    waiting_.push_back(client);
  }
  changed_.notify_one();
}

void PassCalls::forgetWaiting() {
  const std::lock_guard lock(mutex_);
  waiting_.clear();
}

PassCalls::Standing PassCalls::standingOf(std::int64_t client) const {
  const std::lock_guard lock(mutex_);
  const auto found = standings_.find(client);
  return found == standings_.end() ? Standing() : found->second;
}

void PassCalls::callAndCall() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return isStopping_ || !waiting_.empty(); });
    if (isStopping_) return;
    const Client client = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    std::string complaint = complaintOf(store_, client, way_);
    lock.lock();
    standings_[client.id] = {true, std::move(complaint)};
  }
}
