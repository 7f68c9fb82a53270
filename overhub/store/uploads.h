// What clients have uploaded of their registries: of each the newest upload, and the one before.
//
// Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "lqregistry/OBGui.h"
#include "overhub/store/store.h"

struct Upload {
  std::string client;
  std::int64_t time = 0;  // seconds since the epoch
  std::int64_t keys = 0;
  std::int64_t values = 0;
  std::int64_t bytes = 0;
};

// Keeps an upload of a client that says that it has this id, which comes narrowed to 32 bits. A refusal,
// which says why, is an error with kLqErrRequestRefused; any other is the store's.
CWmError addUpload(const Store& store, const std::string& client, const OBGui::RegistryTaskResp& upload);

// How an upload is kept: its numbers, and its text, which is protected as a whole: a machine's session key
// stands in it like any other value. An error when it cannot be.
CWmError describeUpload(const Store& store, const OBGui::RegistryTaskResp& message, Upload& upload,
                        std::string& protectedText);

// Keeps it, and the one before it. Within a unit of work.
void keepUpload(soci::session& session, std::int64_t clientId, const Upload& upload,
                const std::string& protectedText);

// The newest of each client.
CWmError listUploads(const Store& store, std::vector<Upload>& uploads);

// One as text, in which secrets that the machine protects still are; empty when there is none.
enum class WhichUpload { kNewest, kOneBefore };
CWmError readUpload(const Store& store, const std::string& client, WhichUpload which, std::string& text);
