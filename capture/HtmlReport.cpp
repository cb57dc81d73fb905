#include "capture/HtmlReport.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <sstream>

#include "capture/HtmlReportAttachments.h"
#include "capture/HtmlReportParts.h"
#include "capture/OutputFiles.h"

namespace pelka {
namespace {

using report::Escape;
using report::Words;

void RunSection(std::ostringstream& html, const ReportData& data, const ReportRun& run, const Words& w) {
  std::string span = w("no messages");
  if (!data.messages.empty()) {
    const auto [first, last] = std::minmax_element(data.messages.begin(), data.messages.end(),
                                                   [](const auto& a, const auto& b) { return a.time < b.time; });
    span = first->time + w(" to ") + last->time + " (" + run.time_zone + ")";
  }
  const double per_second = run.elapsed_seconds > 0 ? static_cast<double>(run.bytes) / run.elapsed_seconds : 0;
  const std::string rate = report::Bytes(static_cast<double>(run.bytes)) + w(" in ") +
                           report::Decimal(run.elapsed_seconds, 2) + " s (" + report::Bytes(per_second) + "/s)";
  html << "<section id=\"run\"><h2>" << w("Run") << "</h2><table class=\"facts\">";
  const std::pair<const char*, std::string> rows[] = {
      {"Captures", run.captures},
      {"Messages", std::to_string(data.messages.size()) + " (" + span + ")"},
      {"Diagnosis reports", std::to_string(data.diagnosis.size())},
      {"Packets", run.packets ? std::to_string(run.packets) : w("not known here")},
      {"Read", run.bytes ? rate : w("not known here")},
      {"Dropped by the kernel", run.kernel_drops < 0 ? w("not a live capture") : std::to_string(run.kernel_drops)},
      {"Ended", w(run.interrupted ? "stopped by a signal or a limit" : "at the end of the input")},
  };
  for (const auto& [name, value] : rows) html << "<tr><th>" << w(name) << "</th><td>" << Escape(value) << "</td></tr>";
  html << "</table></section>\n";
}

void MessagesOverTime(std::ostringstream& html, const ReportData& data, const Words& w) {
  std::vector<report::TimedItem> items;
  for (const ReportMessage& message : data.messages) {
    items.push_back({report::SecondsOf(message.time), message.protocol});
  }
  html << "<section id=\"timeline\"><h2>" << w("Messages over time") << "</h2>"
       << report::StackedBars(items, {"SMTP", "POP3", "IMAPv4"}, w("messages"), w) << "</section>\n";
}

void TopTables(std::ostringstream& html, const ReportData& data, const Words& w) {
  std::map<std::string, uint64_t> senders, receivers, sender_domains, receiver_domains, types;
  for (const ReportMessage& message : data.messages) {
    if (!message.sender.empty()) ++senders[message.sender];
    if (!message.receiver.empty()) ++receivers[message.receiver];
    if (const std::string domain = DomainOf(message.sender); !domain.empty()) ++sender_domains[domain];
    if (const std::string domain = DomainOf(message.receiver); !domain.empty()) ++receiver_domains[domain];
    for (const std::string& type : AttachmentTypes(message.attachments)) ++types[type];
  }
  html << "<section id=\"top\"><h2>" << w("Who and what") << "</h2><div class=\"grid\">"
       << report::CountTable(w("Top senders"), w("Sender"), TopCounts(senders, 10), w)
       << report::CountTable(w("Top receivers"), w("Receiver"), TopCounts(receivers, 10), w)
       << report::CountTable(w("Top sender domains"), w("Domain"), TopCounts(sender_domains, 10), w)
       << report::CountTable(w("Top receiver domains"), w("Domain"), TopCounts(receiver_domains, 10), w)
       << report::CountTable(w("Attachments by type"), w("Type"), TopCounts(types, 20), w) << "</div></section>\n";
}

void DiagnosisSection(std::ostringstream& html, const ReportData& data, const Words& w) {
  struct ServerFigures {
    uint64_t messages = 0, slow = 0, errors = 0, other = 0;
  };
  std::map<std::string, ServerFigures> servers;
  for (const ReportMessage& message : data.messages) ++servers[message.server].messages;
  std::vector<report::TimedItem> items;
  for (const ReportDiagnosis& report : data.diagnosis) {
    ServerFigures& figures = servers[report.server];
    const bool slow = report.event.find("Slow") != std::string::npos;
    const bool error = report.event.find("Error") != std::string::npos;
    ++(slow ? figures.slow : error ? figures.errors : figures.other);
    items.push_back({static_cast<int64_t>(report.time_us / 1000000), w(slow ? "slow reply" : error ? "error" : "other")});
  }
  html << "<section id=\"diagnosis\"><h2>" << w("Diagnosis") << "</h2>"
       << report::StackedBars(items, {w("slow reply"), w("error"), w("other")}, w("reports (capture time, UTC)"), w)
       << "<table class=\"sortable\"><caption>" << w("Per server") << "</caption><thead><tr><th>" << w("Server")
       << "</th><th class=\"number\">" << w("Messages") << "</th><th class=\"number\">" << w("Slow replies")
       << "</th><th class=\"number\">" << w("Errors") << "</th><th class=\"number\">" << w("Other reports")
       << "</th></tr></thead><tbody>";
  for (const auto& [server, figures] : servers) {
    if (server.empty() && figures.slow + figures.errors + figures.other == 0) continue;
    html << "<tr><td>" << Escape(server.empty() ? w("(unknown)") : server) << "</td><td class=\"number\">"
         << figures.messages << "</td><td class=\"number\">" << figures.slow << "</td><td class=\"number\">"
         << figures.errors << "</td><td class=\"number\">" << figures.other << "</td></tr>";
  }
  html << "</tbody></table></section>\n";
}

// One bar per server, split by reply-time band: where a server's replies
// sit, whatever their number.
void ReplyTimes(std::ostringstream& html, const ReportData& data, const Words& w) {
  static const char* const kBands[] = {"under 10 ms", "10-100 ms", "0.1-1 s", "1-10 s", "10 s or more"};
  html << "<section id=\"replies\"><h2>" << w("Reply times per server") << "</h2>";
  if (data.replies.empty()) {
    html << "<p class=\"empty\">" << w("None. (Reply times are kept in emails.sqlite; runs with --no-db have none.)")
         << "</p></section>\n";
    return;
  }
  std::vector<std::string> bands;
  for (const char* band : kBands) bands.push_back(w(band));
  html << "<p class=\"note\">" << Escape(w("From the client's last data packet to the server's next one."))
       << "</p><table class=\"sortable\"><thead><tr><th>" << w("Server") << "</th><th class=\"number\">"
       << w("Replies") << "</th>";
  for (const std::string& band : bands) html << "<th class=\"number\">" << band << "</th>";
  html << "<th>" << w("Spread") << "</th></tr></thead><tbody>";
  for (const auto& [server, counts] : data.replies) {
    uint64_t total = 0;
    for (const uint64_t count : counts) total += count;
    html << "<tr><td>" << Escape(server) << "</td><td class=\"number\">" << total << "</td>";
    for (const uint64_t count : counts) html << "<td class=\"number\">" << count << "</td>";
    html << "<td>" << report::SpreadBar(counts, bands) << "</td></tr>";
  }
  html << "</tbody></table></section>\n";
}

// What went by unrecorded: counts per kind and the first notices; left out
// when every mail transfer seen was recorded.
void NoticesSection(std::ostringstream& html, const ReportData& data, const Words& w) {
  if (data.notices.empty()) return;
  std::map<std::string, uint64_t> kinds;
  for (const ReportNotice& notice : data.notices) ++kinds[notice.kind];
  html << "<section id=\"notices\"><h2>" << w("Seen but not recorded") << "</h2><p class=\"note\">"
       << w("Mail traffic the analysis saw go by without recording it, and why; notices.jsonl holds every notice.")
       << "</p><div class=\"grid\">" << report::CountTable(w("Notices by kind"), w("Kind"), TopCounts(kinds, kinds.size()), w)
       << "</div><table class=\"sortable\"><thead><tr>";
  for (const char* column : {"Time", "Protocol", "Client", "Server"}) html << "<th>" << w(column) << "</th>";
  html << "<th class=\"number\">" << w("Packet") << "</th><th>" << w("Kind") << "</th><th>" << w("What")
       << "</th></tr></thead><tbody>";
  const size_t shown = std::min(data.notices.size(), kReportNoticeRows);
  for (size_t i = 0; i < shown; ++i) {
    const ReportNotice& n = data.notices[i];
    html << "<tr><td>" << Escape(n.time) << "</td><td>" << Escape(n.protocol) << "</td><td>" << Escape(n.client)
         << "</td><td>" << Escape(n.server) << "</td><td class=\"number\">" << n.packet << "</td><td>"
         << Escape(n.kind) << "</td><td>" << Escape(n.text) << "</td></tr>";
  }
  html << "</tbody></table></section>\n";
}

void MessageTable(std::ostringstream& html, const ReportData& data, const std::string& out_dir, const Words& w) {
  const size_t total = data.messages.size();
  const size_t shown = std::min(total, kReportMessageRows);
  html << "<section id=\"messages\"><h2>" << w("Messages") << "</h2>";
  if (shown < total) {
    html << "<p class=\"note\">"
         << w("The newest %1 of %2 messages are shown; emails.jsonl and email_log.csv beside this page hold them all.",
              std::to_string(shown), std::to_string(total))
         << "</p>";
  }
  html << "<p><input id=\"filter\" type=\"search\" placeholder=\"" << w("Filter by any text") << "\" aria-label=\""
       << w("Filter messages") << "\"> <span id=\"shown\" data-template=\"" << w("%1 of %2 shown") << "\">"
       << w("%1 shown", std::to_string(shown))
       << "</span></p><table id=\"message-table\" class=\"sortable\"><thead><tr><th class=\"number\">#</th>";
  for (const char* column : {"Time", "Protocol", "From", "To", "Subject"}) html << "<th>" << w(column) << "</th>";
  html << "<th class=\"number\">" << w("Size (bytes)") << "</th><th>" << w("Attachments") << "</th><th>" << w("Copy")
       << "</th></tr></thead><tbody>";
  for (size_t i = total - shown; i < total; ++i) {
    const ReportMessage& m = data.messages[i];
    html << "<tr><td class=\"number\">" << m.number << "</td><td>" << Escape(m.time) << "</td><td>"
         << Escape(m.protocol) << "</td><td>" << Escape(m.sender) << "</td><td>" << Escape(m.receiver) << "</td><td>"
         << Escape(m.subject) << "</td><td class=\"number\">" << m.size << "</td><td>" << Escape(m.attachments)
         << "</td><td>" << report::CopyLink(m.copy_path, out_dir) << "</td></tr>";
  }
  html << "</tbody></table></section>\n";
}

std::string LocalZone() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char zone[16] = "";
  std::strftime(zone, sizeof zone, "%Z", &local);
  return zone;
}

}  // namespace

std::string RenderHtmlReport(const ReportData& data, const ReportRun& run, const std::string& out_dir) {
  std::ostringstream html;
  const Words w(run.chinese);
  html << report::PageHead(w) << "<h1>" << w("E-mail messages: ") << Escape(run.captures) << "</h1>\n";
  RunSection(html, data, run, w);
  MessagesOverTime(html, data, w);
  TopTables(html, data, w);
  DiagnosisSection(html, data, w);
  ReplyTimes(html, data, w);
  NoticesSection(html, data, w);
  html << AttachmentsSection(data, out_dir, w);
  MessageTable(html, data, out_dir, w);
  html << "<footer>" << Escape(w("Made by pelka-email. Times are local (%1) unless marked otherwise.", run.time_zone))
       << "</footer>\n"
       << report::kPageScript << "</body></html>\n";
  return html.str();
}

bool WriteHtmlReport(const std::string& out_dir, const ReportRun& run, std::string* error) {
  ReportRun with_zone = run;
  if (with_zone.time_zone.empty()) with_zone.time_zone = LocalZone();
  const std::string root = AbsoluteDirectory(out_dir);
  OutputFile file;
  if (!file.Open(root + "report.html") || !file.Write(RenderHtmlReport(ReadReportData(root), with_zone, root)) ||
      !file.Close()) {
    *error = file.error();
    return false;
  }
  return true;
}

}  // namespace pelka
