// The process's observer of sessions, as set with CLqNetwork::SetObserver.
#pragma once

#include "lqregistry/CLqNetwork.h"

void observe(const CLqNetwork::WireEvent& event);
