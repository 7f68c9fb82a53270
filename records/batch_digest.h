// The digest by which client and server know that they speak of the same batch.
#pragma once

#include <string>
#include <string_view>

#include "lqregistry/LqExport.h"
#include "lqregistry/OBGui.h"

// Of every record as it is sent, in order, secrets in clear among them, keyed with the session key's bytes.
// Take it of what is about to be sent, or has just come: applying a batch marks records in it. Empty when a
// secret cannot be read, or the cryptographic library fails.
LQ_EXPORT std::string batchDigest(const OBGui::KeyList& keys, std::string_view sessionKey);
