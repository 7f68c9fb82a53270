#include "lqhost/instance.h"

#include "lqregistry/FXFile.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"

namespace host {

std::string instanceName() {
  const char* const focus = LQPI_Focus::getFocus();
  return focus == nullptr ? "" : focus;
}

std::string baseDirectory() {
  LQPI_PlatformBase base;
  const char* const directory = base.getBaseHomeDirectory();
  return directory == nullptr ? "" : directory;
}

std::string pathInBase(const std::string& name) {
  std::string path = baseDirectory();
  FXPath::Append(path, name);
  return path;
}

}  // namespace host
