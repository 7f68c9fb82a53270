#include "client_session/session_steps.h"

#include <algorithm>

namespace session_steps {

std::string localClientHostName(LQPlatformInfo& platformInfo) {
  std::array<char, kHostNameBuffer> name{};
  platformInfo.getClientHostName(platformInfo.getPhysicalMachine(), name.data(), name.size() - 1);
  return name.data();
}

std::string serverHostName(LQPlatformInfo& platformInfo) {
  std::array<char, kHostNameBuffer> name{};
  platformInfo.findOverhubHostName(name.data());
  return name.data();
}

std::string clientNameOfHost(LQPlatformInfo& platformInfo, const std::string& hostName) {
  std::string name;
  platformInfo.getClientNameFromHostName(hostName, name);
  // A name buffer ends at the first NUL.
  name.resize(std::min({name.size(), name.find('\0'), kHostNameBuffer}));
  return name;
}

std::string localSessionName(LQPlatformInfo& platformInfo) {
  if ((platformInfo.getLQPlatformType() & kPlatformServer) != 0) {
    std::array<char, kServerNameBuffer> name{};
    platformInfo.getOverhubClientName(name.data(), name.size());
    return name.data();
  }
  const char* machine = platformInfo.getPhysicalMachine();
  return machine == nullptr ? std::string() : std::string(machine).substr(0, kMaxLocalName);
}

std::string peerName(const CLqNetwork& network) {
  std::string name;
  network.GetPeerName(name);
  return name;
}

std::uint32_t sessionPlatformType(LQPlatformInfo& platformInfo) {
  const unsigned type = platformInfo.getLQPlatformType();
  if ((type & kPlatformWindows) != 0) return kPlatformWindows;
  return type & kPlatformUnix;
}

}  // namespace session_steps
