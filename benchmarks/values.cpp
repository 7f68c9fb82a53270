// Reading and writing single values in a batch, beside one prepared statement by path and name.
#include <vector>

#include "benchmarks/batch.h"
#include "benchmarks/floor.h"
#include "benchmarks/machine.h"
#include "benchmarks/rows.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"

namespace bench {

namespace {

std::vector<Setting> settingsOf(std::size_t size, int version) {
  std::vector<Setting> settings;
  settings.reserve(size);
  for (std::size_t i = 0; i < size; ++i) settings.push_back(settingOf(i, version));
  return settings;
}

// The batch's beginning and end are outside the time.
class Values {
 public:
  explicit Values(std::size_t size)
      : floor_(folder_ / "floor.db"), versions_{settingsOf(size, 0), settingsOf(size, 1)} {
    use(folder_.path());
    writeOurs();
    floor_.begin();
    for (const Setting& setting : versions_[0]) floor_.apply(setting.keyPath, setting.name, 1, setting.value);
    floor_.commit();
  }

  Figures readOurs() {
    lqregistry::WriteBatch batch;
    batch.lock();
    LQPlatformInfo info;
    std::string value;
    std::size_t read = 0;
    Figures figures = each([&] {
      for (const Setting& setting : versions_[0])
        read += info.getString(setting.keyPath, setting.name, value) ? value.size() : 0;
    });
    demand(read > versions_[0].size() && batch.commit(), "values were not read");
    return figures;
  }
  Figures readFloor() {
    floor_.begin();
    std::string value;
    std::size_t read = 0;
    Figures figures = each([&] {
      for (const Setting& setting : versions_[0])
        read += floor_.read(setting.keyPath, setting.name, value) ? value.size() : 0;
    });
    floor_.commit();
    demand(read > versions_[0].size(), "values were not read");
    return figures;
  }
  Figures writeOurs() {
    const auto& settings = versions_[oursWritten_++ % 2];
    lqregistry::WriteBatch batch;
    batch.lock();
    LQPlatformInfo info;
    std::size_t written = 0;
    Figures figures = each([&] {
      for (const Setting& setting : settings)
        written += info.setString(setting.keyPath, setting.name, setting.value, 0) != 0 ? 1 : 0;
    });
    demand(written == settings.size() && batch.commit(), "values were not written");
    return figures;
  }
  Figures writeFloor() {
    const auto& settings = versions_[++floorWritten_ % 2];
    floor_.begin();
    Figures figures = each([&] {
      for (const Setting& setting : settings) floor_.write(setting.keyPath, setting.name, 1, setting.value);
    });
    floor_.commit();
    return figures;
  }

 private:
  Figures each(const std::function<void()>& all) const {
    return {{"us", millisecondsOf(all) * 1000 / static_cast<double>(versions_[0].size())}};
  }

  Folder folder_;
  FloorStore floor_;
  std::vector<Setting> versions_[2];
  std::size_t oursWritten_ = 0;
  std::size_t floorWritten_ = 0;
};

}  // namespace

void valuesRow(std::size_t size) {
  Values values(size);
  compare({"values", "read", size}, {{"ours", {}, [&] { return values.readOurs(); }, {}},
                                     {"floor", {}, [&] { return values.readFloor(); }, {}}});
  compare({"values", "write", size}, {{"ours", {}, [&] { return values.writeOurs(); }, {}},
                                      {"floor", {}, [&] { return values.writeFloor(); }, {}}});
}

}  // namespace bench
