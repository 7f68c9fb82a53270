// One client's session, from the handshake to the goodbye.
#pragma once

#include <memory>

#include "lqregistry/CLqNetwork.h"
#include "overhub/store/data_store.h"

// How long a caller may take to prove itself and say what it wants, and how long an attached client may stay
// silent or leave a reply unread, in seconds; then it is dropped.
inline constexpr int kHandshakeSeconds = 10;
inline constexpr int kIdleSeconds = 60;

// Serves an accepted caller to the end of its session, and logs who it was, each request and its result.
void serveSession(CLqNetwork& network, const DataStore& store);
