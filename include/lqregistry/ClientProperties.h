// ClientProperties: the properties that the management server keeps for a client, as far as this machine
// knows them.
//
// A client's properties are the values of the key "SOFTWARE/Velmor/ClientProperties/<client id>"; they belong
// to the machine, not to an instance. Used by one thread at a time; nothing is thrown. A real platform
// library may ask the management server instead.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "lqregistry/LqExport.h"

// The type number of a property that stands for yes or no.
inline constexpr int kPropertyBoolean = 2;

// One property as it was read.
class LQ_EXPORT ApplNativeProperty {
 public:
  const std::string& getText() const { return text_; }

  // True for "1", "true", "yes" and "on" in any letter case, and for 64-bit whole numbers other than 0.
  bool getBooleanValue() const;

 private:
  friend class ApplProperties;
  std::string text_;
};

// The properties of one owner.
class LQ_EXPORT ApplProperties {
 public:
  // Reads a property into `property`; one that is not there reads as `defaultText`. 0 on success; non-zero,
  // with `property` unchanged, when the registry cannot be read, or for a type other than kPropertyBoolean or
  // a flag other than 0, which this layer does not have.
  int getNativeProperty(const std::string& name, int type, const std::string& defaultText, int flag,
                        ApplNativeProperty& property) const;

 protected:
  explicit ApplProperties(std::string key) : key_(std::move(key)) {}
  ~ApplProperties() = default;

 private:
  std::string key_;
};

class LQ_EXPORT ClientProperties : public ApplProperties {
 public:
  explicit ClientProperties(std::uint64_t clientId);
};
