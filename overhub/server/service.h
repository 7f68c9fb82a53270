// What the server offers: services, named by remote library and entry, each with a handler per message class.
//
// The session loop (session.h) knows none of them. A new message class is a line in its service's table; a
// new service is a table of its own and a line in services.cpp.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "lqregistry/CNMessageBase.h"
#include "overhub/store/store.h"

// A handler's answer: a reply, a refusal with a reason, or neither. `summary` is for the log's line.
struct Answer {
  std::unique_ptr<CNMessageBase> reply;
  std::string refusal;
  std::string summary;

  static Answer withReply(std::unique_ptr<CNMessageBase> message, std::string summary);
  static Answer withoutReply(std::string summary);
  static Answer refused(std::string reason);
  // To what work on the store has refused, or could not do: what is wrong with the store is for the log, and
  // for whoever looks after it, and the client is told to come again.
  static Answer ofStore(const CWmError& error, const std::string& what);
};

// Who has proven to be on the other side of a session.
struct Caller {
  std::string client;
  // The hand-out that an acknowledgement in this session proves: what was open at its beginning, or was
  // handed out in it since. So one that comes late, by another server even, proves nothing else.
  std::int64_t handOut = 0;
};

// Answers a message. Several run at once, one a session.
using Handler = Answer (*)(const Store& store, Caller& caller, const CNMessageBase& message);

struct MessageHandler {
  unsigned long tag;
  Handler handler;
};

struct Service {
  const char* library;
  const char* entry;
  std::span<const MessageHandler> handlers;

  // The handler of a message class, or null.
  Handler find(unsigned long tag) const;
};

// The service of that name, or null.
const Service* findService(const std::string& library, const std::string& entry);
