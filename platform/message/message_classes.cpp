#include "platform/message/message_classes.h"

#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace {

struct ClassTable {
  std::shared_mutex mutex;
  std::map<std::string, MessageFactory, std::less<>> factories;
};

// Never destroyed: messages may still arrive while the process's statics are torn down.
ClassTable& classTable() {
  static auto* const table = new ClassTable;
  return *table;
}

}  // namespace

MessageFactory lqmessage::factoryOf(std::string_view className) {
  ClassTable& table = classTable();
  const std::shared_lock lock(table.mutex);
  const auto found = table.factories.find(className);
  return found != table.factories.end() ? found->second : nullptr;
}

void registerMessageClass(const char* className, MessageFactory factory) {
  ClassTable& table = classTable();
  const std::unique_lock lock(table.mutex);
  table.factories[className] = factory;
}

void unregisterMessageClass(const char* className, MessageFactory factory) {
  ClassTable& table = classTable();
  const std::unique_lock lock(table.mutex);
  const auto found = table.factories.find(std::string_view(className));
  if (found != table.factories.end() && found->second == factory) table.factories.erase(found);
}
