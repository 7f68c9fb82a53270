// Applying a batch to the registry, against plain SQLite writing the same values in one transaction.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqRegistryManagerClnt.h"
#include "lqregistry/ObLog.h"

namespace {

// A folder for one benchmark, removed at its end.
class Folder {
 public:
  Folder() : path_(std::filesystem::temp_directory_path() / ("lqbench." + std::to_string(getpid()))) {
    std::filesystem::create_directory(path_);
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string operator/(const char* name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

OBGui::KeyList recordsOf(std::int64_t count, const std::string& value) {
  OBGui::KeyList keys;
  for (std::int64_t i = 0; i < count; ++i) {
    OBGui::RegistryKeyInfo key;
    key.keyPath = "Machine/Group" + std::to_string(i % 100);
    key.valueName = "sValue" + std::to_string(i);
    key.valueType = "STRING";
    key.value = value;
    key.deleteFlag = 0;
    key.enabledFlag = 1;
    keys.push_back(std::move(key));
  }
  return keys;
}

void BM_WriteValues_sqliteFloor(benchmark::State& state) {
  const Folder folder;
  sqlite3* db = nullptr;
  sqlite3_open((folder / "floor.db").c_str(), &db);
  sqlite3_exec(db,
               "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
               "CREATE TABLE v(k TEXT, n TEXT, d BLOB, PRIMARY KEY(k, n)) WITHOUT ROWID",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* put = nullptr;
  sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO v VALUES(?, ?, ?)", -1, &put, nullptr);
  std::int64_t round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const OBGui::KeyList keys = recordsOf(state.range(0), "value of round " + std::to_string(++round));
    state.ResumeTiming();
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (const auto& key : keys) {
      sqlite3_bind_text(put, 1, key.keyPath->data(), static_cast<int>(key.keyPath->size()), SQLITE_STATIC);
      sqlite3_bind_text(put, 2, key.valueName->data(), static_cast<int>(key.valueName->size()),
                        SQLITE_STATIC);
      sqlite3_bind_blob(put, 3, key.value->data(), static_cast<int>(key.value->size()), SQLITE_STATIC);
      sqlite3_step(put);
      sqlite3_reset(put);
    }
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  }
  sqlite3_finalize(put);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_WriteValues_sqliteFloor)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// `changing`: every round brings other values; otherwise every round brings what the registry holds already.
void applyRounds(benchmark::State& state, bool changing) {
  const Folder folder;
  oblog::Settings quiet;
  quiet.toStandardError = false;
  static_cast<void>(oblog::Configure(quiet));  // fails over a log file only
  lqregistry::UseFile(folder / "registry.db");
  LQPI_Focus::setFocus("Instance001");
  LqRegistryManagerClnt client("");
  std::int64_t round = 0;
  OBGui::KeyList keys = recordsOf(state.range(0), "value of round 0");
  client.updateRegistryKeysForClient(keys);
  for (auto _ : state) {
    if (changing) {
      state.PauseTiming();
      keys = recordsOf(state.range(0), "value of round " + std::to_string(++round));
      state.ResumeTiming();
    }
    if (client.updateRegistryKeysForClient(keys) != kResultOk)
      state.SkipWithError("the batch was not applied");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ApplyBatch_changed(benchmark::State& state) {
  applyRounds(state, true);
}
BENCHMARK(BM_ApplyBatch_changed)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_ApplyBatch_unchanged(benchmark::State& state) {
  applyRounds(state, false);
}
BENCHMARK(BM_ApplyBatch_unchanged)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
