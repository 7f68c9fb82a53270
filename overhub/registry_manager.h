// The registry manager: hands clients their batch and the static key list, and records how it went.
#pragma once

#include <span>

#include "overhub/service.h"

std::span<const MessageHandler> registryManagerHandlers();
