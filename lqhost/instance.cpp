#include "lqhost/instance.h"

#include <cstdio>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"

namespace host {

std::string instanceName() {
  const char* const focus = LQPI_Focus::getFocus();
  return focus == nullptr ? "" : focus;
}

bool requireJoined() {
  LQPlatformInfo info;
  std::string server;
  if (info.getString("Overhub", "sOHHOSTNAME", server)) return true;
  if (info.getRegError() == kRegUnavailable) {
    std::fprintf(stderr, "lqhost: %s\n", info.getRegErrorText().c_str());
  } else {
    std::fprintf(
        stderr,
        "lqhost: instance %s in %s has not joined a server; run `lqhost join FILE` with the file that "
        "`overhub add-client` wrote\n",
        instanceName().c_str(), lqregistry::File().c_str());
  }
  return false;
}

std::string baseDirectory() {
  LQPI_PlatformBase base;
  const char* const directory = base.getBaseHomeDirectory();
  return directory == nullptr ? "" : directory;
}

}  // namespace host
