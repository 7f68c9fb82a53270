// Whom a command is about: "pc1", "web-*", "@berlin", "@all", "@static", and several of them with commas
// between.
//
// Within a unit of work (database.h), which gives the session; what cannot be found is an error that says so.
#pragma once

#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "overhub/store/clients.h"

// What a target may be, for help.
inline constexpr const char* kTargetForms =
    "a client, a pattern such as 'web-*', a group such as @berlin, @all, or several with commas between";

// The scopes that a setting is put into: a group's or that of all is one, a pattern gives each machine's own
// that it matches now.
CWmError scopesOfTarget(soci::session& session, const std::string& target, std::vector<std::string>& scopes);

// The machines that are meant, each once, as people count.
CWmError clientsOfTarget(soci::session& session, const std::string& target, std::vector<Client>& clients);

// One machine by its name.
CWmError oneClient(soci::session& session, const std::string& name, Client& client);

// How a person names a scope: "@all", "@berlin", "pc1".
class ScopeNames {
 public:
  explicit ScopeNames(soci::session& session);
  std::string of(const std::string& scope) const;

 private:
  std::vector<Client> clients_;  // by id, those that were removed left out
};
