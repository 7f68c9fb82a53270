// The registry's protection key: where it lies, and what the registry tells the room of secrets about it.
#pragma once

#include <string>

namespace lqregistry {

// The key file of a registry file.
std::string keyFileOf(const std::string& registryFile);

}  // namespace lqregistry
