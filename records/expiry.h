// When a key record expires: a value X may have a companion X_UNTIL in its list that carries the time of its
// end. The one place for that rule.
#pragma once

#include <ctime>
#include <string_view>

#include "lqregistry/LqExport.h"
#include "lqregistry/OBGui.h"

// Suffix of the value that carries another value's expiry time, in seconds since the epoch.
inline constexpr std::string_view _UNTIL = "_UNTIL";  // NOLINT(*-reserved-identifier,cert-dcl*)

// Sets deleteFlag to 1 on every record of the list whose expiry time has passed at `now`: an expired X_UNTIL,
// and every record named X. A time that is just `now` has not passed.
LQ_EXPORT void markExpired(OBGui::KeyList& keys, std::time_t now = std::time(nullptr));
