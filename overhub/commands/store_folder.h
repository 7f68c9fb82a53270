// A store as a folder of text: what is set for whom, the groups, the clients. folder_text.h has the lines.
//
// clang-format off
//   overhub-folder.txt   says that the folder is one of these
//   all.txt, static.txt  what is set for all machines, and the static list
//   groups/NAME.txt      a group: its number, its members, what is set for it
//   machines/NAME.txt    what is set for a machine; none where nothing is
//   clients.txt          the clients, for the reader
// clang-format on
//
// Nothing in it changes unless the store does: neither times nor revisions are in it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/change.h"

namespace store_folder {

// The files of a store, by their names in the folder.
using Files = std::map<std::string, std::string>;
Files filesOf(soci::session& session);

struct Written {
  std::size_t written = 0;  // the others held that text already
  std::size_t removed = 0;
  std::vector<std::string>
      strange;  // files in the place of a group's or a machine's that export did not make
};

// Makes the folder hold these files, and no other ones of its own. An error with kLqErrRequestRefused for a
// folder that holds something else.
CWmError write(const std::string& folder, const Files& files, Written& written);

// Where something stands: "FILE:LINE: ".
using Place = std::string;

// What a folder says.
struct Folder {
  struct Said {
    Setting setting;  // a machine's without its scope
    bool isHidden = false;
    std::string machine;  // whose scope it is; empty: not a machine's
    Place place;
  };
  std::vector<Said> settings;
  std::vector<std::pair<Group, Place>> groups;
  std::vector<std::pair<Member, Place>> members;
  std::vector<std::pair<std::string, Place>> clients;  // every client that it names
};

// All of it; in `faults` what is wrong with it, each with its place.
void read(const std::string& folder, Folder& said, std::vector<std::string>& faults);

// Judges a setting that a folder would change; what is wrong with it, or nothing.
using SettingCheck = std::function<CWmError(const Setting& setting)>;

// What makes the store what the folder says, in `faults` why it cannot be.
void compare(soci::session& session, const Folder& said, const SettingCheck& check, ChangeSet& changes,
             std::vector<std::string>& faults);

}  // namespace store_folder
