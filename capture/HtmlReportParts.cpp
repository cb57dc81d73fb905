#include "capture/HtmlReportParts.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <iterator>
#include <sstream>

namespace report {
namespace {

// Colour-blind-safe series colours.
constexpr const char* kColours[] = {"#0072b2", "#e69f00", "#009e73", "#cc79a7", "#56b4e9", "#d55e00"};

constexpr int64_t kBucketSeconds[] = {60, 300, 900, 3600, 6 * 3600, 86400, 7 * 86400, 30 * 86400, 365 * 86400};
constexpr int64_t kMaxBars = 48;

std::string TimeText(int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
  return text;
}

int64_t BucketFor(int64_t span) {
  for (int64_t bucket : kBucketSeconds) {
    if (span / bucket < kMaxBars) return bucket;
  }
  return span / (kMaxBars - 1) + 1;
}

// Days from 1970-01-01 to the first of the month (month 1 to 12), in the
// proleptic Gregorian calendar.
int64_t DaysToMonth(int64_t year, int64_t month) {
  year -= month <= 2 ? 1 : 0;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t year_of_era = year - era * 400;
  const int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5;
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

// A time as the report's files write it, "YYYY-mm-dd HH:MM:SS", without the
// cost of sscanf and timegm (a few thousand instructions per message). Any
// other text is left to them.
std::optional<int64_t> PlainSecondsOf(const std::string& time) {
  static constexpr char kShape[] = "dddd-dd-dd dd:dd:dd";
  if (time.size() != sizeof kShape - 1) return std::nullopt;
  for (size_t i = 0; i < time.size(); ++i) {
    const bool digit = time[i] >= '0' && time[i] <= '9';
    if (kShape[i] == 'd' ? !digit : time[i] != kShape[i]) return std::nullopt;
  }
  auto number = [&](size_t at, size_t digits) {
    int64_t value = 0;
    for (size_t i = at; i < at + digits; ++i) value = value * 10 + (time[i] - '0');
    return value;
  };
  const int64_t month = number(5, 2);
  if (month < 1 || month > 12) return std::nullopt;
  // timegm carries days, hours, minutes and seconds beyond their range over
  // linearly, as this sum does.
  const int64_t days = DaysToMonth(number(0, 4), month) + number(8, 2) - 1;
  return ((days * 24 + number(11, 2)) * 60 + number(14, 2)) * 60 + number(17, 2);
}

}  // namespace

std::string Escape(const std::string& text) {
  // Most texts need no escape: the runs between special characters are
  // appended whole rather than one character at a time.
  std::string out;
  out.reserve(text.size());
  size_t from = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    const char* entity = nullptr;
    switch (text[at]) {
      case '&': entity = "&amp;"; break;
      case '<': entity = "&lt;"; break;
      case '>': entity = "&gt;"; break;
      case '"': entity = "&quot;"; break;
      case '\'': entity = "&#39;"; break;
      default: continue;
    }
    out.append(text, from, at - from);
    out += entity;
    from = at + 1;
  }
  out.append(text, from);
  return out;
}

int64_t SecondsOf(const std::string& time) {
  if (const std::optional<int64_t> seconds = PlainSecondsOf(time)) return *seconds;
  std::tm parts{};
  if (std::sscanf(time.c_str(), "%d-%d-%d %d:%d:%d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday, &parts.tm_hour,
                  &parts.tm_min, &parts.tm_sec) != 6) {
    return 0;
  }
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  return static_cast<int64_t>(timegm(&parts));
}

std::string StackedBars(const std::vector<TimedItem>& items, const std::vector<std::string>& series,
                        const std::string& unit, const Words& words) {
  if (items.empty()) return "<p class=\"empty\">" + words("None.") + "</p>";
  const auto [low, high] = std::minmax_element(items.begin(), items.end(),
                                               [](const auto& a, const auto& b) { return a.seconds < b.seconds; });
  const int64_t bucket = BucketFor(high->seconds - low->seconds);
  const int64_t first = low->seconds - low->seconds % bucket;
  const size_t bars = static_cast<size_t>((high->seconds - first) / bucket + 1);
  std::vector<std::vector<uint64_t>> counts(bars, std::vector<uint64_t>(series.size(), 0));
  std::vector<uint64_t> totals(series.size(), 0);
  for (const TimedItem& item : items) {
    const auto found = std::find(series.begin(), series.end(), item.series);
    if (found == series.end()) continue;
    const size_t s = static_cast<size_t>(found - series.begin());
    ++counts[static_cast<size_t>((item.seconds - first) / bucket)][s];
    ++totals[s];
  }
  uint64_t tallest = 1;
  for (const auto& bar : counts) {
    uint64_t total = 0;
    for (uint64_t count : bar) total += count;
    tallest = std::max(tallest, total);
  }
  std::ostringstream svg;
  const double width = 700.0 / static_cast<double>(bars);
  svg << "<figure><svg class=\"chart\" viewBox=\"0 0 720 230\" role=\"img\" aria-label=\"" << Escape(unit)
      << " " << words("per") << " "
      << (bucket >= 86400 ? std::to_string(bucket / 86400) + " " + words("day(s)")
                          : std::to_string(bucket / 60) + " " + words("min"))
      << "\">";
  for (size_t b = 0; b < bars; ++b) {
    double y = 200;
    for (size_t s = 0; s < series.size(); ++s) {
      if (counts[b][s] == 0) continue;
      const double height = 176.0 * static_cast<double>(counts[b][s]) / static_cast<double>(tallest);
      y -= height;
      svg << "<rect class=\"mark\" x=\"" << 10 + width * static_cast<double>(b) << "\" y=\"" << y << "\" width=\""
          << std::max(width - 1, 1.0) << "\" height=\"" << height << "\" fill=\"" << kColours[s % 6] << "\"><title>"
          << Escape(TimeText(first + static_cast<int64_t>(b) * bucket)) << ": " << counts[b][s] << " "
          << Escape(series[s]) << "</title></rect>";
    }
  }
  svg << "<line x1=\"10\" y1=\"200.5\" x2=\"710\" y2=\"200.5\" stroke=\"#888\"/>"
      << "<text x=\"10\" y=\"220\">" << Escape(TimeText(first)) << "</text><text x=\"710\" y=\"220\" "
      << "text-anchor=\"end\">" << Escape(TimeText(first + static_cast<int64_t>(bars) * bucket)) << "</text>"
      << "<text x=\"10\" y=\"12\">" << tallest << " " << Escape(unit) << " " << words("at most per bar") << "</text></svg><figcaption>";
  for (size_t s = 0; s < series.size(); ++s) {
    svg << "<span class=\"key\"><i style=\"background:" << kColours[s % 6] << "\"></i>" << Escape(series[s]) << " "
        << totals[s] << "</span> ";
  }
  svg << "</figcaption></figure>";
  return svg.str();
}

std::string Decimal(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string Bytes(double bytes) {
  const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  size_t unit = 0;
  for (; bytes >= 1024 && unit + 1 < std::size(units); ++unit) bytes /= 1024;
  return unit == 0 ? Decimal(bytes, 0) + " bytes" : Decimal(bytes, 1) + " " + units[unit];
}

std::string SpreadBar(const std::vector<uint64_t>& counts, const std::vector<std::string>& names) {
  uint64_t total = 0;
  for (const uint64_t count : counts) total += count;
  if (total == 0) return {};
  std::ostringstream svg;
  svg << "<svg class=\"spread\" viewBox=\"0 0 160 12\" width=\"160\" height=\"12\" role=\"img\">";
  double x = 0;
  for (size_t i = 0; i < counts.size() && i < names.size(); ++i) {
    if (counts[i] == 0) continue;
    const double width = 160.0 * static_cast<double>(counts[i]) / static_cast<double>(total);
    svg << "<rect class=\"mark\" x=\"" << x << "\" y=\"0\" width=\"" << width << "\" height=\"12\" fill=\""
        << kColours[i % 6] << "\"><title>" << Escape(names[i]) << ": " << counts[i] << "</title></rect>";
    x += width;
  }
  svg << "</svg>";
  return svg.str();
}

std::string CountTable(const std::string& caption, const std::string& name_header,
                       const std::vector<std::pair<std::string, uint64_t>>& rows, const Words& words) {
  std::ostringstream html;
  html << "<table class=\"sortable\"><caption>" << Escape(caption) << "</caption><thead><tr><th>"
       << Escape(name_header) << "</th><th class=\"number\">" << words("Count") << "</th></tr></thead><tbody>";
  for (const auto& [name, count] : rows) {
    html << "<tr><td>" << Escape(name) << "</td><td class=\"number\">" << count << "</td></tr>";
  }
  if (rows.empty()) html << "<tr><td colspan=\"2\">" << words("None.") << "</td></tr>";
  html << "</tbody></table>";
  return html.str();
}

std::string CopyLink(const std::string& path, const std::string& out_dir) {
  if (path.empty()) return {};
  const std::string name = path.substr(path.rfind('/') + 1);
  if (path.compare(0, out_dir.size(), out_dir) != 0) return Escape(name);
  std::string href;
  for (unsigned char c : path.substr(out_dir.size())) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '/' || c == '.' || c == '-' || c == '_';
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "%%%02X", c);
    href += plain ? std::string(1, static_cast<char>(c)) : std::string(escaped);
  }
  return "<a href=\"" + href + "\">" + Escape(name) + "</a>";
}

}  // namespace report
