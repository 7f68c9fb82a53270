// How the server's commands tell what there is: lists for people and programs, metrics, and a page.
#include "overhub/commands/listing.h"

#include <gtest/gtest.h>

#include <algorithm>
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
  EXPECT_EQ(machines().text(kNow),
            R"(NAME                           ID  IN STEP  SINCE                 LAST SEEN
Bü\x9b<1>\n                    -5  ?        ?                     ?
web-2         9223372036854775807  no       never                 5 min ago
web-10       18446744073709551615  yes      2027-01-01T06:00:00Z  never
web-10                          ?  ?        ?                     ?
)");
  std::string json = machines().json();
  EXPECT_EQ(json.substr(0, 27), "{\n  \"machines\": [\n    {\n   ");
  json.erase(std::remove_if(json.begin(), json.end(), [](char c) { return c == ' ' || c == '\n'; }),
             json.end());
  EXPECT_EQ(json,
            "{\"machines\":["
            R"({"name":"B\u00fc\ufffd<1>\n","id":-5,"inStep":null,"since":null,"lastSeen":null},)"
            R"({"name":"web-2","id":9223372036854775807,"inStep":false,"lastSeen":"2027-01-01T05:55:00Z"},)"
            R"({"name":"web-10","id":18446744073709551615,"inStep":true,"since":"2027-01-01T06:00:00Z"},)"
            R"({"name":"web-10","id":null,"inStep":null,"since":null,"lastSeen":null}]})");
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

TEST(Listing, TellsPeopleTheFirstOfManyTextsAndProgramsAll) {
  Listing list("groups", {{"Members", "members", Kind::texts}, {"Hidden", "hidden", Kind::yesNo, true}});
  std::vector<std::string> texts{"\u202e\u2069\n"};
  list.addRow({texts, true});
  while (texts.size() < 9) texts.push_back("b" + std::to_string(texts.size()));
  list.addRow({texts});
  texts.push_back("c");
  list.addRow({texts});
  list.addRow({std::vector<std::string>()});
  EXPECT_EQ(list.text(kNow),
            R"(MEMBERS
\xe2\x80\xae\xe2\x81\xa9\n
\xe2\x80\xae\xe2\x81\xa9\n, b1, b2, b3, b4, b5, b6, b7, b8
\xe2\x80\xae\xe2\x81\xa9\n, b1, b2, b3, b4, b5, b6, b7 and 2 more

)");
  EXPECT_TRUE(list.json().find("\"b8\",\n        \"c\"\n      ]") != std::string::npos) << list.json();
  HtmlPage page("", kNow);
  page.table(list);
  EXPECT_EQ(page.text().find("Hidden"), std::string::npos);
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
  return std::regex_replace(page, std::regex("(<[^>]*>|\n)+"), "|");
}
std::string allOf(const std::string& page, const std::string& pattern) {
  const std::regex wanted(pattern);
  std::string all;
  for (auto match = std::sregex_iterator(page.begin(), page.end(), wanted); match != std::sregex_iterator();
       ++match)
    all += match->str() + " ";
  return all;
}

// What comes from outside is shown, and is never part of the page.
TEST(HtmlPage, EscapesWhatItShowsAndDrawsEveryCount) {
  EXPECT_EQ(escapedForHtml("&<>\"'\xc3\xbc\n\x1b\x7f\xff\xc2\x9b"),
            "&amp;&lt;&gt;&quot;&#39;"
            "\xc3\xbc\xe2\x90\x8a\xe2\x90\x9b\xe2\x90\xa1\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
  HtmlPage page("<title>", kNow);
  std::size_t seen = page.text().find("<title>");
  const auto added = [&page, &seen] {
    const std::string text = page.text().substr(seen);
    seen = page.text().rfind("</body>");
    return text.substr(0, text.rfind("</body>"));
  };
  EXPECT_EQ(shown(added()), "|&lt;title&gt;|&lt;title&gt;|As of |2027-01-01 06:00:00 UTC|");
  page.section("<s>");
  page.paragraph("<p>");
  page.table(Listing("none", {}));
  page.barChart("<None>", {{"in step", 0}});
  page.stackedBar("<None>", {});
  EXPECT_EQ(added(),
            "<h2>&lt;s&gt;</h2>\n<p>&lt;p&gt;</p>\n<p>None.</p>\n"
            "<p>&lt;None&gt;: none.</p>\n<p>&lt;None&gt;: none.</p>\n");
  page.table(machines());
  const std::string table = added();
  EXPECT_EQ(shown(table),
            "|Name|Id|In step|Since|Last seen|B\xc3\xbc\xef\xbf\xbd&lt;1&gt;\xe2\x90\x8a|-5|?|?|?|"
            "web-2|9223372036854775807|no|never|5 min ago|"
            "web-10|18446744073709551615|yes|2027-01-01T06:00:00Z|never|web-10|?|?|?|?|");
  EXPECT_EQ(
      allOf(table.substr(0, table.find("web-2")), "<t[hd]( [^>]*)?>"),
      R"(<th scope="col"> <th scope="col" class="number"> <th scope="col"> <th scope="col" class="time"> )"
      R"(<th scope="col" class="time"> <th scope="row"> <td data-title="Id" class="number"> )"
      R"(<td data-title="In step"> <td data-title="Since" class="time"> )"
      R"(<td data-title="Last seen" class="time"> <th scope="row"> )");
  const std::vector<NamedCount> counts = {{"<ok>", 1999998, Tone::good},
                                          {"bad", 1, Tone::bad},
                                          {"late", 0, Tone::warning},
                                          {"new", 1, Tone::neutral},
                                          {"old", 2000000, Tone::quiet}};
  page.stackedBar("<State>", counts);
  const std::string bar = added();
  EXPECT_EQ(shown(bar),
            "|&lt;State&gt;|&lt;State&gt;: &lt;ok&gt; 1,999,998 (50 %), bad 1 (under 1 %), late 0 (0 %), "
            "new 1 (under 1 %), old 2,000,000 (50 %)|&lt;ok&gt; 1,999,998 (50 %)|bad 1 (under 1 %)|"
            "new 1 (under 1 %)|old 2,000,000 (50 %)|1,999,998|&lt;ok&gt; |50 %|1|bad |under 1 %|0|late |0 %|"
            "1|new |under 1 %|2,000,000|old |50 %|");
  EXPECT_EQ(allOf(bar.substr(0, bar.find("</svg>")), "(Box|x|width|class)=\"[0-9a-z ]+\""),
            "class=\"stack\" Box=\"0 0 1012 10\" x=\"0\" width=\"500\" class=\"good\" x=\"500\" width=\"6\" "
            "class=\"bad\" x=\"506\" width=\"6\" class=\"neutral\" x=\"512\" width=\"500\" class=\"quiet\" ");
  page.barChart("<State>", counts);
  const std::string chart = added();
  EXPECT_EQ(shown(chart), "|&lt;State&gt;|&lt;ok&gt;|1,999,998|bad|1|late|0|new|1|old|2,000,000|");
  EXPECT_EQ(allOf(chart, " width=\"[0-9]+\""),
            " width=\"1000\"  width=\"6\"  width=\"0\"  width=\"6\"  width=\"1000\" ");
}

}  // namespace
