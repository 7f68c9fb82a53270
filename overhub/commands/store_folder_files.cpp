// The files of an exported folder, written.
#include <algorithm>
#include <filesystem>

#include "common/natural_order.h"
#include "overhub/commands/folder_text.h"
#include "overhub/commands/store_folder.h"
#include "overhub/commands/store_folder_names.h"
#include "overhub/store/file_access.h"
#include "overhub/store/scope.h"
#include "overhub/store/settings.h"

namespace fs = std::filesystem;

namespace store_folder {

namespace {

std::string headed(const std::string& what) {
  return folder_text::kMark + what + "\n";
}

std::string fileOf(const std::string& scope, const std::map<std::int64_t, std::string>& names) {
  if (scope == kAllScope) return kAllFile;
  if (scope == kStaticScope) return kStaticFile;
  if (const std::string group = groupOfScope(scope); !group.empty()) return kGroups + group + kSuffix;
  const auto name = names.find(clientOfScope(scope));
  return name == names.end() ? "" : kMachines + name->second + kSuffix;
}

template <class Row, class Name>
void sortByName(std::vector<Row>& rows, Name name) {
  std::sort(rows.begin(), rows.end(),
            [name](const Row& a, const Row& b) { return programs::comesBefore(name(a), name(b)); });
}

void addGroups(soci::session& session, Files& files) {
  const std::int64_t revision = newestRevision(session);
  for (const Group& group : groupsAt(session, revision))
    files[kGroups + group.name + kSuffix] =
        headed("the group " + group.name) + folder_text::numberLine(group.number);
  std::vector<Member> members = membersAt(session, revision);
  sortByName(members, [](const Member& member) -> const std::string& { return member.pattern; });
  for (const Member& member : members)
    files[kGroups + member.group + kSuffix] += folder_text::memberLine(member.pattern);
}

std::string fileIn(const std::string& folder, const std::string& name) {
  return folder + "/" + name;
}

bool hasMark(const std::string& file) {
  std::string text;
  return !file_access::readWhole(file, text).IsError() && text.starts_with(folder_text::kMark);
}

CWmError failed(const std::string& path, const std::error_code& fault) {
  return {kLqErrFile, path + ": " + fault.message()};
}

CWmError notOurs(const std::string& folder, const std::string& file) {
  return {kLqErrRequestRefused, folder + " holds \"" + file + "\" and no " + kMarkFile +
                                    ", so it is no folder of \"overhub export\"; name an empty or a new one"};
}

// Whoever names a wrong folder loses nothing. What begins with a dot is the version control's.
CWmError checkOurs(const std::string& folder) {
  if (hasMark(fileIn(folder, kMarkFile))) return {};
  std::error_code fault;
  for (auto entry = fs::directory_iterator(folder, fault); !fault && entry != fs::directory_iterator();
       entry.increment(fault)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with('.')) {
      return notOurs(folder, name);
    }
  }
  return fault ? failed(folder, fault) : CWmError();
}

// What is of a group or a machine that is there no more.
CWmError removeGone(const std::string& folder, const std::string& part, const Files& files,
                    Written& written) {
  std::error_code fault;
  std::vector<fs::path> gone;
  for (auto entry = fs::directory_iterator(fileIn(folder, part), fault);
       !fault && entry != fs::directory_iterator(); entry.increment(fault)) {
    const std::string name = part + entry->path().filename().string();
    if (entry->path().filename().string().starts_with('.') || files.contains(name)) continue;
    if (entry->is_regular_file(fault) && !entry->is_symlink(fault) && name.ends_with(kSuffix) &&
        hasMark(entry->path().string())) {
      gone.push_back(entry->path());
    } else {
      written.strange.push_back(entry->path().string());
    }
  }
  for (const fs::path& file : gone)
    if (!fault && fs::remove(file, fault)) ++written.removed;
  return fault ? failed(fileIn(folder, part), fault) : CWmError();
}

}  // namespace

Files filesOf(soci::session& session) {
  Files files;
  files[kMarkFile] = folder_text::kMark +
                     std::string("a store as text; \"overhub apply\" makes the store what it says") + kFormat;
  files[kAllFile] = headed("what is set for all machines");
  files[kStaticFile] = headed("the static list");
  std::string& list = files[kClientsFile];
  list = headed("the clients; \"overhub apply\" changes nothing of them");
  std::vector<Client> clients = allClients(session);
  sortByName(clients, [](const Client& client) -> const std::string& { return client.name; });
  std::map<std::int64_t, std::string> names;
  for (const Client& client : clients) {
    names[client.id] = client.name;
    list += folder_text::clientLine(client);
  }
  addGroups(session, files);
  std::vector<Setting> settings = allSettings(session);
  std::sort(settings.begin(), settings.end(),
            [](const Setting& a, const Setting& b) { return a.identity < b.identity; });
  for (const Setting& setting : settings) {
    const std::string file = fileOf(setting.scope, names);
    if (file.empty()) continue;
    std::string& text = files[file];
    if (text.empty()) text = headed("the machine " + names[clientOfScope(setting.scope)]);
    text += folder_text::settingLine(setting);
  }
  return files;
}

CWmError write(const std::string& folder, const Files& files, Written& written) {
  CWmError error = file_access::makeDirectory(folder);
  if (!error.IsError()) error = checkOurs(folder);
  // The mark comes first, so that an export that breaks off can be begun again.
  if (!error.IsError() && !hasMark(fileIn(folder, kMarkFile)))
    error = file_access::replace(fileIn(folder, kMarkFile), files.at(kMarkFile));
  for (const char* const part : {kGroups, kMachines}) {
    if (!error.IsError()) error = file_access::makeDirectory(fileIn(folder, part));
    if (!error.IsError()) error = removeGone(folder, part, files, written);
  }
  for (const auto& [name, text] : files) {
    if (error.IsError()) return error;
    const std::string file = fileIn(folder, name);
    std::string before;
    if (file_access::exists(file) && !file_access::readWhole(file, before).IsError() && before == text)
      continue;
    error = file_access::replace(file, text);
    if (!error.IsError()) ++written.written;
  }
  return error;
}

}  // namespace store_folder
