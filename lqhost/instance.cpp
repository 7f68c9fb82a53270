#include "lqhost/instance.h"

#include "lqregistry/FXFile.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"

namespace host {

std::string instanceName() {
  const char* const focus = LQPI_Focus::getFocus();
  return focus == nullptr ? "" : focus;
}

CWmError checkJoined() {
  LQPlatformInfo info;
  std::string server;
  if (info.getString(lqsettings::kServerHost.key, lqsettings::kServerHost.name, server)) return {};
  if (info.getRegError() == kRegUnavailable) return {kLqErrFile, info.getRegErrorText()};
  return {kLqErrNoCredentials, "instance " + instanceName() + " in " + lqregistry::File() +
                                   " has not joined a server; run `lqhost join FILE` with the file that "
                                   "`overhub add-client` wrote"};
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
