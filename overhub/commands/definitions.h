// The settings that somebody has defined, and whether a record fits: a typing mistake in a batch reaches
// every machine that the batch is for, so it is refused where it is made.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/command_line.h"
#include "lqregistry/CWmError.h"
#include "lqregistry/OBGui.h"
#include "overhub/commands/definition_file.h"

// Without a file every record fits, and nothing is known of any setting. Paths are taken as the registry
// takes them. X_UNTIL, the end of X, is known where X is, unless it is defined itself.
class Definitions {
 public:
  // Takes the place of what was loaded before; on an error, which names the file and the place in it, that
  // stays.
  CWmError load(const std::string& file);

  bool isEmpty() const { return settings_.empty(); }

  // An error when the setting is not defined, or the record does not fit; it says what would. Removals fit:
  // those of settings that are no longer defined are how machines get rid of them.
  CWmError check(const OBGui::RegistryKeyInfo& record) const;

  // What to warn of, though it is no error: a removal of what is not defined, which a mistyped name would
  // never show otherwise. Empty when there is nothing.
  std::string doubtAbout(const OBGui::RegistryKeyInfo& record) const;

  // What the setting is for; empty when it is not defined.
  std::string sentenceOf(const std::string& path, const std::string& name) const;

  // Whether a new value counts only after a restart of what reads it.
  bool needsRestart(const std::string& path, const std::string& name) const;

 private:
  std::optional<Definition> find(const std::string& path, const std::string& name) const;
  bool isPartOfSomething(const OBGui::RegistryKeyInfo& key) const;
  std::string unknown(const OBGui::RegistryKeyInfo& record) const;

  std::string file_;
  std::vector<Definition> settings_;  // in the order of the file
  std::map<std::pair<std::string, std::string>, std::size_t> exact_;
};

// Adds --definitions, which names the file.
void describeDefinitions(programs::CommandLine::Options options, std::string& file);

// The definitions of the file that is named, or else of the store directory's definitions.json if that is
// there.
CWmError loadDefinitions(const std::string& named, const std::string& dataDirectory,
                         Definitions& definitions);
