#include "lqhost/pass/left_out.h"

#include <list>
#include <map>
#include <unordered_set>
#include <vector>

#include "common/terminal_text.h"
#include "lqregistry/LQPlatformInfo.h"
#include "lqregistry/LqRegistryFile.h"
#include "lqregistry/LqSettings.h"
#include "records/record_rules.h"

namespace host {

namespace {

// Values from this length on do not fit the product's buffer.
constexpr std::size_t kTooLong = kValueBuffer;

class Comparison {
 public:
  explicit Comparison(const OBGui::KeyList& sent) {
    for (const OBGui::RegistryKeyInfo& record : sent) {
      if (isKey(record)) {
        keys_.insert(keyOf(record));
      } else {
        values_.insert(placeOf(record.keyPath, record.valueName));
      }
    }
  }

  LeftOut run() {
    const lqregistry::ReadSnapshot still;
    // Depth first with a list of its own: keys nest deeper than a stack of calls should.
    std::vector<std::string> pending{""};
    while (!pending.empty()) {
      const std::string key = std::move(pending.back());
      pending.pop_back();
      compareKey(key);
      std::list<std::string> below;
      if (!registry_.getSubKeys(lqsettings::kInstanceRoot + key, below))
        note(key, "", "its keys cannot be read");
      for (const std::string& name : below) pending.push_back(key.empty() ? name : subKeyPath(key, name));
    }
    if (left_.count > kNamedLeftOut)
      left_.lines += "  and " + std::to_string(left_.count - kNamedLeftOut) + " more\n";
    return std::move(left_);
  }

 private:
  // A name cannot hold a NUL.
  static std::string placeOf(const std::string& key, const std::string& name) { return key + '\0' + name; }

  void compareKey(const std::string& key) {
    std::map<std::string, std::string> values;
    if (!registry_.getRegValues(lqsettings::kInstanceRoot + key, values)) {
      note(key, "", "its values cannot be read");
      return;
    }
    if (!key.empty() && !keys_.contains(key)) note(key, "", "the key could not be read, or is new");
    for (const auto& [name, data] : values) {
      if (key.empty()) {
        note(key, name, "values of the root itself are not uploaded");
      } else if (!values_.contains(placeOf(key, name))) {
        note(key, name,
             data.size() >= kTooLong
                 ? std::to_string(data.size()) + " bytes; values of 10,240 bytes and more are not uploaded"
                 : "could not be read, or is new");
      } else if (data.find('\0') != std::string::npos) {
        note(key, name, "uploaded only up to its first NUL byte");
      }
    }
  }

  void note(const std::string& key, const std::string& name, const std::string& why) {
    if (++left_.count > kNamedLeftOut) return;
    const std::string what = lqsettings::kInstanceRoot + key + (name.empty() ? "" : " " + name);
    left_.lines += "  " + programs::escapedForTerminal(what) + ": " + why + "\n";
  }

  LQPlatformInfo registry_;
  std::unordered_set<std::string> keys_;
  std::unordered_set<std::string> values_;
  LeftOut left_;
};

}  // namespace

LeftOut leftOutOf(const OBGui::KeyList& sent) {
  return Comparison(sent).run();
}

}  // namespace host
