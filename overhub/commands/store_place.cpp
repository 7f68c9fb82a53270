#include "overhub/commands/store_place.h"

#include <utility>

#include "overhub/commands/reporting.h"

namespace {

programs::CommandLine::Action on(const Store::Place& place, CWmError (Store::*begin)(),
                                 std::function<int(const Store&)> command) {
  return [&place, begin, command = std::move(command)] {
    Store store(place);
    const CWmError error = (store.*begin)();
    if (error.IsError()) return storeFailed(error);
    if (!store.notice().empty()) warn(store.notice());
    return command(store);
  };
}

}  // namespace

void describeStore(programs::CommandLine::Options options, Store::Place& place) {
  options.option("--data DIR", place.directory, "The directory of the store and its key")
      .fromEnvironment("OVERHUB_DATA");
  options
      .option("--store URI", place.uri,
              "A PostgreSQL database that holds the store instead, such as postgresql://hub@db1,db2/overhub; "
              "DIR has its key. A password belongs into ~/.pgpass")
      .fromEnvironment("OVERHUB_STORE");
}

programs::CommandLine::Action onStore(const Store::Place& place, std::function<int(const Store&)> command) {
  return on(place, &Store::open, std::move(command));
}

programs::CommandLine::Action onMadeStore(const Store::Place& place,
                                          std::function<int(const Store&)> command) {
  return on(place, &Store::prepare, std::move(command));
}
