// The settings in the store, by scope, by name and by revision.
//
// Within a unit of work (database.h), which gives the session; what goes wrong is thrown to it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "overhub/store/database.h"
#include "overhub/store/setting.h"

// What is valid in a scope at a revision.
std::vector<Setting> settingsOf(soci::session& session, const std::string& scope, std::int64_t revision);

// What was valid in a scope at a revision, or became so since.
std::vector<Setting> settingsSince(soci::session& session, const std::string& scope, std::int64_t revision);

// What is valid now of that name, in all scopes: what a change of it can meet, as clients expire by name.
std::vector<Setting> settingsNamed(soci::session& session, const std::string& name);

// What is valid now, in all scopes.
std::vector<Setting> allSettings(soci::session& session);

// What a revision after `from`, up to `to`, brought or ended.
std::vector<Setting> settingsTouched(soci::session& session, std::int64_t from, std::int64_t to);

// The names of what has an end, now.
std::vector<std::string> namesThatEnd(soci::session& session);

// Ends what the scope says of this identity from the revision on.
void endSetting(soci::session& session, const std::string& scope, const Identity& identity,
                std::int64_t revision);
// Begins it. It is open from then on, and what was said before has been ended.
void beginSetting(soci::session& session, const Setting& setting, std::int64_t revision);
