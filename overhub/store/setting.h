// A setting as the store keeps it: what one scope says of one value, or of one sub-key, and when it ends.
//
// A value and its expiry are one thing here. On the wire they are two records, NAME and NAME_UNTIL, which a
// client relates by name alone; so nobody sets the second one by itself.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "lqregistry/CWmError.h"
#include "lqregistry/OBGui.h"
#include "overhub/store/schema.h"

// Which value of a machine's registry, however its path was written, or which sub-key: of one name there may
// be both.
struct Identity {
  std::string place;  // setting_place.h
  std::string name;
  bool isKey = false;

  auto operator<=>(const Identity&) const =
      default;  // NOLINT(modernize-use-nullptr): the check takes it for a 0
};

struct Setting {
  std::string scope;  // scope.h
  Identity identity;
  std::string path;  // as it was typed, and is sent
  std::string type;
  std::string value;
  std::string secret;        // its protected text; empty: the setting is not secret
  bool isRemoval = false;    // the client is to remove it
  bool isDisabled = false;   // not wanted for now, which removes it too
  std::int64_t expires = 0;  // seconds since the epoch; 0: never
  std::int64_t validFrom = 0;
  std::int64_t validTo = kOpen;

  // Whether a client is to have it, as far as its time has not come.
  bool isLive() const { return !isRemoval && !isDisabled; }
  bool isSecret() const { return !secret.empty(); }
  // Whether both say the same, whichever scope says it.
  bool saysAs(const Setting& other) const;
};

// The setting that a record makes, without its expiry.
Setting settingOf(const std::string& scope, const OBGui::RegistryKeyInfo& record);

// The settings that the records of a batch make: NAME_UNTIL becomes the end of NAME. Without their scope. An
// error for an end of something that the batch does not hold, or that is no number.
CWmError settingsOf(const OBGui::KeyList& records, std::vector<Setting>& settings);

// The record that says it, without its expiry. A secret that the store's key does not open stays unreadable.
OBGui::RegistryKeyInfo recordOf(const Setting& setting);

// The companion that carries its expiry, or, with isRemoval, takes one away from a client: then with a time
// that never passes, because one that has passed would end the value as well.
OBGui::RegistryKeyInfo expiryRecordOf(const Setting& setting, bool isRemoval);

// The value that NAME_UNTIL is the end of; empty for any other name.
std::string valueOfExpiry(const std::string& name);

// What a person sees of it: its value, or what stands for one.
std::string shownValue(const Setting& setting);
// The same with what else counts of it, and "(not set)" for nothing.
std::string shownInFull(const Setting* setting);
// The flags that go with it, such as "delete"; empty when there are none.
std::string shownFlags(const Setting& setting);
