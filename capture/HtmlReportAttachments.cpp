#include "capture/HtmlReportAttachments.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

#include "capture/HtmlReportParts.h"

namespace pelka {
namespace {

using report::Escape;

// One list of attachments under a caption, at most kReportAttachmentRows.
void AttachmentList(std::ostringstream& html, const std::string& caption, const std::vector<const ReportAttachment*>& rows,
                    const std::string& out_dir, const report::Words& w) {
  html << "<table class=\"sortable attachments\"><caption>" << Escape(caption)
       << "</caption><thead><tr><th class=\"number\">#</th>";
  for (const char* column : {"File name", "Declared type", "Detected type"}) html << "<th>" << w(column) << "</th>";
  html << "<th class=\"number\">" << w("Size (bytes)") << "</th><th>SHA-256</th></tr></thead><tbody>";
  const size_t shown = std::min(rows.size(), kReportAttachmentRows);
  for (size_t i = 0; i < shown; ++i) {
    const ReportAttachment& a = *rows[i];
    const std::string link = a.stored_path.empty() ? Escape(a.sha256) : report::CopyLink(out_dir + a.stored_path, out_dir);
    html << "<tr><td class=\"number\">" << a.number << "</td><td>" << Escape(a.file_name) << "</td><td>"
         << Escape(a.declared_type) << "</td><td>" << Escape(a.detected_type) << "</td><td class=\"number\">" << a.size
         << "</td><td>" << link << "</td></tr>";
  }
  if (rows.empty()) html << "<tr><td colspan=\"6\">" << w("None.") << "</td></tr>";
  html << "</tbody></table>";
}

template <typename Keep>
std::vector<const ReportAttachment*> Chosen(const std::vector<ReportAttachment>& all, Keep keep) {
  std::vector<const ReportAttachment*> chosen;
  for (const ReportAttachment& a : all)
    if (keep(a)) chosen.push_back(&a);
  return chosen;
}

}  // namespace

std::string AttachmentsSection(const ReportData& data, const std::string& out_dir, const report::Words& w) {
  if (!data.attachments_taken) return {};
  std::map<std::string, uint64_t> types;
  for (const ReportAttachment& a : data.attachments) ++types[a.detected_type];
  std::vector<const ReportAttachment*> biggest = Chosen(data.attachments, [](const ReportAttachment&) { return true; });
  std::stable_sort(biggest.begin(), biggest.end(), [](const auto* a, const auto* b) { return a->size > b->size; });
  if (biggest.size() > 10) biggest.resize(10);

  std::ostringstream html;
  html << "<section id=\"attachments\"><h2>" << w("Attachments") << "</h2><p class=\"note\">"
       << Escape(w("%1 attachments; attachments.jsonl holds them all, and attachments/ each file once, named by its "
                   "SHA-256.",
                   std::to_string(data.attachments.size())))
       << "</p><div class=\"grid\">"
       << report::CountTable(w("Attachments by detected type"), w("Type"), TopCounts(types, 20), w) << "</div>";
  AttachmentList(html, w("Largest"), biggest, out_dir, w);
  AttachmentList(html, w("Type mismatches"),
                 Chosen(data.attachments, [](const ReportAttachment& a) { return a.type_mismatch; }), out_dir, w);
  AttachmentList(html, w("On the hash list"),
                 Chosen(data.attachments, [](const ReportAttachment& a) { return a.ioc_match; }), out_dir, w);
  html << "</section>\n";
  return html.str();
}

}  // namespace pelka
