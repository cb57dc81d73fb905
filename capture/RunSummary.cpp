#include "capture/RunSummary.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <ostream>

#include "capture/Progress.h"
#include "capture/TerminalText.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

std::string Field(const nlohmann::json& record, const char* key) {
  const auto found = record.find(key);
  if (found == record.end() || !found->is_string()) return {};
  return found->get<std::string>();
}

// The protocol of a record line, read without parsing the line: protocol
// names are plain ASCII, never escaped.
std::string ProtocolOf(const std::string& line) {
  static const std::string kKey = "\"protocol\"";
  size_t at = line.find(kKey);
  if (at == std::string::npos) return {};
  at = line.find_first_not_of(" :", at + kKey.size());
  if (at == std::string::npos || line[at] != '"') return {};
  const size_t end = line.find('"', at + 1);
  return end == std::string::npos ? std::string() : line.substr(at + 1, end - at - 1);
}

int CharWidth(wchar_t c) {
  if (c < 0x20 || (c >= 0x7F && c < 0xA0)) return 0;
  const auto u = static_cast<uint32_t>(c);
  const bool wide = (u >= 0x1100 && u <= 0x115F) || (u >= 0x2E80 && u <= 0xA4CF) || (u >= 0xAC00 && u <= 0xD7A3) ||
                    (u >= 0xF900 && u <= 0xFAFF) || (u >= 0xFE30 && u <= 0xFE4F) || (u >= 0xFF00 && u <= 0xFF60) ||
                    (u >= 0xFFE0 && u <= 0xFFE6) || (u >= 0x20000 && u <= 0x3FFFD);
  return wide ? 2 : 1;
}

// Line breaks and tabs inside a field would break the table's rows; other
// control characters are shown escaped, taking the columns their escape takes.
std::wstring OneLine(std::string text) {
  for (char& c : text) {
    if (c == '\r' || c == '\n' || c == '\t') c = ' ';
  }
  return Utf8ToWideText(EscapeForTerminal(text));
}

std::string Count(uint64_t value, const char* one, const char* many) {
  return std::to_string(value) + " " + (value == 1 ? one : many);
}

void PrintMessages(std::ostream& out, const RunFacts& facts, const MessageDigest& messages) {
  out << "Messages: " << facts.messages_found;
  const std::map<std::string, uint64_t>& by_protocol = facts.found_by_protocol;
  if (!by_protocol.empty()) {
    // The module's protocol names first, in port order, then anything else.
    static const char* const kKnown[] = {"SMTP", "POP3", "IMAPv4"};
    std::vector<std::pair<std::string, uint64_t>> ordered;
    for (const char* name : kKnown) {
      if (const auto found = by_protocol.find(name); found != by_protocol.end()) ordered.emplace_back(*found);
    }
    for (const auto& entry : by_protocol) {
      if (std::find(std::begin(kKnown), std::end(kKnown), entry.first) == std::end(kKnown)) ordered.push_back(entry);
    }
    out << " (";
    const char* separator = "";
    for (const auto& [protocol, count] : ordered) {
      out << separator << (protocol.empty() ? "?" : protocol) << " " << count;
      separator = ", ";
    }
    out << ")";
  }
  out << "\n";
  if (!facts.lines_lost.empty()) {
    out << "Not written:";
    const char* separator = " ";
    for (const auto& [file, lines] : facts.lines_lost) {
      out << separator << file << " " << Count(lines, "line", "lines");
      separator = ", ";
    }
    out << " (the output could not take them)\n";
  }
  if (messages.first.empty()) return;

  struct Column {
    const char* title;
    size_t width;
    std::string MessageRow::*field;
  };
  static const Column kColumns[] = {
      {"Time", 19, &MessageRow::time},      {"Protocol", 8, &MessageRow::protocol},
      {"From", 26, &MessageRow::from},      {"To", 26, &MessageRow::to},
      {"Subject", 30, &MessageRow::subject}, {"Attachments", 24, &MessageRow::attachments},
  };
  const auto print_row = [&out](const auto& cell) {
    std::string line = " ";
    for (const Column& column : kColumns) line += " " + FitToWidth(cell(column), column.width);
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << "\n";
  };
  out << "\n";
  print_row([](const Column& column) { return std::string(column.title); });
  for (const MessageRow& row : messages.first) print_row([&row](const Column& column) { return row.*column.field; });
  if (messages.total > messages.first.size()) {
    out << "  ... and " << messages.total - messages.first.size() << " more in " << facts.out_dir
        << (facts.folders ? "/*/emails.jsonl\n" : "/emails.jsonl\n");
  }
}

void PrintDiagnosis(std::ostream& out, const RunFacts& facts) {
  uint64_t total = 0;
  for (const auto& entry : facts.reports_by_event) total += entry.second;
  out << "\nDiagnosis: " << Count(total, "report", "reports") << "\n";
  for (const auto& [event, count] : facts.reports_by_event) out << "  " << FitToWidth(event, 32) << " " << count << "\n";
}

// What went by unrecorded, one line per kind, with what to do about it;
// nothing when every mail transfer seen was recorded.
void PrintNotices(std::ostream& out, const RunFacts& facts) {
  uint64_t total = 0;
  for (const uint64_t count : facts.notices) total += count;
  if (total == 0) return;
  out << "\nSeen but not recorded: " << Count(total, "notice", "notices") << " (notices.jsonl)\n";
  for (size_t kind = 0; kind < kNoticeKindCount; ++kind) {
    if (facts.notices[kind] == 0) continue;
    out << "  " << NoticeSummaryLine(static_cast<NoticeKind>(kind), facts.notices[kind], facts.pipelined) << "\n";
  }
}

// --attachments: what was taken out, and what was left out by cause.
void PrintAttachments(std::ostream& out, const RunFacts& facts) {
  if (!facts.attachments) return;
  const AttachmentTally& tally = facts.attachment_tally;
  out << "\nAttachments: " << tally.found << " found, " << tally.stored << " stored, "
      << Count(tally.duplicates, "duplicate", "duplicates") << ", "
      << Count(tally.mismatches, "type mismatch", "type mismatches") << ", "
      << Count(tally.ioc_matches, "ioc match", "ioc matches") << " (attachments.jsonl)\n";
  out << "  Parts left out: " << tally.too_deep << " too deep, " << tally.too_many << " beyond the part limit, "
      << tally.too_big << " too big, " << tally.malformed << " malformed\n";
}

}  // namespace

MessageDigest ReadMessageDigest(const std::string& emails_path, size_t first_rows) {
  MessageDigest digest;
  std::ifstream in(emails_path);
  std::string line;
  while (std::getline(in, line)) {
    // Past the rows shown, only the protocol is needed: a run with millions
    // of messages should not parse them all again.
    if (digest.first.size() >= first_rows) {
      if (line.empty() || line.front() != '{') continue;
      ++digest.total;
      ++digest.by_protocol[ProtocolOf(line)];
      continue;
    }
    const nlohmann::json record = nlohmann::json::parse(line, nullptr, false);
    if (!record.is_object()) continue;
    ++digest.total;
    ++digest.by_protocol[Field(record, "protocol")];
    digest.first.push_back({Field(record, "timestamp"), Field(record, "protocol"), Field(record, "email_sender_email"),
                            Field(record, "email_receive_email"), Field(record, "email_subject"),
                            Field(record, "email_attachment")});
  }
  return digest;
}

size_t DisplayWidth(const std::string& utf8) {
  size_t width = 0;
  for (wchar_t c : Utf8ToWideText(utf8)) width += static_cast<size_t>(CharWidth(c));
  return width;
}

std::string FitToWidth(const std::string& utf8, size_t width) {
  const std::wstring text = OneLine(utf8);
  size_t used = 0;
  for (wchar_t c : text) used += static_cast<size_t>(CharWidth(c));
  std::wstring fitted;
  if (used <= width) {
    fitted = text;
  } else {
    used = 0;
    for (wchar_t c : text) {
      const auto w = static_cast<size_t>(CharWidth(c));
      if (used + w + 1 > width) break;  // room for the ellipsis
      fitted += c;
      used += w;
    }
    fitted += L'\u2026';
    ++used;
  }
  return WideToUtf8(fitted) + std::string(width > used ? width - used : 0, ' ');
}

void PrintSummary(std::ostream& out, const RunFacts& facts, const MessageDigest& messages) {
  if (facts.interrupted) out << "Stopped before the end of the input; the outputs hold what was found until then.\n\n";
  PrintMessages(out, facts, messages);
  PrintDiagnosis(out, facts);
  PrintNotices(out, facts);
  PrintAttachments(out, facts);
  out << "\nConnections: SMTP " << facts.connections_smtp << ", POP3 " << facts.connections_pop3 << ", IMAP4 "
      << facts.connections_imap << "\n";
  if (facts.hold_limit_gaps) {
    out << "Hold limit: " << facts.hold_limit_mib << " MiB of out-of-order data reached "
        << Count(facts.hold_limit_gaps, "time", "times") << "; gaps skipped there\n";
  }

  char elapsed[32];
  std::snprintf(elapsed, sizeof elapsed, "%.2f s", facts.elapsed_seconds);
  out << "Read: " << Count(facts.packets, "packet", "packets") << ", " << FormatBytes(facts.bytes) << " in "
      << elapsed;
  if (facts.elapsed_seconds > 0) {
    const auto rate = static_cast<uint64_t>(static_cast<double>(facts.bytes) / facts.elapsed_seconds);
    out << " (" << FormatBytes(rate) << "/s)";
  }
  if (facts.kernel_drops >= 0) out << "; dropped by the kernel: " << facts.kernel_drops;
  out << "\n";
  out << "Output: " << facts.out_dir << "/ (";
  if (facts.folders) out << facts.folders << (facts.folders == 1 ? " folder" : " folders") << " of ";
  out << "emails.jsonl, email_log.csv, email_log.txt, entries.jsonl, "
      << "diagnosis.jsonl, notices.jsonl, statistics.json, report.html" << (facts.database ? ", emails.sqlite" : "")
      << (facts.copies ? ", email_copy/" : "") << (facts.attachments ? ", attachments.jsonl, attachments/" : "")
      << ")\n";
  if (facts.copy_failures)
    out << "Copies not written: " << facts.copy_failures << " (their records name no file; see the message above)\n";
}

}  // namespace pelka
