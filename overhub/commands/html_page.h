// One page that says how things stand, in a single file that can be mailed, printed and archived: HTML with
// its style and charts inside, no script, nothing fetched from elsewhere.
//
//   HtmlPage page("Clients of hub.example", now);
//   page.section("At a glance");
//   page.stackedBar("State of the machines", {{"in step", 9950, Tone::good}, {"failed", 7, Tone::bad}});
//   page.section("All machines");
//   page.table(list);
//   print(page.text());
//
// Every text may come from outside; the page escapes it. One thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "overhub/commands/listing.h"

// What a count says to its reader, and so its colour.
enum class Tone { good, warning, bad, neutral, quiet };

struct NamedCount {
  std::string name;
  std::uint64_t count = 0;
  Tone tone = Tone::neutral;
};

class HtmlPage {
 public:
  // `now` is the moment that the page tells of, in seconds since the epoch.
  HtmlPage(std::string_view title, std::int64_t now);

  void section(std::string_view heading);
  void paragraph(std::string_view text);

  // The rows of a list as they are sorted.
  void table(const Listing& list);

  // One bar in which every count has its share, and what each part is.
  void stackedBar(std::string_view title, const std::vector<NamedCount>& counts);
  // A bar for each count, the longest for the highest.
  void barChart(std::string_view title, const std::vector<NamedCount>& counts);

  // The whole document.
  std::string text() const;

 private:
  bool isNothing(std::string_view title, const std::vector<NamedCount>& counts);

  std::int64_t now_;
  std::string text_;
};

// A text as it may stand between tags and in quoted attributes. Control characters are shown by their
// pictures, and what is not UTF-8 by the replacement character, so that nothing is hidden and nothing is lost
// silently.
std::string escapedForHtml(std::string_view text);
