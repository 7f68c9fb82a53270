// The report service: keeps what clients' hosts say of themselves, and answers it.
#pragma once

#include <span>

#include "overhub/server/service.h"

std::span<const MessageHandler> reportServiceHandlers();
