// Figures in the text form that monitoring systems collect (exposition format 0.0.4): for a text-file
// collector, or whoever asks over HTTP in between. The caller prints text() to standard output.
//
//   MetricsText metrics;
//   metrics.family("overhub_clients", MetricsText::Type::gauge, "Registered clients, by state");
//   metrics.sample(12, {{"state", "in step"}});
//
// One thread at a time.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

class MetricsText {
 public:
  enum class Type { counter, gauge };

  // The name of a family or a label, a constant: one that collectors would refuse does not compile.
  class Name {
   public:
    template <std::size_t Size>
    consteval Name(const char (&text)[Size]) : text_(text, Size - 1) {
      if (Size < 2 || (text[0] >= '0' && text[0] <= '9')) throw "a name begins with a letter";
      for (const char byte : text_) {
        const bool isLetter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || byte == '_';
        if (!isLetter && (byte < '0' || byte > '9')) throw "a name holds letters, digits and _";
      }
    }
    constexpr std::string_view text() const { return text_; }

   private:
    std::string_view text_;
  };

  struct Label {
    Name name;
    std::string value;
  };

  // Begins the family to which the samples that follow belong; each family once. The name of a counter ends
  // in _total.
  void family(Name name, Type type, std::string_view help);

  // Adds a sample; within a family no two have the same labels.
  template <class Number>
  requires std::is_arithmetic_v<Number>
  void sample(Number value, const std::vector<Label>& labels = {}) {
    add(static_cast<double>(value), labels);
  }

  const std::string& text() const { return text_; }

 private:
  void add(double value, const std::vector<Label>& labels);

  std::string family_;
  std::string text_;
};
