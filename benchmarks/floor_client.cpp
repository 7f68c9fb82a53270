#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <pugixml.hpp>

#include "benchmarks/floor.h"
#include "benchmarks/machine.h"
#include "benchmarks/rounds.h"
#include "benchmarks/xml_text.h"

namespace bench {

namespace {

constexpr const char* kRequest = "<OBGui.RegistryTaskReq><client clientId=\"42\"/></OBGui.RegistryTaskReq>";
constexpr const char* kAcknowledgement =
    "<OBGui.RegistryTaskResp taskStatus=\"3\"><client clientId=\"42\"/></OBGui.RegistryTaskResp>";
constexpr const char* kStore = "/floor.db";
constexpr const char* kCache = "/floor.cache";
constexpr const char* kNewCache = "/floor.cache.new";

// Anything but a removal or a protected value, which are not among what is measured with.
constexpr int kOrdinary = 1;

// The file is written from the text as it came, before the tree is built in the text's place; it is put on
// disk and into its place once the settings are.
class CacheFile {
 public:
  CacheFile(std::string folder, std::string_view text)
      : folder_(std::move(folder)),
        file_(open((folder_ + kNewCache).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
    demand(::write(file_, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "no cache");
  }
  ~CacheFile() { close(file_); }
  CacheFile(const CacheFile&) = delete;
  CacheFile& operator=(const CacheFile&) = delete;

  void place() const {
    demand(fsync(file_) == 0, "the cache is not on disk");
    demand(std::rename((folder_ + kNewCache).c_str(), (folder_ + kCache).c_str()) == 0, "no cache");
  }

 private:
  std::string folder_;
  int file_;
};

void applyTo(FloorStore& store, const pugi::xml_document& document) {
  store.begin();
  for (const pugi::xml_node record : document.first_child().child("keys")) {
    std::string_view name;
    std::string_view value;
    std::string_view path;
    for (const pugi::xml_attribute attribute : record.attributes()) {
      const std::string_view field = attribute.name();
      if (field == "valueName") name = attribute.value();
      if (field == "value") value = attribute.value();
      if (field == "keyPath") path = attribute.value();
    }
    store.apply(path, name, kOrdinary, value);
  }
  store.commit();
}

}  // namespace

FloorClient::FloorClient(const std::string& folder, const std::string& address, const std::string& keyHex)
    : folder_(folder), address_(address), endpoint_(Endpoint::Role::kCaller, kClientName, keyHex) {
  store_ = std::make_unique<FloorStore>(folder_ + kStore);
}

void FloorClient::begin() {
  store_.reset();
  for (const char* end : {"", "-wal", "-shm"}) std::filesystem::remove(folder_ + kStore + end);
  std::filesystem::remove(cacheFile());
  store_ = std::make_unique<FloorStore>(folder_ + kStore);
}

std::string FloorClient::cacheFile() const {
  return folder_ + kCache;
}

void FloorClient::pass() {
  {
    Buffer text;
    {
      const auto wire = endpoint_.call(address_);
      wire->send(frameOf(FrameKind::kMessage, kRequest));
      demand(wire->receive(text) == FrameKind::kMessage, "no batch came");
      wire->part();
    }
    const CacheFile cache(folder_, text.text());
    pugi::xml_document document;
    demand(document.load_buffer_inplace(text.data(), text.size()), "the batch cannot be read");
    applyTo(*store_, document);
    cache.place();
  }
  const auto wire = endpoint_.call(address_);
  wire->send(frameOf(FrameKind::kMessage, kAcknowledgement));
  wire->part();
}

std::size_t FloorClient::upload() {
  std::string text;
  {
    pugi::xml_document document;
    pugi::xml_node message = document.append_child("OBGui.RegistryTaskResp");
    message.append_attribute("taskStatus").set_value(2);
    message.append_child("client").append_attribute("clientId").set_value(42);
    pugi::xml_node records = message.append_child("keys");
    std::string lastKey;
    store_->scan([&](std::string_view key, std::string_view name, std::string_view data) {
      if (key != lastKey) {
        lastKey = key;
        const std::size_t separator = lastKey.rfind('/');
        appendRecord(records, lastKey.substr(separator + 1), "KEY", "", lastKey.substr(0, separator));
      }
      appendRecord(records, std::string(name), "STRING", std::string(data), lastKey);
    });
    text = textOfTree(document);
  }
  const auto wire = endpoint_.call(address_);
  wire->send(frameOf(FrameKind::kMessage, text));
  Buffer verdict;
  demand(wire->receive(verdict) == FrameKind::kMessage, "no verdict came");
  wire->part();
  return text.size();
}

}  // namespace bench
