#include "PagePlain.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Listing.h"
#include "Shown.h"
#include "StatusChecks.h"
#include "StatusListings.h"

namespace {

constexpr std::size_t kRows = 500;  // of a table: thousands would hold up the browser

constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>KorvaneUGS</title>
<link rel="stylesheet" href="page.css">
<link rel="icon" href="icon.svg" type="image/svg+xml">
</head>
<body>
<main>
)";

// For the text of an element, or the quoted value of an attribute.
std::string EscapedForHtml(std::string_view text) {
  std::string escaped;
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

std::string Element(const char* name, std::string_view content) {
  return fmt::format("<{0}>{1}</{0}>", name, content);
}

std::string Paragraph(std::string_view text) {
  return Element("p", EscapedForHtml(text)) + "\n";
}

std::string HeadOf(const Listing& listing) {
  std::string cells;
  for (const Column& column : listing.columns) {
    if (!column.title.empty())
      cells += fmt::format("<th scope=\"col\">{}</th>", EscapedForHtml(column.title));
  }
  return Element("thead", Element("tr", cells));
}

std::string RowOf(const Listing& listing, const std::vector<Cell>& row, std::int64_t now) {
  std::string cells;
  for (std::size_t column = 0; column < row.size(); ++column) {
    const std::string& title = listing.columns[column].title;
    if (title.empty()) continue;
    const std::string text = EscapedForHtml(ShownCell(row[column], now));
    cells += fmt::format("<td data-head=\"{}\"><div><bdi>{}</bdi></div></td>", EscapedForHtml(title), text);
  }
  return Element("tr", cells) + "\n";
}

std::string TableWithTitle(const char* title, const Listing& listing, std::int64_t now) {
  std::string rows;
  const std::size_t shown = std::min(listing.rows.size(), kRows);
  for (std::size_t row = 0; row < shown; ++row) rows += RowOf(listing, listing.rows[row], now);
  std::string said = listing.rows.empty() ? "none" : fmt::format("{} in all", listing.rows.size());
  if (shown < listing.rows.size()) said += fmt::format(", {} are shown", shown);
  return Element("h2", title) + "\n" + Paragraph(said) +
         fmt::format("<div class=\"wide\"><table>{}\n<tbody>\n{}</tbody></table></div>\n", HeadOf(listing),
                     rows);
}

std::string ProblemList(const StatusSnapshot& snapshot) {
  std::string items;
  for (const StatusProblem& problem : ProblemsOf(snapshot)) {
    items += Element("li", EscapedForHtml(problem.text)) + "\n";
  }
  return items.empty() ? Paragraph("All is well.") : Element("ul", "\n" + items) + "\n";
}

std::string Body(const StatusSnapshot& snapshot) {
  const StatusServer& server = snapshot.server;
  std::vector<StatusInstance> instances = snapshot.instances;
  SortInstances(instances, "age");
  const std::string load =
      fmt::format("Version {}, up {}, as of {}; {:.1f} of {:.0f} reports a second, {} waiting",
                  server.version, ShownAge(server.time - server.started), ShownTime(server.time, server.time),
                  server.reportsPerSecond, server.reportsPerSecondLimit, server.queue);
  return Element("h1", EscapedForHtml(Shown(server.host))) + "\n" + Paragraph(load) + ProblemList(snapshot) +
         Paragraph("In use: " + Shown(ShownCounts(snapshot.totals))) +
         TableWithTitle("Instances", ListInstances(instances, server.time), server.time) +
         TableWithTitle("Lost instances", ListLosses(snapshot.losses), server.time) +
         TableWithTitle("Refusals", ListRefusals(snapshot.refusals), server.time);
}

}  // namespace

std::string PlainPageOf(const View& view) {
  const std::string body =
      view.snapshot ? Body(*view.snapshot) : Element("h1", "No status") + Paragraph(view.trouble);
  return kHead + body +
         "<p><a href=\"/\">The live page</a> needs JavaScript.</p>\n</main>\n</body>\n</html>\n";
}
