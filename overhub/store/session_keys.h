// The clients' session keys: 32 random bytes each, by which a client and its server know each other. In the
// store they stand protected.
//
// Any thread.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"
#include "overhub/store/store.h"

// How a key stands in the store; an error when it cannot be protected.
CWmError protectSessionKey(const Store& store, const std::string& hex, std::string& protectedKey);

// A client's key as the store has it; kLqErrRequestRefused when there is no such client.
CWmError readProtectedKey(const Store& store, const std::string& client, std::string& protectedKey);

// The bytes of such a key.
CWmError openSessionKey(const Store& store, const std::string& client, const std::string& protectedKey,
                        std::string& key);

// A client's key as 64 hexadecimal digits, for the caller to wipe.
CWmError readSessionKey(const Store& store, const std::string& client, std::string& hex);
