// The text of an exported folder: a line a setting, made to be read, compared and kept in version control.
//
//   # overhub export: ...                        a comment, as is every line that begins so
//   number 10                                    of a group's file: its number, and who is in it
//   member "web-*"
//   "~/Limits" "nMAX" = "20" until 2027-01-01T06:00:00Z
//   "~/Proxy" "sPASSWORD" = ********             a secret, which stays what it is
//   "~/Old" "x" delete
//   "~" "Local" type "KEY"
//   client "web-1" id 3 host "10.0.0.7"          of the clients' file
//
// What stands between quotes is as it is, but for \" \\ \n \r \t and \xHH, so any byte can be written. One
// text has one reading, and one store one text. Pure computation.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "overhub/store/clients.h"
#include "overhub/store/groups.h"
#include "overhub/store/setting.h"

namespace folder_text {

// What export begins its files with, and removes no file without.
inline constexpr const char* kMark = "# overhub export: ";

std::string settingLine(const Setting& setting);
std::string numberLine(std::int64_t number);
std::string memberLine(const std::string& pattern);
std::string clientLine(const Client& client);

// Whether a setting is a secret, or was meant to be one, so that its value stands in no text.
bool isHidden(const Setting& setting);

// What a line says; the first of these that it is.
enum class Kind { kNothing, kSetting, kNumber, kMember, kClient };
struct Line {
  Kind kind = Kind::kNothing;
  Setting setting;        // without its scope; of one that is hidden without value and secret
  bool isHidden = false;  // the placeholder stands in the place of the value
  std::int64_t number = 0;
  std::string name;  // of the client, or the member
};

// Reads one; what is wrong with it, or nothing.
std::string readLine(std::string_view text, Line& line);

}  // namespace folder_text
