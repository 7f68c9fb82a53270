// Where accepted callers are while there is nothing to do for them: until they have proven themselves and
// asked, and between two requests.
//
// One thread watches all their sockets and does, without ever waiting for one of them, what can be done:
// accept, handshake, read a request piece by piece. A session belongs to the room (callers_, that thread's
// alone) from accept or await() until it is put into ready_; whoever takes it from there owns it. A session
// that came to its end in the room is handed out too, closed, so that whoever serves sessions learns why.
//
// Who may be put out, and when, is told in LqListener. Room is needed when a limit is passed or descriptors
// run short; then the largest group that has somebody to give gives, oldest first. A silent caller costs a
// socket and a few hundred bytes: TLS state is made with its first byte.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/FXFile.h"
#include "platform/network/caller_groups.h"
#include "platform/network/deadline.h"
#include "platform/network/socket_address.h"
#include "platform/network/tls_connection.h"

struct epoll_event;

class WaitingRoom : public std::enable_shared_from_this<WaitingRoom> {
 public:
  // Throws when the system is short of something.
  WaitingRoom(auto_handle listeningSocket, std::shared_ptr<const TlsPsk> psk,
              const LqListener::Limits& limits, std::string place);
  WaitingRoom(const WaitingRoom&) = delete;
  WaitingRoom& operator=(const WaitingRoom&) = delete;

  void start();
  std::unique_ptr<CLqNetwork> take();
  void await(std::unique_ptr<CLqNetwork> session);
  void turnAway();
  void stop();
  LqListener::Census census() const;

 private:
  using Clock = Deadline::Clock;
  struct Caller {
    std::unique_ptr<CLqNetwork> session;
    bool isAttached = false;
    std::string group;            // address, or identity once attached
    Waiting waiting{};            // what is watched for
    Clock::time_point since;      // when it came in
    Clock::time_point owesSince;  // when we began to wait for what it has to send
    Clock::time_point turnSince;  // when it began to wait for memory
    Clock::duration inTurn{};     // how long it has waited for memory, which is no time of its own
  };
  using Callers = std::map<CallerNumber, Caller>;
  // A caller on its way into the room, with the memory that it takes there.
  using Entrant = Callers::node_type;
  // The place of a session among those of its identity that are handed out; leaving is its destructor.
  class Seat;

  // On the room's thread.
  void run();
  int sleepTime() const;
  void take(const epoll_event& event);
  void wakeUp();
  void closeDoor();
  void greet();
  void greetOne(int descriptor, const SocketAddress& from);
  static Entrant entrantOf(std::unique_ptr<CLqNetwork> session, const std::string& group);
  void rest(const std::string& reason);
  void listen(bool listens);
  // Takes a caller in, whom the census counts already; one that cannot be watched is let go.
  void enter(Entrant entrant);
  // Goes on with a caller as far as that is possible now.
  void serve(CallerNumber number);
  void watch(CallerNumber number, Caller& caller, Waiting waiting);
  std::unique_ptr<CLqNetwork> remove(Callers::iterator caller);
  void handOut(Callers::iterator caller);
  void letGo(Callers::iterator caller, const CWmError& error);
  void putIntoReady(std::unique_ptr<CLqNetwork> session, bool wasAttached);
  // The oldest session of the identity that waits to be handed out, when there are too many; else null. With
  // the mutex held.
  std::unique_ptr<CLqNetwork> takeSurplusOf(const std::string& identity);

  // Puts out whose time has passed; at most every so often, since it looks at everybody.
  void sweep();
  // Whether it sends a large request so slowly that it would not be done in its time.
  bool isBehind(const Caller& caller) const;
  bool isOverdue(const Caller& caller) const;
  // Puts out some of whom there are too many; isCrowded_ tells whether there may be more to do at once.
  void makeRoom();
  bool putOutOne();
  // The oldest that may be put out; false when nobody may.
  bool putOutOneOf(const std::set<CallerNumber>& group);
  bool putOutForDescriptor();
  bool isShortOfDescriptors() const;

  // Any thread.
  void wake() const;
  void leave(const std::string& identity);
  bool isStopped() const;
  // With the mutex held.
  bool isDrained() const;
  void tell();

  const std::shared_ptr<const TlsPsk> psk_;
  const LqListener::Limits limits_;
  const std::string place_;

  // The room's thread alone.
  auto_handle listener_;
  auto_handle epoll_;
  Callers callers_;
  CallerNumber lastNumber_ = 0;
  CallerGroups byAddress_;
  CallerGroups byIdentity_;
  std::set<CallerNumber> inQueue_;     // who waits for memory
  std::set<CallerNumber> unfinished_;  // who can go on at once, after the others
  Clock::time_point lastSweep_{};
  std::size_t forgotten_ = 0;  // callers of whom nothing has been told
  bool isCrowded_ = false;
  bool isListening_ = true;
  bool inShortage_ = false;
  bool isDoorClosed_ = false;

  auto_handle wake_;
  std::thread thread_;
  std::mutex joining_;

  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::deque<std::unique_ptr<CLqNetwork>> ready_;
  std::vector<Entrant> returned_;
  std::map<std::string, std::size_t> served_;  // sessions handed out, by identity
  LqListener::Census census_;
  bool turnsAway_ = false;
  bool isStopped_ = false;
};
