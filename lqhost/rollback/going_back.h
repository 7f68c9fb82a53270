// Going back to what was before the newest changes: registry, settings cache and change callbacks. Begun
// once, it is carried on after a kill from wherever it was, and ends with the machine as it was before or, as
// long as nothing can be written, as it is.
#pragma once

#include <string>
#include <vector>

#include "lqhost/rollback/memory.h"

namespace host {

struct WentBack {
  CWmError error;               // why it did not; what was begun is carried on later
  PlaceList restored;           // hold again what was before
  PlaceList local;              // were left alone, because somebody has changed them since
  bool isCacheRestored = true;  // otherwise there is none, and a synchronisation makes one
};

// Under the pass lock, with nothing else of this host changing the registry. Without a memory it is an error
// and nothing happens. One that was begun keeps the reason it began with.
WentBack goBack(const std::string& reason);

// Called at each step on the way, by its name: tests stop there. Null: nobody is called.
using GoingBackStep = void (*)(const char* step);
void onGoingBack(GoingBackStep call);

}  // namespace host
