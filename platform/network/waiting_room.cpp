#include "platform/network/waiting_room.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <iterator>
#include <system_error>
#include <utility>

#include "lqregistry/ObDebug.h"
#include "platform/network/session.h"

using std::chrono::milliseconds;

namespace {

constexpr const char* kTag = "LqListener";

// Callers are numbered from 1, so these name the two descriptors that are none.
constexpr CallerNumber kListenerEvent = ~CallerNumber{0};
constexpr CallerNumber kWakeEvent = kListenerEvent - 1;

// How many events are taken up, and callers greeted, before the others have their turn.
constexpr int kEventsAtOnce = 256;
constexpr int kGreetingsAtOnce = 64;
// A look at the descriptors left costs as much as a greeting; it is taken once for this many, far fewer than
// are kept in reserve.
constexpr int kGreetingsPerLook = 16;
// And how many are put out: to close thousands of sockets in one go would hold everybody up.
constexpr int kPartingsAtOnce = 64;

// Descriptors that the process keeps for everything else: files, the log, connections of its own.
constexpr rlim_t kReservedDescriptors = 64;
// A process with few of them keeps this part.
constexpr rlim_t kReservedPart = 4;

// How often the room looks whose time has passed: a fraction of the shortest that it gives anybody.
constexpr milliseconds kSweepPause{250};

// Sessions that came to their end unserved and wait for somebody to log it; further ones are forgotten.
constexpr std::size_t kMaxEndedReady = 64;

// A caller that waits for memory owes nothing.
constexpr auto kOwesNothing = Deadline::Clock::time_point::max();

int madeOrThrow(int descriptor) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category());
  return descriptor;
}

void watchFor(int epoll, int operation, int descriptor, std::uint32_t events, CallerNumber number) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = number;
  if (::epoll_ctl(epoll, operation, descriptor, &event) != 0)
    throw std::system_error(errno, std::generic_category());
}

std::uint32_t eventsOf(Waiting waiting) {
  switch (waiting) {
    case Waiting::kReadable:
      return EPOLLIN;
    case Waiting::kWritable:
      return EPOLLOUT;
    default:
      return 0;
  }
}

CWmError tooLate() {
  return {kLqErrTimeout, "the time given has passed"};
}
CWmError putOut() {
  return {kLqErrTimeout, "it was silent while others needed its place"};
}
CWmError tooSlow() {
  return {kLqErrTimeout, "it was slow to send a large message while others needed the memory"};
}
CWmError hungUp() {
  return {kLqErrConnectionLost, "the peer closed the connection"};
}

// Whether the end of a caller that never attached is worth a word: it did something wrong, not just nothing.
bool tellsSomething(const CWmError& error) {
  return error.GetCode() != kLqErrTimeout && error.GetCode() != kLqErrConnectionLost;
}

}  // namespace

class WaitingRoom::Seat {
 public:
  Seat(std::weak_ptr<WaitingRoom> room, std::string identity)
      : room_(std::move(room)), identity_(std::move(identity)) {}
  ~Seat() {
    if (const auto room = room_.lock()) room->leave(identity_);
  }
  Seat(const Seat&) = delete;
  Seat& operator=(const Seat&) = delete;

 private:
  std::weak_ptr<WaitingRoom> room_;
  std::string identity_;
};

WaitingRoom::WaitingRoom(auto_handle listeningSocket, std::shared_ptr<const TlsPsk> psk,
                         const LqListener::Limits& limits, std::string place)
    : psk_(std::move(psk)),
      limits_(limits),
      place_(std::move(place)),
      listener_(std::move(listeningSocket)),
      epoll_(madeOrThrow(::epoll_create1(EPOLL_CLOEXEC))),
      wake_(madeOrThrow(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
  watchFor(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), EPOLLIN, kListenerEvent);
  watchFor(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), EPOLLIN, kWakeEvent);
}

void WaitingRoom::start() {
  thread_ = std::thread([this] { run(); });
}

// --- any thread --------------------------------------------------------------------------------------------

void WaitingRoom::wake() const {
  // It fails only when the counter is full, and then the room is awake already.
  static_cast<void>(::eventfd_write(wake_.get(), 1));
}

bool WaitingRoom::isDrained() const {
  return turnsAway_ && ready_.empty() && served_.empty() && census_.attached == 0 && census_.callers == 0;
}

std::unique_ptr<CLqNetwork> WaitingRoom::take() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (isStopped_ || isDrained()) return nullptr;
    const auto next = std::find_if(ready_.begin(), ready_.end(), [this](const auto& session) {
      const auto served = served_.find(session->impl_->peerName);
      return served == served_.end() || served->second < limits_.servedPerIdentity;
    });
    if (next != ready_.end()) {
      std::unique_ptr<CLqNetwork> session = std::move(*next);
      ready_.erase(next);
      const std::string& identity = session->impl_->peerName;
      ++served_[identity];
      session->impl_->seat = std::make_shared<Seat>(weak_from_this(), identity);
      return session;
    }
    changed_.wait(lock);
  }
}

void WaitingRoom::leave(const std::string& identity) {
  const std::lock_guard lock(mutex_);
  if (--served_[identity] == 0) served_.erase(identity);
  tell();
}

void WaitingRoom::tell() {
  // One session is for one thread; but when the last has gone, every thread has to hear of it.
  if (turnsAway_) {
    changed_.notify_all();
  } else {
    changed_.notify_one();
  }
}

void WaitingRoom::await(std::unique_ptr<CLqNetwork> session) {
  if (session == nullptr || session->impl_->state != CLqNetwork::Impl::State::kAttached) return;
  session->impl_->held.reset();
  const std::shared_ptr<void> seat = std::move(session->impl_->seat);  // left when the session is back
  const std::string identity = session->impl_->peerName;
  Entrant entrant = entrantOf(std::move(session), identity);
  {
    const std::lock_guard lock(mutex_);
    if (isStopped_) return;
    returned_.push_back(std::move(entrant));
    ++census_.attached;
  }
  wake();
}

void WaitingRoom::turnAway() {
  {
    const std::lock_guard lock(mutex_);
    turnsAway_ = true;
    changed_.notify_all();
  }
  wake();
}

void WaitingRoom::stop() {
  std::deque<std::unique_ptr<CLqNetwork>> unserved;
  {
    const std::lock_guard lock(mutex_);
    turnsAway_ = isStopped_ = true;
    unserved.swap(ready_);
    changed_.notify_all();
  }
  wake();
  const std::lock_guard lock(joining_);
  if (thread_.joinable()) thread_.join();
}

LqListener::Census WaitingRoom::census() const {
  const std::lock_guard lock(mutex_);
  return census_;
}

// --- the room's thread -------------------------------------------------------------------------------------

void WaitingRoom::run() {
  std::array<epoll_event, kEventsAtOnce> events{};
  while (!isStopped()) {
    const int count = ::epoll_wait(epoll_.get(), events.data(), kEventsAtOnce, sleepTime());
    try {
      for (int i = 0; i < count; ++i) take(events[static_cast<std::size_t>(i)]);
      std::set<CallerNumber> more;
      more.swap(unfinished_);
      for (const CallerNumber number : more) serve(number);
      if (isCrowded_) makeRoom();
      sweep();
    } catch (const std::exception& shortage) {  // costs one caller; the room stays for the others
      ObEvent().Error(kTag, "the callers on %s cannot be watched well: %s", place_.c_str(), shortage.what());
    }
  }
  listener_.reset();
  callers_.clear();
  const std::lock_guard lock(mutex_);
  returned_.clear();
  census_ = {};
}

void WaitingRoom::take(const epoll_event& event) {
  const CallerNumber number = event.data.u64;
  if (number == kListenerEvent) {
    greet();
  } else if (number == kWakeEvent) {
    wakeUp();
  } else if (const auto caller = callers_.find(number); caller != callers_.end()) {
    // Whoever waits for memory is not watched for bytes: only its end can have come.
    if (caller->second.waiting == Waiting::kTurn) {
      letGo(caller, hungUp());
    } else {
      serve(number);
    }
  }
}

bool WaitingRoom::isStopped() const {
  const std::lock_guard lock(mutex_);
  return isStopped_;
}

int WaitingRoom::sleepTime() const {
  if (!unfinished_.empty() || isCrowded_) return 0;
  return callers_.empty() && isListening_ ? -1 : static_cast<int>(kSweepPause.count());
}

void WaitingRoom::greet() {
  for (int i = 0; i < kGreetingsAtOnce && !isDoorClosed_; ++i) {
    const bool looks = i % kGreetingsPerLook == 0;
    if (looks && isShortOfDescriptors() && !putOutForDescriptor()) return rest("no descriptors are left");
    SocketAddress from;
    const int descriptor = ::accept4(listener_.get(), from.edit(), &from.size, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) {
      const bool isTrouble =
          errno != EAGAIN && errno != EWOULDBLOCK && errno != ECONNABORTED && errno != EINTR;
      if (isTrouble) return rest(std::generic_category().message(errno));
      break;  // whoever still waits is reported anew
    }
    greetOne(descriptor, from);
  }
  makeRoom();
}

void WaitingRoom::greetOne(int descriptor, const SocketAddress& from) {
  try {
    auto session = std::make_unique<CLqNetwork>();
    CLqNetwork::Impl& impl = *session->impl_;
    const auto turnCame = [room = weak_from_this()] {
      if (const auto alive = room.lock()) alive->wake();
    };
    impl.frames = std::make_unique<FrameStream>(psk_, FrameBudget::ofAccepted(), turnCame);
    impl.peerText = from.text();
    impl.frames->connection().adopt(descriptor, impl.peerText);
    descriptor = -1;
    impl.peerAddress = from.host();
    impl.state = CLqNetwork::Impl::State::kAccepted;
    Entrant entrant = entrantOf(std::move(session), from.network());
    {
      const std::lock_guard lock(mutex_);
      ++census_.callers;
    }
    enter(std::move(entrant));
    inShortage_ = false;
  } catch (const std::exception& shortage) {
    if (descriptor >= 0) ::close(descriptor);
    rest(shortage.what());
  }
}

// Stops greeting until the next sweep; says why once per series of failures.
void WaitingRoom::rest(const std::string& reason) {
  if (!inShortage_)
    ObEvent().Error("LqListener::accept", "cannot take callers on %s now: %s", place_.c_str(),
                    reason.c_str());
  inShortage_ = true;
  listen(false);
}

void WaitingRoom::listen(bool listens) {
  if (isDoorClosed_ || listens == isListening_) return;
  isListening_ = listens;
  watchFor(epoll_.get(), EPOLL_CTL_MOD, listener_.get(), listens ? EPOLLIN : 0U, kListenerEvent);
}

WaitingRoom::Entrant WaitingRoom::entrantOf(std::unique_ptr<CLqNetwork> session, const std::string& group) {
  Callers alone;
  Caller& caller = alone[0];
  caller.isAttached = session->impl_->state == CLqNetwork::Impl::State::kAttached;
  caller.session = std::move(session);
  caller.group = group;
  caller.waiting = Waiting::kReadable;
  return alone.extract(alone.begin());
}

void WaitingRoom::enter(Entrant entrant) {
  entrant.key() = ++lastNumber_;
  const auto place = callers_.insert(std::move(entrant)).position;
  auto& [number, caller] = *place;
  try {
    caller.since = caller.owesSince = Clock::now();
    (caller.isAttached ? byIdentity_ : byAddress_).add(caller.group, number);
    watchFor(epoll_.get(), EPOLL_CTL_ADD, caller.session->impl_->frames->connection().descriptor(), EPOLLIN,
             number);
  } catch (const std::exception& shortage) {
    letGo(place, {kLqErrConnectionLost, shortage.what()});
  }
}

void WaitingRoom::wakeUp() {
  eventfd_t ignored{};
  static_cast<void>(::eventfd_read(wake_.get(), &ignored));
  std::vector<Entrant> returned;
  bool turnsAway = false;
  {
    const std::lock_guard lock(mutex_);
    returned.swap(returned_);
    turnsAway = turnsAway_;
  }
  for (Entrant& entrant : returned) {
    enter(std::move(entrant));
    serve(lastNumber_);  // TLS may hold bytes that the socket does not show any more
  }
  for (const CallerNumber number : std::set<CallerNumber>(inQueue_)) serve(number);
  if (turnsAway) closeDoor();
  makeRoom();
}

void WaitingRoom::closeDoor() {
  if (isDoorClosed_) return;
  isDoorClosed_ = isListening_ = true;
  listener_.reset();
  for (auto caller = callers_.begin(); caller != callers_.end();) {
    const auto next = std::next(caller);
    if (!caller->second.isAttached) letGo(caller, {kLqErrConnectionLost, "no callers are taken any more"});
    caller = next;
  }
}

void WaitingRoom::serve(CallerNumber number) {
  const auto found = callers_.find(number);
  if (found == callers_.end()) return;
  Caller& caller = found->second;
  CLqNetwork::Impl& impl = *caller.session->impl_;
  const bool wasProven = impl.state != CLqNetwork::Impl::State::kAccepted;
  Waiting waiting = Waiting::kNothing;
  CWmError error;
  try {
    const std::size_t before = impl.frames->arrived();
    error = caller.isAttached ? impl.tryRequest(waiting) : impl.tryAccept(waiting);
    if (!error.IsError() && waiting != Waiting::kNothing) {
      watch(number, caller, waiting);
      // A session in the middle of a request is not silent; whether it is too slow, isBehind() tells.
      if (caller.isAttached && waiting != Waiting::kTurn && impl.frames->arrived() != before)
        caller.owesSince = Clock::now();
    }
  } catch (const std::exception& shortage) {
    error = {kLqErrConnectionLost, shortage.what()};
  }
  if (error.IsError()) {
    letGo(found, error);
  } else if (waiting == Waiting::kNothing) {
    handOut(found);
  } else if (!wasProven && impl.state == CLqNetwork::Impl::State::kProven) {
    caller.owesSince = Clock::now();
  }
}

void WaitingRoom::watch(CallerNumber number, Caller& caller, Waiting waiting) {
  if (waiting == Waiting::kMore) unfinished_.insert(number);
  if (waiting == caller.waiting) return;
  if (waiting == Waiting::kTurn) {
    inQueue_.insert(number);
    caller.turnSince = Clock::now();
    caller.owesSince = kOwesNothing;
  } else if (inQueue_.erase(number) != 0) {
    const auto now = Clock::now();
    caller.owesSince = now;
    caller.inTurn += now - caller.turnSince;
  }
  caller.waiting = waiting;
  if (waiting == Waiting::kMore) return;  // goes on at once, whatever is watched for meanwhile
  watchFor(epoll_.get(), EPOLL_CTL_MOD, caller.session->impl_->frames->connection().descriptor(),
           eventsOf(waiting), number);
}

std::unique_ptr<CLqNetwork> WaitingRoom::remove(Callers::iterator caller) {
  const auto& [number, what] = *caller;
  (what.isAttached ? byIdentity_ : byAddress_).remove(what.group, number);
  inQueue_.erase(number);
  std::unique_ptr<CLqNetwork> session = std::move(caller->second.session);
  callers_.erase(caller);
  return session;
}

void WaitingRoom::handOut(Callers::iterator caller) {
  const bool wasAttached = caller->second.isAttached;
  std::unique_ptr<CLqNetwork> session = remove(caller);
  const int descriptor = session->impl_->frames->connection().descriptor();
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
  putIntoReady(std::move(session), wasAttached);
}

void WaitingRoom::letGo(Callers::iterator caller, const CWmError& error) {
  const bool wasAttached = caller->second.isAttached;
  std::unique_ptr<CLqNetwork> session = remove(caller);
  session->impl_->giveUp(error);
  if (!wasAttached && (error.GetCode() == kLqErrHandshake || !tellsSomething(error))) ++forgotten_;
  if (!wasAttached && !tellsSomething(error)) session.reset();
  putIntoReady(std::move(session), wasAttached);
}

void WaitingRoom::putIntoReady(std::unique_ptr<CLqNetwork> session, bool wasAttached) {
  std::unique_ptr<CLqNetwork> surplus;  // ends once the room is unlocked
  const std::lock_guard lock(mutex_);
  --(wasAttached ? census_.attached : census_.callers);
  const bool hasEnded = session != nullptr && session->impl_->givenUp.IsError();
  if (session != nullptr && !isStopped_ && !(hasEnded && ready_.size() >= kMaxEndedReady)) {
    if (!hasEnded) surplus = takeSurplusOf(session->impl_->peerName);
    ready_.push_back(std::move(session));
  }
  tell();
}

// One client that does not take its answers, and asks on in ever new sessions, would otherwise fill the room
// with sessions that nobody may put out, because they owe nothing.
std::unique_ptr<CLqNetwork> WaitingRoom::takeSurplusOf(const std::string& identity) {
  const auto isOfIt = [&](const auto& session) { return session->impl_->peerName == identity; };
  const auto count = static_cast<std::size_t>(std::count_if(ready_.begin(), ready_.end(), isOfIt));
  if (count < limits_.readyPerIdentity) return nullptr;
  const auto oldest = std::find_if(ready_.begin(), ready_.end(), isOfIt);
  std::unique_ptr<CLqNetwork> surplus = std::move(*oldest);
  ready_.erase(oldest);
  return surplus;
}

// --- who has to go -----------------------------------------------------------------------------------------

void WaitingRoom::sweep() {
  const auto now = Clock::now();
  if (now - lastSweep_ < kSweepPause) return;
  lastSweep_ = now;
  for (auto caller = callers_.begin(); caller != callers_.end();) {
    const auto next = std::next(caller);
    const Caller& what = caller->second;
    const milliseconds time = what.isAttached ? limits_.requestTime : limits_.attachTime;
    const bool inTurn = what.waiting == Waiting::kTurn;
    if (!inTurn && now - what.since - what.inTurn > time) {
      letGo(caller, tooLate());
    } else if (isBehind(what) && FrameBudget::ofAccepted().isContested()) {
      letGo(caller, tooSlow());
    } else if (inTurn && now - what.turnSince > limits_.turnTime) {
      FrameStream& frames = *what.session->impl_->frames;
      if (frames.awaitsMemory()) frames.dropPayload();  // else its turn has just come
      serve(caller->first);
    }
    caller = next;
  }
  makeRoom();
  listen(true);
  if (forgotten_ != 0)
    ObEvent().Debug(kTag, "%zu callers on %s went, or were put out, before they had asked for anything",
                    forgotten_, place_.c_str());
  forgotten_ = 0;
}

bool WaitingRoom::isBehind(const Caller& caller) const {
  const auto [elapsed, share] = caller.session->impl_->frames->claimed();
  return elapsed > limits_.patience && share < std::chrono::duration<double>(elapsed) / limits_.requestTime;
}

bool WaitingRoom::isOverdue(const Caller& caller) const {
  return caller.owesSince != kOwesNothing && Clock::now() - caller.owesSince >= limits_.patience;
}

bool WaitingRoom::putOutOneOf(const std::set<CallerNumber>& group) {
  for (const CallerNumber number : group) {
    const auto caller = callers_.find(number);
    // Whoever came later has kept us waiting for even less.
    if (Clock::now() - caller->second.since < limits_.patience) return false;
    if (!isOverdue(caller->second)) continue;
    letGo(caller, putOut());
    return true;
  }
  return false;
}

bool WaitingRoom::putOutForDescriptor() {
  const auto takeOne = [this](const auto& group) { return putOutOneOf(group); };
  return byAddress_.anyBySize(1, takeOne) || byIdentity_.anyBySize(1, takeOne);
}

bool WaitingRoom::putOutOne() {
  const auto takeOne = [this](const auto& group) { return putOutOneOf(group); };
  const std::size_t tooMany = byAddress_.size() > limits_.callers ? 1 : limits_.callersPerAddress + 1;
  return byAddress_.anyBySize(tooMany, takeOne) ||
         byIdentity_.anyBySize(limits_.waitingPerIdentity + 1, takeOne);
}

void WaitingRoom::makeRoom() {
  int parted = 0;
  while (parted < kPartingsAtOnce && putOutOne()) ++parted;
  isCrowded_ = parted == kPartingsAtOnce;
}

// The system gives the lowest free number, so the next one tells how many are taken.
bool WaitingRoom::isShortOfDescriptors() const {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const auto_handle next(::fcntl(wake_.get(), F_DUPFD_CLOEXEC, 0));
  const rlim_t reserve = std::min(kReservedDescriptors, limit.rlim_cur / kReservedPart);
  return !next.isValid() || static_cast<rlim_t>(next.get()) + reserve >= limit.rlim_cur;
}
