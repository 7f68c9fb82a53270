// An exported folder, read, and compared with the store.
#include "overhub/commands/store_folder.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "overhub/commands/folder_text.h"
#include "overhub/commands/store_folder_names.h"
#include "overhub/store/client_name.h"
#include "overhub/store/file_access.h"
#include "overhub/store/scope.h"
#include "overhub/store/settings.h"

namespace fs = std::filesystem;

namespace store_folder {

namespace {

using folder_text::Kind;
using folder_text::Line;

std::string inQuotes(const std::string& text) {
  return '"' + text + '"';
}

// Reads one folder. What is wrong does not end the reading: a person mends all of it at once.
class Reader {
 public:
  Reader(const std::string& folder, Folder& said, std::vector<std::string>& faults)
      : folder_(folder), said_(said), faults_(faults) {}

  void readAll() {
    std::string mark;
    if (file_access::readWhole(pathOf(kMarkFile), mark).IsError() || !mark.starts_with(folder_text::kMark)) {
      faults_.push_back(folder_ + " is no folder of \"overhub export\": there is no " + kMarkFile + " in it");
      return;
    }
    if (mark.find(kFormat) == std::string::npos) {
      faults_.push_back(pathOf(kMarkFile) + ": the folder is of a format that this overhub does not know");
      return;
    }
    // A file that is missing is a mistake rather than a wish to withdraw all that stood in it.
    readFile(kAllFile, {.scope = kAllScope});
    readFile(kStaticFile, {.scope = kStaticScope});
    readFile(kClientsFile, {.isClients = true});
    for (const std::string& name : namesIn(kGroups)) readGroup(name);
    for (const std::string& name : namesIn(kMachines)) {
      said_.clients.emplace_back(name, placeOf(kMachines + name + kSuffix, 1));
      readFile(kMachines + name + kSuffix, {.machine = name});
    }
  }

 private:
  // What a file is about.
  struct Topic {
    std::string scope{};
    std::string machine{};
    std::string group{};
    bool isClients = false;
  };

  std::string pathOf(const std::string& name) const { return folder_ + "/" + name; }
  Place placeOf(const std::string& name, std::size_t line) const {
    return pathOf(name) + ":" + std::to_string(line) + ": ";
  }

  // The names that files of this part stand for, ascending.
  std::vector<std::string> namesIn(const std::string& part) {
    std::set<std::string> names;
    std::error_code fault;
    for (auto entry = fs::directory_iterator(pathOf(part), fault);
         !fault && entry != fs::directory_iterator(); entry.increment(fault)) {
      const std::string file = entry->path().filename().string();
      if (file.starts_with('.')) continue;
      const std::string name = entry->path().stem().string();
      if (!isClientName(name) || entry->path().extension() != kSuffix) {
        faults_.push_back(placeOf(part + file, 1) + "the file's name is none of a group or a machine with " +
                          kSuffix + " behind it");
      } else {
        names.insert(name);
      }
    }
    // Version control keeps no empty folders.
    if (fault && fault != std::errc::no_such_file_or_directory)
      faults_.push_back(pathOf(part) + ": " + fault.message());
    return {names.begin(), names.end()};
  }

  void readGroup(const std::string& name) {
    const std::string file = kGroups + name + kSuffix;
    if (name == "all" || name == "static") {
      faults_.push_back(placeOf(file, 1) + inQuotes(name) + " cannot be a group's name");
      return;
    }
    const std::size_t before = said_.groups.size();
    const std::size_t faultsBefore = faults_.size();
    readFile(file, {.scope = groupScope(name), .group = name});
    if (said_.groups.size() == before && faults_.size() == faultsBefore)
      faults_.push_back(placeOf(file, 1) + "the group's number is missing: number N");
  }

  void readFile(const std::string& name, const Topic& topic) {
    std::string text;
    if (const CWmError error = file_access::readWhole(pathOf(name), text); error.IsError()) {
      faults_.emplace_back(error.AsString());
      return;
    }
    std::string_view rest = text;
    firstPlaces_.clear();
    for (std::size_t number = 1; !rest.empty(); ++number) {
      const std::size_t end = std::min(rest.find('\n'), rest.size());
      Line line;
      const Place place = placeOf(name, number);
      std::string fault = folder_text::readLine(rest.substr(0, end), line);
      if (fault.empty()) fault = take(topic, line, place, number);
      if (!fault.empty()) faults_.push_back(place + fault);
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }

  // What is wrong with a line in this file, or nothing.
  std::string take(const Topic& topic, Line& line, const Place& place, std::size_t number) {
    if (line.kind == Kind::kNothing) return {};
    const bool isGroups = line.kind == Kind::kNumber || line.kind == Kind::kMember;
    if ((isGroups && topic.group.empty()) || (line.kind == Kind::kClient) != topic.isClients)
      return "such a line has its place in another file";
    const bool isSetting = line.kind == Kind::kSetting;
    const std::string key = isSetting ? line.setting.identity.place + '\n' + line.setting.identity.name +
                                            (line.setting.identity.isKey ? "\nk" : "\nv")
                                      : std::to_string(static_cast<int>(line.kind)) + line.name;
    const auto [first, isNew] = firstPlaces_.try_emplace(key, number);
    if (!isNew) return "line " + std::to_string(first->second) + " says something of the same already";
    if (isSetting) {
      line.setting.scope = topic.scope;
      said_.settings.push_back({line.setting, line.isHidden, topic.machine, place});
    } else if (line.kind == Kind::kNumber) {
      said_.groups.emplace_back(Group{topic.group, line.number}, place);
    } else if (line.kind == Kind::kMember) {
      if (!isMemberName(line.name))
        return inQuotes(line.name) + " is neither a client's name nor a pattern of one, such as web-*";
      said_.members.emplace_back(Member{topic.group, line.name}, place);
    } else {
      said_.clients.emplace_back(line.name, place);
    }
    return {};
  }

  const std::string& folder_;
  Folder& said_;
  std::vector<std::string>& faults_;
  std::map<std::string, std::size_t> firstPlaces_;  // of what the file says, its line
};

// One comparison with the store.
class Comparison {
 public:
  Comparison(soci::session& session, const Folder& said, const SettingCheck& check, ChangeSet& changes,
             std::vector<std::string>& faults)
      : said_(said), check_(check), changes_(changes), faults_(faults) {
    const std::int64_t revision = newestRevision(session);
    groups_ = groupsAt(session, revision);
    members_ = membersAt(session, revision);
    for (const Client& client : allClients(session)) ids_[client.name] = client.id;
    for (Setting& setting : allSettings(session)) {
      const std::pair<std::string, Identity> key{setting.scope, setting.identity};
      settings_.emplace(key, std::move(setting));
    }
  }

  void run() {
    for (const auto& [name, place] : said_.clients)
      if (!ids_.contains(name)) faults_.push_back(place + noClient(name));
    compareGroups();
    for (const Folder::Said& said : said_.settings) compareSetting(said);
    for (const auto& [key, setting] : settings_)
      if (!kept_.contains(key)) changes_.withdraw(key.first, key.second);
  }

 private:
  static std::string noClient(const std::string& name) {
    return "there is no client " + inQuotes(name) + "; \"overhub add-client\" adds one";
  }

  void compareGroups() {
    std::set<std::string> saidGroups;
    std::map<std::int64_t, std::string> numbers;
    for (const auto& [group, place] : said_.groups) {
      const auto [other, isFree] = numbers.try_emplace(group.number, group.name);
      if (!isFree) faults_.push_back(place + "the group " + other->second + " has this number already");
      saidGroups.insert(group.name);
      changes_.groups.push_back({group.name, group.number});
    }
    for (const Group& group : groups_)
      if (!saidGroups.contains(group.name)) changes_.groups.push_back({group.name, std::nullopt});
    std::set<Member> saidMembers;
    const std::set<Member> members(members_.begin(), members_.end());
    for (const auto& [member, place] : said_.members) {
      if (!isPattern(member.pattern) && !ids_.contains(member.pattern) && !members.contains(member))
        faults_.push_back(place + noClient(member.pattern));
      saidMembers.insert(member);
      changes_.members.push_back({member, true});
    }
    for (const Member& member : members_)
      if (!saidMembers.contains(member)) changes_.members.push_back({member, false});
  }

  void compareSetting(const Folder::Said& said) {
    Setting setting = said.setting;
    if (!said.machine.empty()) {
      const auto id = ids_.find(said.machine);
      if (id == ids_.end()) return;  // said of the file as a whole
      setting.scope = machineScope(id->second);
    }
    const std::pair<std::string, Identity> key{setting.scope, setting.identity};
    const auto is = settings_.find(key);
    kept_.insert(key);
    if (said.isHidden) {
      if (is == settings_.end() || !folder_text::isHidden(is->second)) {
        faults_.push_back(
            said.place + inQuotes(setting.identity.name) + " in " + inQuotes(setting.path) +
            " is no secret in the store that could stay as it is; \"overhub set --secret\" sets "
            "one");
        return;
      }
      setting.value = is->second.value;
      setting.secret = is->second.secret;
    }
    if (is != settings_.end() && is->second.saysAs(setting)) return;
    if (const CWmError error = check_(setting); error.IsError()) {
      faults_.push_back(said.place + error.AsString());
      return;
    }
    changes_.put(setting);
  }

  const Folder& said_;
  const SettingCheck& check_;
  ChangeSet& changes_;
  std::vector<std::string>& faults_;
  std::vector<Group> groups_;
  std::vector<Member> members_;
  std::map<std::string, std::int64_t> ids_;
  std::map<std::pair<std::string, Identity>, Setting> settings_;
  std::set<std::pair<std::string, Identity>> kept_;
};

}  // namespace

void read(const std::string& folder, Folder& said, std::vector<std::string>& faults) {
  Reader(folder, said, faults).readAll();
}

void compare(soci::session& session, const Folder& said, const SettingCheck& check, ChangeSet& changes,
             std::vector<std::string>& faults) {
  Comparison(session, said, check, changes, faults).run();
}

}  // namespace store_folder
