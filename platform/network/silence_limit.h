// How long a step waits for its socket: until the deadline, but never longer than the silence limit without a
// byte, and not while the process stops.
#pragma once

#include <chrono>

#include "lqregistry/CWmError.h"
#include "platform/network/deadline.h"

// For the whole process; kSilenceLimitSeconds until it is set (CLqNetwork::SetSilenceLimit).
void setSilenceLimit(std::chrono::milliseconds limit);
std::chrono::milliseconds silenceLimitNow();

// Waits until the socket is ready for `events` of poll(2). kLqErrTimeout when the deadline comes first,
// kLqErrConnectionLost when the silence limit does, kLqErrStopping when the process stops.
CWmError awaitSocket(int descriptor, short events, const Deadline& deadline);
