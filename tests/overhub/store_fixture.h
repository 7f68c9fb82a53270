// What the store's tests share: a store of their own on each engine, with two servers of it and a clock that
// stands until a test moves it, and the changes as commands make them.
#pragma once

#include <gtest/gtest.h>
#include <soci/soci.h>

#include <memory>
#include <string>
#include <vector>

#include "lqregistry/CLqNetwork.h"
#include "overhub/store/change.h"
#include "overhub/store/clients.h"
#include "overhub/store/hand_out.h"
#include "overhub/store/scope.h"
#include "overhub/store/session_keys.h"
#include "overhub/store/store.h"
#include "tests/support/postgresql.h"

enum class EngineKind { kSqlite, kPostgresql };

inline std::string nameOf(const testing::TestParamInfo<EngineKind>& engine) {
  return engine.param == EngineKind::kSqlite ? "SQLite" : "PostgreSQL";
}

// An engine as it is, but for its clock; and a crash of the machine is not what is tested here.
class EngineWithClock : public Engine {
 public:
  EngineWithClock(EngineKind kind, std::unique_ptr<Engine> real, const std::string& time)
      : Engine(real->place()), kind_(kind), real_(std::move(real)), time_(time) {}

  std::unique_ptr<soci::session> connect() const override {
    auto session = real_->connect();
    if (kind_ == EngineKind::kSqlite) *session << "PRAGMA synchronous = OFF";
    return session;
  }
  CWmError check() const override { return real_->check(); }
  CWmError prepare() const override { return real_->prepare(); }
  Fault faultOf(const std::exception& fault) const override { return real_->faultOf(fault); }
  std::string explain(const std::exception& fault) const override { return real_->explain(fault); }
  std::string doubt(soci::session& session) const override { return real_->doubt(session); }
  void commit(soci::session& session) const override { real_->commit(session); }
  const char* beginReading() const override { return real_->beginReading(); }
  const char* beginWriting() const override { return real_->beginWriting(); }
  const char* tables() const override { return real_->tables(); }
  const char* now() const override { return time_.c_str(); }
  bool writesOneAtATime() const override { return real_->writesOneAtATime(); }

 private:
  EngineKind kind_;
  std::unique_ptr<Engine> real_;
  const std::string& time_;
};

class TestStore {
 public:
  explicit TestStore(EngineKind kind) : one_(made(kind)), two_(made(kind)) {
    EXPECT_STREQ(one_->prepare().AsString(), "");
    EXPECT_STREQ(two_->open().AsString(), "");
  }

  // Two servers of it.
  const Store& one() const { return *one_; }
  const Store& two() const { return *two_; }

  std::int64_t now() const { return now_; }
  void setTime(std::int64_t now) {
    now_ = now;
    time_ = std::to_string(now);
  }

  // Makes a change; why it was refused, or nothing.
  std::string change(const ChangeBuilder& build, ChangeNote note = {}) {
    note.who = "someone";
    result = ChangeResult();
    return makeChange(one().database(), note, build, result).AsString();
  }
  std::string change(const ChangeSet& wanted, const ChangeNote& note = {}) {
    const auto build = [&wanted](soci::session&, ChangeSet& changes) {
      changes = wanted;
      return CWmError();
    };
    return change(build, note);
  }
  ChangeResult result;  // of the newest change

  std::int64_t add(const std::string& name) {
    ChangeSet changes;
    ChangeSet::NewClient wanted;
    wanted.client.name = name;
    EXPECT_STREQ(protectSessionKey(one(), newSessionKeyHex(), wanted.protectedKey).AsString(), "");
    changes.newClients.push_back(wanted);
    EXPECT_EQ(change(changes), "");
    return result.newClients.empty() ? 0 : result.newClients.front().id;
  }

  Contact contact(std::int64_t client) const {
    Contact found;
    const CWmError error = one().database().read([&](soci::session& session) {
      found = contactOf(session, client);
      return CWmError();
    });
    EXPECT_STREQ(error.AsString(), "");
    return found;
  }
  // As `overhub resend` does.
  void resend(std::int64_t client) const {
    const CWmError error = one().database().writeOnce([client](soci::session& session) {
      doubtCache(session, client);
      return CWmError();
    });
    EXPECT_STREQ(error.AsString(), "");
  }

 private:
  std::unique_ptr<Store> made(EngineKind kind) {
    if (kind == EngineKind::kPostgresql && uri_.empty()) uri_ = PostgresServer::shared().freshDatabase();
    auto real = kind == EngineKind::kSqlite ? sqliteEngine(dir_ / "overhub.db") : postgresqlEngine(uri_);
    return std::make_unique<Store>(dir_.path().string(),
                                   std::make_unique<EngineWithClock>(kind, std::move(real), time_));
  }

  TempDir dir_;
  std::string uri_;
  std::int64_t now_ = 1'900'000'000;
  std::string time_ = std::to_string(now_);
  std::unique_ptr<Store> one_;
  std::unique_ptr<Store> two_;
};

// A record as a command makes it of its arguments.
inline OBGui::RegistryKeyInfo recordFor(const std::string& path, const std::string& name,
                                        const std::string& value) {
  OBGui::RegistryKeyInfo record;
  record.keyPath = path;
  record.valueName = name;
  record.valueType = std::string("STRING");
  record.value = value;
  record.enabledFlag = 1;
  return record;
}
