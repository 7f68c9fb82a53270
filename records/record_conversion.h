// Type words, and the conversion of key records from the application-message namespace.
#pragma once

#include <string>

#include "lqregistry/App.h"
#include "lqregistry/LqExport.h"
#include "lqregistry/OBGui.h"

// The registry's numeric value type for a type word: 0 for every word. The registry does not interpret what
// it stores, so there is nothing to tell apart: each value's bytes are handed back unchanged.
LQ_EXPORT unsigned getKeyType(const std::string& typeWord);

// The type word for a numeric value type: "STRING" for every number, the counterpart of getKeyType.
LQ_EXPORT std::string getKeyString(unsigned type);

// Appends the OBGui form of each record of `in` to `out`, in order.
void appendConverted(OBGui::KeyList& out, const App::KeyList& in);
