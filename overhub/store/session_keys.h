// The clients' session keys: 32 random bytes each, by which a client and its server know each other.
//
// Any thread.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"
#include "overhub/store/store.h"

// How a key stands in the store; an error when it cannot be protected.
CWmError protectSessionKey(const Store& store, const std::string& hex, std::string& protectedKey);

// A client's key as bytes, into `key`; false, with the reason in the log, when there is none that can be
// used.
bool findSessionKey(const Store& store, const std::string& client, std::string& key);

// The same as 64 hexadecimal digits, for the caller to wipe.
CWmError readSessionKey(const Store& store, const std::string& client, std::string& hex);
