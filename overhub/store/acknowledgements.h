// The clients' acknowledgements: for each client a log of lines such as
// "2026-11-22T20:11:08Z id=7 taskStatus=3 (applied)", newest last.
//
// Any thread may record, several at once.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/data_store.h"

struct Acknowledgement {
  std::string time;  // UTC, as in the line
  std::string client;
  std::string outcome;  // the rest of the line
};

// Records an acknowledgement that came now.
CWmError recordAcknowledgement(const DataStore& store, const std::string& client, std::int64_t clientId,
                               std::int64_t taskStatus);

// Appends all acknowledgements of a client; none when it has sent none yet.
CWmError readAcknowledgements(const DataStore& store, const std::string& client,
                              std::vector<Acknowledgement>& list);

// The client's newest acknowledgement; empty when it has sent none yet.
CWmError lastAcknowledgement(const DataStore& store, const std::string& client, Acknowledgement& last);
