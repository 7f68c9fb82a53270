// What no client could apply, or nobody can have meant, is refused before it is in a batch.
#pragma once

#include <string>
#include <string_view>

#include "lqregistry/CWmError.h"
#include "lqregistry/OBGui.h"

// Whether every database engine and every message takes the text as it is.
bool isText(std::string_view text);

// An error that says what is wrong with a record that a person has typed, and the way out.
CWmError checkRecord(const OBGui::RegistryKeyInfo& record);

// The same for what is refused unless a person insists: the machine might never come back, or will not do it.
CWmError checkHarm(const OBGui::RegistryKeyInfo& record);

// What may be a mistake, though it can be applied; empty when nothing is.
std::string doubtAbout(const OBGui::RegistryKeyInfo& record);
