// How this room uses Asio; to be included before any Asio header.
#pragma once

// Every io_context here is run by the one thread that uses its session, so handlers need no memory fences
// between them. (The thread sanitizer could not follow fences either.)
#define ASIO_DISABLE_FENCED_BLOCK
