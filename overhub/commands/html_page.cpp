#include "overhub/commands/html_page.h"

#include <algorithm>
#include <cmath>

#include "lqregistry/PrintableText.h"
#include "lqregistry/UtcText.h"

namespace {

// Should the escaping ever fail, the policy still lets nothing run and nothing be fetched.
constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8"/>
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'"/>
<meta name="viewport" content="width=device-width, initial-scale=1"/>
<style>
:root { color-scheme: light dark; --page: #ffffff; --text: #1b2430; --muted: #586475; --line: #d8dee7; --band: #f5f7fa;
  --good: #2e8b57; --warning: #d08a00; --bad: #c43a3a; --neutral: #4f74b3; --quiet: #97a3b3; }
@media screen and (prefers-color-scheme: dark) {
  :root { --page: #141920; --text: #e4e9f0; --muted: #9ba7b7; --line: #2d3643; --band: #1b222c;
    --good: #4caf7a; --warning: #e2ab3c; --bad: #e56a6a; --neutral: #7b9bd2; --quiet: #6a7686; }
}
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 2.5rem 1.5rem 4rem; max-width: 70rem; background: var(--page); color: var(--text);
  font: 16px/1.5 system-ui, "Segoe UI", Roboto, "Helvetica Neue", sans-serif; overflow-wrap: break-word; }
h1 { margin: 0; font-size: 1.9rem; line-height: 1.2; font-weight: 650; letter-spacing: -0.01em; }
h2 { margin: 2.75rem 0 1rem; padding-bottom: 0.35rem; border-bottom: 1px solid var(--line); font-size: 1.2rem; }
.asof { margin: 0.4rem 0 0; color: var(--muted); }
figure { margin: 1.25rem 0; }
figcaption, caption { margin-bottom: 0.6rem; text-align: left; font-weight: 600; }
.stack { display: block; width: 100%; height: 1.75rem; border-radius: 0.4rem; }
.stack rect { stroke: var(--page); stroke-width: 2px; vector-effect: non-scaling-stroke; }
.legend { display: flex; flex-wrap: wrap; gap: 0.75rem 2.25rem; margin: 0.9rem 0 0; padding: 0; list-style: none; }
.legend b { display: block; font-size: 1.6rem; line-height: 1.2; font-weight: 600; font-variant-numeric: tabular-nums; }
.dot { width: 0.7rem; height: 0.7rem; margin-right: 0.4rem; }
.share { color: var(--muted); }
.good { fill: var(--good); } .warning { fill: var(--warning); } .bad { fill: var(--bad); }
.neutral { fill: var(--neutral); } .quiet { fill: var(--quiet); }
.scroll { overflow-x: auto; }
table { width: 100%; border-collapse: collapse; font-size: 0.925rem; }
th, td { padding: 0.4rem 0.75rem; border-bottom: 1px solid var(--line); text-align: left; vertical-align: top; }
thead th { color: var(--muted); font-weight: 600; white-space: nowrap; border-bottom-width: 2px; }
tbody th { font-weight: 500; }
tbody tr:nth-child(even) { background: var(--band); }
.list th, .list td { min-width: 7rem; overflow-wrap: anywhere; }
.list .number, .list .time { min-width: 0; }
th.number, td.number { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
.time { white-space: nowrap; }
.chart { margin: 1.75rem 0; } .chart caption { font-size: 1rem; } .chart tbody tr { background: none; }
.chart th, .chart td { padding: 0.2rem 0.75rem 0.2rem 0; border: 0; vertical-align: middle; }
.chart th { width: 26%; overflow-wrap: anywhere; } .chart .number { width: 1%; padding-right: 0; }
.chart svg { display: block; width: 100%; height: 0.9rem; }
@media screen and (max-width: 45rem) {
  body { padding: 1.5rem 1rem 3rem; }
  .list thead { display: none; } .list tbody, .list tr { display: block; } .list tr { padding: 0.5rem 0; }
  .list tbody tr { border-bottom: 1px solid var(--line); }
  .list th, .list td, .list td.number { display: flex; padding: 0.1rem 0.5rem; border: 0; text-align: left; }
  .list td:empty { display: none; } .list tbody th { font-weight: 600; }
  .list td::before { content: attr(data-title); flex: 0 0 6.5rem; color: var(--muted); }
}
@media print {
  body { max-width: none; padding: 0; font-size: 10.5pt; }
  h2 { break-after: avoid; } tr, figure, .chart { break-inside: avoid; } .scroll { overflow: visible; }
  * { print-color-adjust: exact; -webkit-print-color-adjust: exact; }
}
</style>
)";

// Charts are drawn this wide and stretched by the page.
constexpr double kWidth = 1000;
// One machine of ten thousand is seen, too.
constexpr double kLeastWidth = 6;

const char* className(Tone tone) {
  switch (tone) {
    case Tone::good:
      return "good";
    case Tone::warning:
      return "warning";
    case Tone::bad:
      return "bad";
    case Tone::neutral:
      return "neutral";
    case Tone::quiet:
      break;
  }
  return "quiet";
}

// "10,000"
std::string grouped(std::uint64_t count) {
  std::string digits = std::to_string(count);
  for (std::size_t place = digits.size(); place > 3; place -= 3) digits.insert(place - 3, 1, ',');
  return digits;
}

double share(std::uint64_t count, std::uint64_t whole) {
  return static_cast<double>(count) / static_cast<double>(whole);
}

// Rounded, but never to nothing or to everything: the one machine that failed is what the reader wants to
// know of.
std::string percentText(std::uint64_t count, std::uint64_t whole) {
  const double percent = 100 * share(count, whole);
  if (count != 0 && percent < 1) return "under 1 %";
  if (count != whole && percent > 99) return "over 99 %";
  return std::to_string(std::lround(percent)) + " %";
}

std::uint64_t sumOf(const std::vector<NamedCount>& counts) {
  std::uint64_t sum = 0;
  for (const NamedCount& each : counts) sum += each.count;
  return sum;
}

long width(std::uint64_t count, std::uint64_t whole) {
  return count == 0 ? 0 : std::lround(std::max(kLeastWidth, kWidth * share(count, whole)));
}

std::string rectangle(long from, long width, Tone tone, const std::string& content) {
  return R"(<rect x=")" + std::to_string(from) + R"(" width=")" + std::to_string(width) +
         R"(" height="10" class=")" + className(tone) + "\">" + content + "</rect>";
}

std::string drawing(const char* attributes, long width, const std::string& content) {
  return std::string("<svg ") + attributes + R"( viewBox="0 0 )" + std::to_string(width) +
         R"( 10" preserveAspectRatio="none">)" + content + "</svg>";
}

std::string element(const std::string& tag, std::string_view text) {
  return "<" + tag + ">" + escapedForHtml(text) + "</" + tag + ">";
}

}  // namespace

std::string escapedForHtml(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const char first = text.front();
    const std::size_t length = lqtext::printableLength(text);
    if (first == '&') {
      result += "&amp;";
    } else if (first == '<') {
      result += "&lt;";
    } else if (first == '>') {
      result += "&gt;";
    } else if (first == '"') {
      result += "&quot;";
    } else if (first == '\'') {
      result += "&#39;";
    } else if (length != 0) {
      result += text.substr(0, length);
    } else if (first == '\x7f') {
      result += "\u2421";
    } else if (first >= 0 && first < ' ') {
      result += {'\xe2', '\x90', static_cast<char>('\x80' + first)};  // U+2400 and on, in their order
    } else {
      result += "\ufffd";
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

HtmlPage::HtmlPage(std::string_view title, std::int64_t now) : now_(now), text_(kHead) {
  const std::string time = lqtext::utcText(now);  // in the form for programs, in which a T parts day and hour
  std::string forPeople = time;
  std::replace(forPeople.begin(), forPeople.end(), 'T', ' ');
  forPeople.replace(forPeople.size() - 1, 1, " UTC");
  text_ += element("title", title) + "\n</head>\n<body>\n<header>" + element("h1", title) +
           R"(<p class="asof">As of <time datetime=")" + time + "\">" + forPeople + "</time></p></header>\n";
}

void HtmlPage::section(std::string_view heading) {
  text_ += element("h2", heading) + "\n";
}

void HtmlPage::paragraph(std::string_view text) {
  text_ += element("p", text) + "\n";
}

void HtmlPage::table(const Listing& list) {
  if (list.rowCount() == 0) return paragraph("None.");
  const auto cell = [&list](std::size_t column, const std::string& tag, const char* scope,
                            const std::string& text) {
    const Listing::Kind kind = list.columns()[column].kind;
    const bool isTime =
        kind == Listing::Kind::time || kind == Listing::Kind::end || kind == Listing::Kind::age;
    const char* const end = kind == Listing::Kind::number ? " class=\"number\">"
                            : isTime                      ? " class=\"time\">"
                                                          : ">";
    // Where there is no room for columns, each cell has its title beside it.
    const std::string title =
        tag == "td" ? " data-title=\"" + escapedForHtml(list.columns()[column].title) + "\"" : "";
    return "<" + tag + scope + title + end + escapedForHtml(text) + "</" + tag + ">";
  };
  text_ += "<div class=\"scroll\"><table class=\"list\">\n<thead><tr>";
  for (std::size_t i = 0; i < list.columns().size(); ++i)
    if (!list.columns()[i].isForProgramsOnly)
      text_ += cell(i, "th", " scope=\"col\"", list.columns()[i].title);
  text_ += "</tr></thead>\n<tbody>\n";
  for (std::size_t row = 0; row < list.rowCount(); ++row) {
    const std::vector<std::string> texts = list.cellTexts(row, now_);
    text_ += "<tr>";
    // The first cell says what the row is about.
    for (std::size_t i = 0; i < texts.size(); ++i) {
      if (list.columns()[i].isForProgramsOnly) continue;
      text_ += i == 0 ? cell(i, "th", " scope=\"row\"", texts[i]) : cell(i, "td", "", texts[i]);
    }
    text_ += "</tr>\n";
  }
  text_ += "</tbody>\n</table></div>\n";
}

// Says so where there is nothing to draw.
bool HtmlPage::isNothing(std::string_view title, const std::vector<NamedCount>& counts) {
  if (sumOf(counts) != 0) return false;
  paragraph(std::string(title) + ": none.");
  return true;
}

void HtmlPage::stackedBar(std::string_view title, const std::vector<NamedCount>& counts) {
  if (isNothing(title, counts)) return;
  const std::uint64_t whole = sumOf(counts);
  std::string spoken(title);  // for who hears the page
  std::string bar;
  std::string legend;
  long end = 0;
  for (const NamedCount& each : counts) {
    const std::string percent = percentText(each.count, whole);
    const std::string told = each.name + " " + grouped(each.count) + " (" + percent + ")";
    spoken += (&each == counts.data() ? ": " : ", ") + told;
    if (each.count != 0) bar += rectangle(end, width(each.count, whole), each.tone, element("title", told));
    end += width(each.count, whole);
    legend += "<li>" + element("b", grouped(each.count)) +
              R"(<svg class="dot" viewBox="0 0 10 10" aria-hidden="true">)" +
              rectangle(0, 10, each.tone, "") + "</svg>" + escapedForHtml(each.name) +
              R"( <span class="share">)" + escapedForHtml(percent) + "</span></li>\n";
  }
  text_ += "<figure>" + element("figcaption", title) + "\n" +
           drawing(R"(class="stack" role="img")", end, element("title", spoken) + bar) +
           "\n"
           R"(<ul class="legend">)"
           "\n" +
           legend + "</ul></figure>\n";
}

void HtmlPage::barChart(std::string_view title, const std::vector<NamedCount>& counts) {
  if (isNothing(title, counts)) return;
  const std::uint64_t highest =
      std::max_element(counts.begin(), counts.end(), [](const auto& a, const auto& b) {
        return a.count < b.count;
      })->count;
  // A table, so that names and counts are text that is read aloud, searched and copied.
  text_ += "<table class=\"chart\">" + element("caption", title) + "\n<tbody>\n";
  for (const NamedCount& each : counts) {
    text_ += "<tr><th scope=\"row\">" + escapedForHtml(each.name) + "</th><td>" +
             drawing("aria-hidden=\"true\"", std::lround(kWidth),
                     rectangle(0, width(each.count, highest), each.tone, "")) +
             "</td><td class=\"number\">" + grouped(each.count) + "</td></tr>\n";
  }
  text_ += "</tbody></table>\n";
}

std::string HtmlPage::text() const {
  return text_ + "</body>\n</html>\n";
}
