// The process's observer of messages, as set with CLqNetwork::SetObserver.
#pragma once

#include "lqregistry/CLqNetwork.h"

void observeMessage(CLqNetwork::Direction direction, const CNMessageBase& message);
