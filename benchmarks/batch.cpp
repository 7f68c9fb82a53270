#include "benchmarks/batch.h"

#include <array>

#include "benchmarks/machine.h"
#include "benchmarks/rounds.h"

namespace bench {

namespace {

constexpr std::size_t kValuesInKey = 100;
constexpr std::array kAreas = {"Settings", "Network", "Schedule", "Retention"};

}  // namespace

Setting settingOf(std::size_t index, int version) {
  const std::size_t key = index / kValuesInKey;
  return {std::string("Machine/") + kAreas[key % kAreas.size()] + "/Group" + std::to_string(key),
          "sValue" + std::to_string(index),
          "value number " + std::to_string(index) + " of version " + std::to_string(version)};
}

OBGui::RegistryTaskResp batchOf(std::size_t records, int version) {
  OBGui::RegistryTaskResp batch;
  batch.taskStatus = OBGui::kTaskSuccess;
  batch.client.edit().clientId = kClientId;
  OBGui::KeyList& keys = batch.keys.edit();
  keys.reserve(records);
  for (std::size_t i = 0; i < records; ++i) {
    Setting setting = settingOf(i, version);
    OBGui::RegistryKeyInfo& key = keys.emplace_back();
    key.keyPath = std::move(setting.keyPath);
    key.valueName = std::move(setting.name);
    key.valueType = "STRING";
    key.value = std::move(setting.value);
    key.deleteFlag = 0;
    key.enabledFlag = 1;
  }
  return batch;
}

std::string textOf(const OBGui::RegistryTaskResp& message) {
  std::string text;
  demand(message.serialize(text, false) == 0, "the batch cannot be written");
  return text;
}

std::string dconfTextOf(std::size_t records, int version) {
  std::string text;
  std::string group;
  for (std::size_t i = 0; i < records; ++i) {
    const Setting setting = settingOf(i, version);
    if (setting.keyPath != group) {
      group = setting.keyPath;
      text += "\n[" + group + "]\n";
    }
    text += setting.name + "='" + setting.value + "'\n";
  }
  return text;
}

}  // namespace bench
