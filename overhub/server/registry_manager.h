// The registry manager: hands clients their batch and the static key list, records how it went, and keeps
// what they upload.
#pragma once

#include <span>

#include "overhub/server/service.h"

std::span<const MessageHandler> registryManagerHandlers();
