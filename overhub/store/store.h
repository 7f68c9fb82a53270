// The store: what the server knows of its clients and what they are to hold.
//
// clang-format off
//   DIR/overhub.db   the database, unless another one is named: clients, groups, settings and their history,
//                    hand-outs, acknowledgements, uploads (schema.cpp has the tables)
//   DIR/secret.key   the key that protects the secrets in it; made with the store and never replaced. Each
//                    server of a store has a copy, and the store knows its fingerprint
//   DIR/join/NAME.join   join files, unless they were asked for elsewhere
// clang-format on
//
// Any thread, and any number of processes; what the database is and how work is done in it says database.h.
#pragma once

#include <memory>
#include <string>

#include "lqregistry/CWmError.h"
#include "overhub/store/database.h"

class Store {
 public:
  // Where a store is: the directory, and the database's URI unless it lies in the directory.
  struct Place {
    std::string directory;
    std::string uri;
  };

  explicit Store(const Place& place);
  // In a database of the caller's choice.
  Store(std::string directory, std::unique_ptr<Engine> engine);

  // Names the protection key of this process, and sees that it is the store's. A store of an older version is
  // brought up to date. An error when there is none.
  CWmError open();
  // The same; what is missing is made: directory, key, tables. A key without its store is an error: it was
  // lost.
  CWmError prepare();
  // The same for a directory that holds the key of the version before, which becomes that of the store.
  CWmError prepareWithKey();

  const Database& database() const { return database_; }
  const std::string& directory() const { return directory_; }
  // For texts.
  const std::string& place() const { return database_.engine().place(); }
  std::string joinFile(const std::string& client) const;
  std::string keyFile() const;
  // What a person should know of the store that was opened; mostly nothing.
  const std::string& notice() const { return notice_; }

 private:
  CWmError makeReady(bool mayHaveKey);
  CWmError make(bool mayHaveKey);
  CWmError readFacts(std::string& fingerprint, std::int64_t& version) const;
  CWmError checkKey(const std::string& fingerprint) const;
  CWmError upgrade(std::int64_t version);

  std::string directory_;
  Database database_;
  std::string notice_;
};
