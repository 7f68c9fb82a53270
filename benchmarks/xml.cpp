// A batch read from its text and written as one, beside the XML library alone.
#include <pugixml.hpp>

#include "benchmarks/batch.h"
#include "benchmarks/rows.h"
#include "benchmarks/xml_text.h"

namespace bench {

namespace {

// Messages are read and written one after the other here, so that what is timed is the code and not the first
// touch of memory, which the rows of whole passes have in them.
constexpr int kRepetitions = 10;

Figures repeated(const std::function<void()>& work) {
  work();
  const double all = millisecondsOf([&] {
    for (int i = 0; i < kRepetitions; ++i) work();
  });
  return {{"ms", all / kRepetitions}};
}

void readOurs(const std::string& text, std::size_t size) {
  OBGui::RegistryTaskResp batch;
  demand(batch.unserialize(text) == 0 && batch.keys->size() == size, "the text cannot be read");
}

void readAlone(const std::string& text) {
  pugi::xml_document document;
  demand(document.load_buffer(text.data(), text.size()), "the text cannot be read");
}

void writeAlone(const OBGui::KeyList& keys, std::size_t atLeast) {
  pugi::xml_document document;
  pugi::xml_node list = document.append_child("OBGui.RegistryTaskResp").append_child("keys");
  for (const OBGui::RegistryKeyInfo& key : keys)
    appendRecord(list, key.valueName, "STRING", key.value, key.keyPath);
  demand(textOfTree(document).size() > atLeast, "the text is too short");
}

}  // namespace

void xmlRow(std::size_t size) {
  OBGui::RegisterSubsystem();
  const OBGui::RegistryTaskResp batch = batchOf(size, 0);
  const std::string text = textOf(batch);
  const std::size_t atLeast = text.size() * 9 / 10;
  compare({"xml", "read", size}, {{"ours", {}, [&] { return repeated([&] { readOurs(text, size); }); }, {}},
                                  {"floor", {}, [&] { return repeated([&] { readAlone(text); }); }, {}}});
  compare({"xml", "write", size},
          {{"ours", {}, [&] { return repeated([&] { demand(textOf(batch) == text, "another text"); }); }, {}},
           {"floor", {}, [&] { return repeated([&] { writeAlone(batch.keys, atLeast); }); }, {}}});
}

}  // namespace bench
