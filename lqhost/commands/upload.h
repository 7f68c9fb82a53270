// `lqhost upload`: sends the whole registry of the instance to the server.
#pragma once

namespace host {

// Uploads, showing progress on a terminal, and prints the server's verdict; the program's exit code.
int upload();

}  // namespace host
