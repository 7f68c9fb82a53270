// What a batch is about to change: told before it is applied, by the rules that applying goes by.
#pragma once

#include "lqhost/rollback/memory.h"
#include "lqregistry/OBGui.h"

namespace host {

// Each place that will hold something else than now, with what it holds and what it will, all as the registry
// stands at one moment. A key that is removed brings all that lies below it; a value in a key that is not
// there brings the key. Of records that cannot be applied there is nothing.
PlaceList predictChanges(const OBGui::KeyList& keys);

}  // namespace host
