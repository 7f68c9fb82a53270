// Writing and reading a batch as text, against the XML library doing the same on a tree of the same shape.
#include <benchmark/benchmark.h>

#include <pugixml.hpp>
#include <sstream>

#include "lqregistry/OBGui.h"

namespace {

OBGui::RegistryTaskResp batchOf(std::int64_t records) {
  OBGui::RegistryTaskResp batch;
  batch.taskStatus = OBGui::kTaskSuccess;
  for (std::int64_t i = 0; i < records; ++i) {
    OBGui::RegistryKeyInfo key;
    key.keyPath = "Machine/Settings/Group" + std::to_string(i % 100);
    key.valueName = "sValue" + std::to_string(i);
    key.valueType = "STRING";
    key.value = "the value number " + std::to_string(i);
    key.deleteFlag = 0;
    key.enabledFlag = 1;
    batch.keys.edit().push_back(std::move(key));
  }
  return batch;
}

std::string textOf(const OBGui::RegistryTaskResp& batch) {
  std::string text;
  batch.serialize(text, false);
  return text;
}

void BM_WriteBatch_xmlFloor(benchmark::State& state) {
  const auto records = static_cast<int>(state.range(0));
  for (auto _ : state) {
    pugi::xml_document document;
    pugi::xml_node list = document.append_child("batch").append_child("keys");
    for (int i = 0; i < records; ++i) {
      pugi::xml_node node = list.append_child("OBGui.RegistryKeyInfo");
      node.append_attribute("valueName").set_value("sValue");
      node.append_attribute("valueType").set_value("STRING");
      node.append_attribute("value").set_value("the value number");
      node.append_attribute("keyPath").set_value("Machine/Settings/Group");
      node.append_attribute("deleteFlag").set_value(0);
      node.append_attribute("enabledFlag").set_value(1);
    }
    std::ostringstream out;
    document.save(out, "", pugi::format_raw);
    benchmark::DoNotOptimize(out.str());
  }
  state.SetItemsProcessed(state.iterations() * records);
}
BENCHMARK(BM_WriteBatch_xmlFloor)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_WriteBatch(benchmark::State& state) {
  const OBGui::RegistryTaskResp batch = batchOf(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(textOf(batch));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_WriteBatch)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_ReadBatch_xmlFloor(benchmark::State& state) {
  const std::string text = textOf(batchOf(state.range(0)));
  for (auto _ : state) {
    pugi::xml_document document;
    benchmark::DoNotOptimize(document.load_buffer(text.data(), text.size()));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReadBatch_xmlFloor)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_ReadBatch(benchmark::State& state) {
  OBGui::RegisterSubsystem();
  const std::string text = textOf(batchOf(state.range(0)));
  for (auto _ : state) {
    OBGui::RegistryTaskResp batch;
    if (batch.unserialize(text) != 0) state.SkipWithError("the text cannot be read back");
    benchmark::DoNotOptimize(batch);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReadBatch)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
