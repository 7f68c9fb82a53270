// What is kept or waits, and what follows from that: for the schedule, the report to the server and people.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lqhost/rollback/memory.h"
#include "records/host_report.h"

namespace host {

// What the report to the server says of it.
HostReport::Memory memoryState();

// The same for people, in one line; empty when there is nothing to say.
std::string memoryText(const HostReport::Memory& memory);

// Seconds until the machine has to go back, 0 when that is due; nothing when no time is set. Under way is
// due.
std::optional<std::int64_t> secondsUntilGoingBack();

// Why, for whoever goes back since that time has come.
std::string overdueReason();

// Whether the way to the server was changed and is not proven yet.
bool isWayBackUnproven();

// Whether the newest changes that are kept are those of the batch with this digest.
bool isKept(const std::string& digest);

// The server says that the batch with this digest stays. False when nothing waited for that, or another
// batch.
bool confirmChanges(const std::string& digest);

// Whether the newest changes have to be confirmed and this is one of them, as the server spells it.
bool hasToBeConfirmed(const std::string& keyPath, const std::string& valueName);

// What the machine went back from may be applied again. False when there was nothing.
bool forgetGoneBack();

// All that is kept: it was another client's.
void forgetChanges();

// At the start of a host: when nothing of what was noted has been applied, there is nothing to go back from.
void dropWhatNeverHappened();

}  // namespace host
