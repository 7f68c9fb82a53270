// What the XML library alone makes of key records, as fast as it can.
#pragma once

#include <pugixml.hpp>
#include <string>

namespace bench {

inline void appendRecord(pugi::xml_node& list, const std::string& name, const char* type,
                         const std::string& value, const std::string& path) {
  pugi::xml_node node = list.append_child("OBGui.RegistryKeyInfo");
  node.append_attribute("valueName").set_value(name.c_str());
  node.append_attribute("valueType").set_value(type);
  node.append_attribute("value").set_value(value.c_str());
  node.append_attribute("keyPath").set_value(path.c_str());
  node.append_attribute("deleteFlag").set_value("0");
  node.append_attribute("enabledFlag").set_value("1");
}

inline std::string textOfTree(const pugi::xml_document& document) {
  struct Writer : pugi::xml_writer {
    std::string text;
    void write(const void* bytes, std::size_t size) override {
      text.append(static_cast<const char*>(bytes), size);
    }
  } writer;
  document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
  return std::move(writer.text);
}

}  // namespace bench
