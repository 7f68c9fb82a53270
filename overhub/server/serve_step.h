// One step of a client's session: its attach, a request and the answer to it, or its end.
#pragma once

#include "lqregistry/CLqNetwork.h"
#include "overhub/store/store.h"

// How long an attached client may leave a reply unread, in seconds; then it is dropped.
inline constexpr int kReplySeconds = 60;

// Does what a session that the listener handed out is waiting for, and logs who it was and how it went. True
// when the session goes on and is to be handed back until its next request.
bool serveStep(CLqNetwork& network, const Store& store);
