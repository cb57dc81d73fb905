// The pieces report.html is built of: escaping, the bar charts (inline SVG),
// the count tables, the copy links, and the page's inline style and script.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "capture/ReportWords.h"

namespace report {

// Text made safe for HTML content and attribute values.
std::string Escape(const std::string& text);

// "YYYY-mm-dd HH:MM:SS" as seconds, read as if it were UTC (only the order and
// the distances matter); 0 when it is not such a text.
int64_t SecondsOf(const std::string& time);

// One thing counted at a time, in one series.
struct TimedItem {
  int64_t seconds = 0;
  std::string series;
};

// A stacked bar chart of the items per time bucket (at most 48 bars; the
// bucket grows from a minute to a month to fit), one colour per series in the
// order given, with its legend and totals. Items of another series are not
// shown. "None." when there are no items.
std::string StackedBars(const std::vector<TimedItem>& items, const std::vector<std::string>& series,
                        const std::string& unit, const Words& words);

// One horizontal bar split into the shares of `counts`, coloured like the
// series of StackedBars, each share titled with its name and count; empty
// when all counts are 0.
std::string SpreadBar(const std::vector<uint64_t>& counts, const std::vector<std::string>& names);

// An amount of bytes with its unit ("7.3 KiB"), and a number with so many
// decimals.
std::string Bytes(double bytes);
std::string Decimal(double value, int decimals);

// A table of names and counts under a caption.
std::string CountTable(const std::string& caption, const std::string& name_header,
                       const std::vector<std::pair<std::string, uint64_t>>& rows, const Words& words);

// A link to a copy below `out_dir` (absolute, ending with '/'), relative to
// the page so that the folder can be moved; the name alone for a copy
// elsewhere, nothing for no copy.
std::string CopyLink(const std::string& path, const std::string& out_dir);

// Doctype, head with the style, body start, in the words' language.
std::string PageHead(const Words& words);
extern const char* const kPageScript;  // the table filter and sorting

}  // namespace report
