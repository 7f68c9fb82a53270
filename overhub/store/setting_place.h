// Where a setting lies: one text for each key, however its path is written.
#pragma once

#include <string>
#include <string_view>

// "~/Limits" for "Limits", "~Limits" and "~//Limits/", as the registry takes them; "~" for the instance's
// root, and "SOFTWARE/..." for a path that begins with it. A path in this form stays as it is. Letter case
// counts. To be asked of the key that a record is about, which keyOf() tells.
std::string settingPlace(std::string_view path);
