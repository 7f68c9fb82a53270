#include "overhub/store/settings.h"

#include "overhub/store/query.h"

namespace {

template <class... Uses>
std::vector<Setting> select(soci::session& session, const std::string& condition, Uses&&... uses) {
  using soci::into;
  std::vector<Setting> found;
  Setting row;
  int isKey = 0;
  int isRemoval = 0;
  int isDisabled = 0;
  const auto keep = [&] {
    row.identity.isKey = isKey != 0;
    row.isRemoval = isRemoval != 0;
    row.isDisabled = isDisabled != 0;
    found.push_back(row);
  };
  forEachRow(session,
             "SELECT scope, place, name, is_key, valid_from, valid_to, path, type, value, secret, is_removal,"
             " is_disabled, expires FROM settings WHERE " +
                 condition,
             keep, into(row.scope), into(row.identity.place), into(row.identity.name), into(isKey),
             into(row.validFrom), into(row.validTo), into(row.path), into(row.type), into(row.value),
             into(row.secret), into(isRemoval), into(isDisabled), into(row.expires),
             std::forward<Uses>(uses)...);
  return found;
}

}  // namespace

std::vector<Setting> settingsOf(soci::session& session, const std::string& scope, std::int64_t revision) {
  return select(session, "scope = :scope AND valid_to > :at AND valid_from <= :revision",
                soci::use(scope, "scope"), soci::use(revision, "at"), soci::use(revision, "revision"));
}

std::vector<Setting> settingsSince(soci::session& session, const std::string& scope, std::int64_t revision) {
  return select(session, "scope = :scope AND valid_to > :revision", soci::use(scope, "scope"),
                soci::use(revision, "revision"));
}

std::vector<Setting> settingsNamed(soci::session& session, const std::string& name) {
  return select(session, "name = :name AND valid_to = :open", soci::use(name, "name"),
                soci::use(kOpen, "open"));
}

std::vector<Setting> allSettings(soci::session& session) {
  return select(session, "valid_to = :open", soci::use(kOpen, "open"));
}

std::vector<Setting> settingsTouched(soci::session& session, std::int64_t from, std::int64_t to) {
  using soci::use;
  return select(
      session,
      "(valid_from > :begun_from AND valid_from <= :begun_to) OR (valid_to > :ended_from AND valid_to <="
      " :ended_to)",
      use(from, "begun_from"), use(to, "begun_to"), use(from, "ended_from"), use(to, "ended_to"));
}

std::vector<std::string> namesThatEnd(soci::session& session) {
  std::vector<std::string> names;
  std::string name;
  forEachRow(
      session, "SELECT DISTINCT name FROM settings WHERE valid_to = :open AND expires <> 0",
      [&] { names.push_back(name); }, soci::into(name), soci::use(kOpen, "open"));
  return names;
}

void endSetting(soci::session& session, const std::string& scope, const Identity& identity,
                std::int64_t revision) {
  const int isKey = identity.isKey ? 1 : 0;
  session
      << "UPDATE settings SET valid_to = :revision WHERE scope = :scope AND place = :place AND name = :name"
         " AND is_key = :is_key AND valid_to = :open",
      soci::use(revision, "revision"), soci::use(scope, "scope"), soci::use(identity.place, "place"),
      soci::use(identity.name, "name"), soci::use(isKey, "is_key"), soci::use(kOpen, "open");
}

void beginSetting(soci::session& session, const Setting& setting, std::int64_t revision) {
  const int isKey = setting.identity.isKey ? 1 : 0;
  const int isRemoval = setting.isRemoval ? 1 : 0;
  const int isDisabled = setting.isDisabled ? 1 : 0;
  session
      << "INSERT INTO settings (scope, place, name, is_key, valid_from, valid_to, path, type, value, secret,"
         " is_removal, is_disabled, expires) VALUES (:scope, :place, :name, :is_key, :revision, :open,"
         " :path, :type, :value, :secret, :is_removal, :is_disabled, :expires)",
      soci::use(setting.scope, "scope"), soci::use(setting.identity.place, "place"),
      soci::use(setting.identity.name, "name"), soci::use(isKey, "is_key"), soci::use(revision, "revision"),
      soci::use(kOpen, "open"), soci::use(setting.path, "path"), soci::use(setting.type, "type"),
      soci::use(setting.value, "value"), soci::use(setting.secret, "secret"),
      soci::use(isRemoval, "is_removal"), soci::use(isDisabled, "is_disabled"),
      soci::use(setting.expires, "expires");
}
