// The order in which a person looks for a name in a list: web-2 stands before web-10, and case does not part
// what belongs together.
#pragma once

#include <string_view>

namespace programs {

// Whether `a` stands before `b`. Runs of digits count as the numbers that they are, of any length, leading
// zeros left out; letters of ASCII count regardless of case; everything else counts by its bytes. Names that
// are the same so far are told apart by their bytes, so that different names have one order and a list is
// always the same.
bool comesBefore(std::string_view a, std::string_view b);

}  // namespace programs
