// The file of definitions: which settings there are, and what fits each. docs/definitions.md describes it.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "records/record_rules.h"

// Stands in a definition for the rest of a path's component, or of a name.
inline constexpr char kAnyRest = '*';

struct Definition {
  std::string place;  // as settingPlace() has it
  std::string name;
  std::string type = STRINGTYPE;  // the type word of the setting's records
  bool isNumber = false;
  std::int64_t min = std::numeric_limits<std::int64_t>::min();
  std::int64_t max = std::numeric_limits<std::int64_t>::max();
  std::vector<std::string> choices;  // none: whatever the rest allows
  std::string sentence;
  bool needsRestart = false;
};

// Reads a whole number as a client's registry reads it; false when the text is none.
bool readWholeNumber(const std::string& text, std::int64_t& number);

// The definitions in the order of the file, at least one. An error names the file, and the line or the
// setting.
CWmError readDefinitionFile(const std::string& file, std::vector<Definition>& definitions);
