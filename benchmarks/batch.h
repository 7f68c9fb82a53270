// The settings that are measured with: about a hundred values a key, some keys deep, texts and numbers, in
// the order of their keys as a server keeps them.
#pragma once

#include <cstddef>
#include <string>

#include "lqregistry/OBGui.h"

namespace bench {

struct Setting {
  std::string keyPath;
  std::string name;
  std::string value;
};

// The `index`th setting in one of two versions, which differ in every value.
Setting settingOf(std::size_t index, int version);

OBGui::RegistryTaskResp batchOf(std::size_t records, int version);
std::string textOf(const OBGui::RegistryTaskResp& message);

// The same settings as the peer reads them.
std::string dconfTextOf(std::size_t records, int version);

}  // namespace bench
