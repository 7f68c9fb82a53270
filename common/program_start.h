// What every program does before anything else, and whom a command becomes that root has started.
#pragma once

#include <string>
#include <vector>

#include "lqregistry/CWmError.h"

namespace programs {

// What this process creates is for its owner only, and a file that may grow no further is an error like a
// full disk, not the end of the process.
void beginProgram();

// Started by root, turns this process for good into the user that the first of `paths` belongs to, so that
// nothing is opened as root that a service user could have prepared, and nothing is left behind that the
// service user cannot write. A path that is not there counts as the directory that holds it. Paths that
// belong to root, or of which neither is there, are passed over; when none is left, or this is not root,
// nothing happens. An error leaves the process in a state in which it must not go on.
CWmError becomeServiceUser(const std::vector<std::string>& paths);

}  // namespace programs
