// A point in time as people read it, the same in notes, histories and reports. Any thread.
#pragma once

#include <ctime>
#include <string>

#include "lqregistry/LqExport.h"

namespace lqtext {

// "2030-01-02T03:04:05Z"
LQ_EXPORT std::string utcText(std::time_t time);

}  // namespace lqtext
