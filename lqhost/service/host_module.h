// Host modules: libraries of the host's own teams that lqhost loads beside the product.
//
// A module exports one function with C linkage under the name below. It is called once, before any task runs,
// and registers what the module wants to be called for: change callbacks with LqRegistryChangeMgr, message
// handlers with LqCommunicationManagerClnt. It returns 0; anything else refuses the start.
#pragma once

#include <string>
#include <vector>

#include "lqregistry/CWmError.h"

namespace host {

inline constexpr const char* kModuleEntry = "LqHostModule_Register";

// Loads each module and lets it register; they stay loaded as long as the process lives.
CWmError loadModules(const std::vector<std::string>& paths);

}  // namespace host
