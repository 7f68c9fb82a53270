// One resident host an instance: whoever is it holds a locked file in the base directory to the end of its
// process.
#pragma once

#include "lqregistry/CWmError.h"

namespace host {

// Makes this process the resident host of the instance in focus, until it ends. An error when there is one
// already, or the base directory cannot be written.
CWmError becomeResident();

// Whether a resident host serves the instance in focus.
bool isHostResident();

}  // namespace host
