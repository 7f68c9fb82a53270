#include "registry_client/log_directory.h"

#include "lqregistry/LqSettings.h"

namespace {

constexpr const char* kRepairTag = "downLoadAndUpdateClient";
constexpr const char* kFolderSeparator = "/";

}  // namespace

OBGui::KeyList logDirectoryRemovals(const OBGui::KeyList& keys) {
  OBGui::KeyList removals;
  for (const OBGui::RegistryKeyInfo& key : keys)
    if (key.deleteFlag == 1 && key.valueName.get() == lqsettings::kLogDirectory.name) removals.push_back(key);
  return removals;
}

void resetLogDirectory(LqRegistryManagerClnt& client, const OBGui::RegistryKeyInfo& removed) {
  std::string home;
  LQPlatformInfo current(LQPI_Focus::getFocus());
  if (!current.getDirectory(lqsettings::kVelmorHome.key, lqsettings::kVelmorHome.name, home) ||
      home.empty()) {
    client.logger.Error(kRepairTag, "Cannot determine Velmor Home folder");
    return;
  }
  client.logger.Debug(kRepairTag, " Fetched dVELMORHOME regKey from client's registry :: %s", home.c_str());
  const std::string directory = home + kFolderSeparator + lqsettings::kLogFolder;
  OBGui::KeyList repair{removed};
  repair[0].value = directory;
  repair[0].deleteFlag = 0;
  if (client.updateRegistryKeysForClient(repair) != kResultOk) {
    client.logger.Error(kRepairTag,
                        "  Got issue while adding dOBLOGDIR key at client's registry with default path :: %s",
                        directory.c_str());
  } else {
    client.logger.Debug(kRepairTag,
                        " dOBLOGDIR key added successfully at client's registry with default path :: %s",
                        directory.c_str());
  }
}
