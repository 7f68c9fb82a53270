// A point in time as people read it, the same in notes, histories and reports. Any thread.
#pragma once

#include <ctime>
#include <string>

#include "lqregistry/LqExport.h"

namespace lqtext {

// "2030-01-02T03:04:05Z"; the seconds since 1970 of what is before the year 0 or after the year 9999.
LQ_EXPORT std::string utcText(std::time_t time);

}  // namespace lqtext
