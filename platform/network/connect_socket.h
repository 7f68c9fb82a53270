// Connecting a socket to a target: which of its addresses and ports, in which order, and for how long each.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"
#include "platform/network/deadline.h"
#include "platform/network/target.h"

// Connects to the target's first port or, when nobody can be reached there on any of the host's addresses,
// its second. The non-blocking socket is the caller's to close, `address` the text of what it is connected
// to. An error names each address that was tried.
CWmError connectSocket(const Target& target, const Deadline& deadline, int& descriptor, std::string& address);

// The options of every socket that carries a session: no delay, and a look after peers that are silent.
void prepareSocket(int descriptor);
