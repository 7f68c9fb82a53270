// How the server's commands tell what there is: lists for people and programs, metrics, and a page.
#include "overhub/commands/listing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "overhub/commands/html_page.h"
#include "overhub/commands/prometheus.h"
#include "tests/support/test_support.h"

namespace {

using Kind = Listing::Kind;

constexpr std::int64_t kNow = 1798783200;  // 2027-01-01T06:00:00Z

// Sorted by name, the last of them twice in the order in which they were added.
Listing machines() {
  Listing list("machines", {{"Name", "name", Kind::text},
                            {"Id", "id", Kind::number},
                            {"In step", "inStep", Kind::yesNo},
                            {"Since", "since", Kind::time},
                            {"Last seen", "lastSeen", Kind::age}});
  list.addRow({"web-10", 18446744073709551615U, true, kNow, 0});
  list.addRow({"web-10"});
  list.addRow({"web-2", 9223372036854775807, false, 0, kNow - 300});
  list.addRow({"B\xc3\xbc\x9b<1>\n", -5});
  list.sortBy("name");
  return list;
}

TEST(Listing, IsATableForPeopleAndTheSameRowsForPrograms) {
  EXPECT_EQ(machines().text(kNow), "");
  EXPECT_EQ(machines().json(), "");
}

TEST(Listing, SortsByWhatAColumnHoldsAndPrintsWhatWasAskedFor) {
  Listing list("ids", {{"Id", "id", Kind::number}});
  programs::CommandLine line("program", "", "");
  list.describe(line.add("list", "", [] { return 0; }));
  for (const std::int64_t id : {10, -3, 9, -20}) list.addRow({id});
  list.addRow({18446744073709551615U});
  list.addRow({});
  list.sortBy("id");
  EXPECT_EQ(list.output(),
            "                  ID\n                   ?\n                 -20\n                  -3\n"
            "                   9\n                  10\n18446744073709551615\n");
  std::string words[] = {"program", "list", "--json"};
  char* arguments[] = {words[0].data(), words[1].data(), words[2].data()};
  EXPECT_EQ(line.parse(3, arguments), std::nullopt);
  EXPECT_EQ(list.output(), list.json());
}

TEST(Metrics, AreEscapedAndExact) {
  MetricsText metrics;
  metrics.family("hub_clients", MetricsText::Type::gauge, "By \"state\"\\\nnow");
  metrics.sample(9007199254740991, {{"state", "a\\b\"c\nd"}, {"_2", "\xc3\xa9\x1b\xff"}});
  metrics.family("hub_passes_total", MetricsText::Type::counter, "Passes");
  for (const double value : {1e6, 0.1, 1e300, 1 / 0.0, -1 / 0.0, std::nan("")}) metrics.sample(value);
  EXPECT_EQ(
      metrics.text(),
      "# HELP hub_clients By \"state\"\\\\\\nnow\n# TYPE hub_clients gauge\n"
      "hub_clients{state=\"a\\\\b\\\"c\\nd\",_2=\"\xc3\xa9\xef\xbf\xbd\xef\xbf\xbd\"} 9007199254740991\n"
      "# HELP hub_passes_total Passes\n# TYPE hub_passes_total counter\n"
      "hub_passes_total 1000000\nhub_passes_total 0.1\nhub_passes_total 1e+300\n"
      "hub_passes_total +Inf\nhub_passes_total -Inf\nhub_passes_total NaN\n");
}

// What a reader sees of a page, and everything in it that matches.
std::string shown(const std::string& page) {
  return std::regex_replace(page, std::regex("<[^>]*>"), "|");
}
std::string allOf(const std::string& page, const std::string& pattern) {
  const std::regex wanted(pattern);
  std::string all;
  for (auto match = std::sregex_iterator(page.begin(), page.end(), wanted); match != std::sregex_iterator(); ++match)
    all += match->str() + " ";
  return all;
}

// What comes from outside is shown, and is never part of the page.
TEST(HtmlPage, EscapesWhatItShowsAndDrawsEveryCount) {
  EXPECT_EQ(escapedForHtml("&<>\"'\xc3\xbc\n\x1b\x7f\xff\xc2\x9b"),
            "&amp;&lt;&gt;&quot;&#39;\xc3\xbc\xe2\x90\x8a\xe2\x90\x9b\xe2\x90\xa1\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
  HtmlPage page("<title>", kNow);
  std::size_t seen = page.text().find("</head>");
  EXPECT_EQ(allOf(page.text(), "<title>.*</title>"), "<title>&lt;title&gt;</title> ");
  const auto added = [&page, &seen] {
    const std::string text = page.text().substr(seen);
    seen = page.text().rfind("</body>");
    return text.substr(0, text.rfind("</body>"));
  };
  EXPECT_EQ(shown(added()), "");
  page.section("<s>");
  page.paragraph("<p>");
  EXPECT_EQ(shown(added()), "");
  page.table(machines());
  const std::string table = added();
  EXPECT_EQ(shown(table), "");
  EXPECT_EQ(allOf(table, "<t[hd] [^>]*>"), "");
  page.table(Listing("none", {}));
  page.barChart("<None>", {{"in step", 0}});
  page.stackedBar("<None>", {});
  EXPECT_EQ(shown(added()), "");
  const std::vector<NamedCount> counts = {
      {"<in step>", 1999998, Tone::good}, {"failed", 1, Tone::bad}, {"late", 0, Tone::warning}, {"new", 1, Tone::neutral}};
  page.stackedBar("<State>", counts);
  const std::string bar = added();
  EXPECT_EQ(shown(bar), "");
  EXPECT_EQ(allOf(bar, "<(rect|svg)[^>]*>"), "");
  page.barChart("<State>", counts);
  const std::string chart = added();
  EXPECT_EQ(shown(chart), "");
  EXPECT_EQ(allOf(chart, "<(rect|svg)[^>]*>"), "");
}

}  // namespace
