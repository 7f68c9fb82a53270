// Clients as this machine's registry knows them: one key per name, holding the id.
#include "lqregistry/LQClient.h"

#include <charconv>

#include "lqregistry/CLqNetwork.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqSettings.h"

namespace {

constexpr int kKnown = 0;
constexpr int kUnknown = 1;

// A name with a separator in it would be another client's key, or one below it.
bool isClientName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos;
}

}  // namespace

int LQClient::getClientId(std::uint64_t& id, const void* context) const {
  LQPlatformInfo info;
  std::string text;
  if (context != nullptr || !isClientName(name_)) return kUnknown;
  std::string machine;
  std::string client;
  const bool isRecorded =
      info.getString(lqsettings::kClientsKey + name_, lqsettings::kClientId, text) ||
      (info.getString(lqsettings::kPhysicalMachine.key, lqsettings::kPhysicalMachine.name, machine) &&
       machine == name_ &&
       info.getString(lqsettings::kSessionIdentity.key, lqsettings::kSessionIdentity.name, client) &&
       isClientName(client) && info.getString(lqsettings::kClientsKey + client, lqsettings::kClientId, text));
  if (!isRecorded) return kUnknown;
  const char* end = text.data() + text.size();
  std::uint64_t parsed = 0;
  const auto [stop, error] = std::from_chars(text.data(), end, parsed);
  if (error != std::errc() || stop != end) return kUnknown;
  id = parsed;
  return kKnown;
}

int LQClient::getNetworkHostnameMangled(std::string& target) const {
  LQPlatformInfo info(LQPI_Focus::getFocus());
  std::string host;
  std::string client;
  if (id_ != kServerClientId ||
      !info.getString(lqsettings::kServerHost.key, lqsettings::kServerHost.name, host) ||
      !info.getString(lqsettings::kServerName.key, lqsettings::kServerName.name, client))
    return kUnknown;
  target = MangleHostName(host, client, kFirstServicePort, kSecondServicePort);
  return kKnown;
}

bool LQClient::recordClient(const std::string& name, std::uint64_t id) {
  LQPlatformInfo info;
  return isClientName(name) &&
         info.setString(lqsettings::kClientsKey + name, lqsettings::kClientId, std::to_string(id), 0) != 0;
}
