// Hand-outs: what a client is given, and what proves that it has it.
//
// A hand-out is a number, one more each time, and a revision. It is on disk before the batch is sent, and so
// is a push, which has the number of the hand-out before it. Until two hand-outs in a row were acknowledged
// as applied, all that those since the first of the two brought may be on the machine or in its cache (`base`
// is that one's number); what of it the machine should no longer have is sent along as removals. One
// acknowledgement alone proves nothing of the cache: a client that could not store it says "applied" all the
// same.
//
// Any thread, any server: all that counts is in the store.
#pragma once

#include <cstdint>
#include <string>

#include "lqregistry/CWmError.h"
#include "lqregistry/OBGui.h"
#include "overhub/store/machine_batch.h"
#include "overhub/store/store.h"

// What a client asked for, or why it does not get it.
struct HandOut {
  std::int64_t number = 0;
  std::int64_t revision = 0;
  OBGui::RegistryTaskResp batch;
  std::string refusal;  // empty: the batch is to be sent
};

// The batch for a client that asks and says that it has this id. An error is the store's.
CWmError handOut(const Store& store, const std::string& client, std::int64_t claimedId, HandOut& out);

// The batch for a client that is called. It reaches the machine's registry and not its cache, so it proves
// nothing. Nobody else pushes to the client until notePushed(), or until the lease is over: whoever holds it
// may have been killed, and a push that is made a second time changes nothing.
CWmError handOutForPush(const Store& store, const std::string& client, std::int64_t leaseSeconds,
                        HandOut& out);
// To be said once it was sent, whatever came of it: what was pushed may have been applied after hand-outs
// that came meanwhile.
CWmError notePushed(const Store& store, const std::string& client, const HandOut& out);

// The static list. Whoever asks for it acknowledges no hand-out next.
CWmError handOutStaticList(const Store& store, const std::string& client, HandOut& out);

// Notes where a client has come from when it attaches. `proving` gets the hand-out that an acknowledgement
// would prove now, for the session to keep from its beginning on.
CWmError noteAttached(const Store& store, const std::string& client, const std::string& address,
                      std::int64_t& proving);

// Records an acknowledgement, of which `number` is what its session was handed last, or had open at its
// beginning. It proves that hand-out if it is the one that is waited for.
CWmError acknowledge(const Store& store, const std::string& client, std::int64_t number, std::int64_t namedId,
                     std::int64_t taskStatus);

// What is set for a client now, whether it is held or not, and what it may hold beside it.
struct MachineState {
  std::int64_t revision = 0;
  EffectiveSettings settings;
  HeldSettings held;
};
CWmError machineState(soci::session& session, std::int64_t clientId, const std::string& client,
                      std::int64_t now, MachineState& state);
