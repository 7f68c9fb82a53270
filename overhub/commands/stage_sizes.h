// The stages of a push as a person types them: "1,10%,100%".
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"

inline constexpr const char* kStageForms =
    "machines or percentages with commas between, each more than the one before and the last 100%, such as "
    "1,10%,100%";

// How many of so many machines have had their turn once each stage is over: ascending, the last is
// `machines`. A percentage is rounded up; a stage that would have no machine is left out. An error that says
// what is taken.
CWmError readStages(const std::string& text, std::size_t machines, std::vector<std::size_t>& ends);
