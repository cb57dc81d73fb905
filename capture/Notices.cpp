#include "capture/Notices.h"

namespace pelka {
namespace {

struct KindText {
  std::string_view key;
  std::string_view text;
  bool message;
  // The summary line: "%" stands for the count.
  std::string_view one;
  std::string_view many;
};

constexpr std::array<KindText, kNoticeKindCount> kKinds = {{
    {"smtp-pipelined",
     "SMTP message sent with pipelining: its DATA or BDAT command was not at the start of a segment", true,
     "1 SMTP message sent with pipelining: add --pipelined to record it",
     "% SMTP messages sent with pipelining: add --pipelined to record them"},
    {"starttls", "session switched to TLS: nothing after this point can be read", false,
     "1 session switched to TLS: its contents cannot be read",
     "% sessions switched to TLS: their contents cannot be read"},
    {"tls-port", "connection on a mail port that is not followed (submission or TLS)", false,
     "1 connection on port 465, 587, 993, 995 or 2525: not followed (usually encrypted)",
     "% connections on ports 465, 587, 993, 995 or 2525: not followed (usually encrypted)"},
    {"no-receiver-address", "message dropped: no sender address, or no To or Cc address (Bcc only)", true,
     "1 message without a sender or a To/Cc address (Bcc only): not recorded",
     "% messages without a sender or a To/Cc address (Bcc only): not recorded"},
    {"pop3-top", "POP3 TOP retrieval: headers or part of a message, not recorded", true,
     "1 POP3 TOP retrieval: headers or part of a message, not recorded",
     "% POP3 TOP retrievals: headers or parts of messages, not recorded"},
    {"imap-fetch-form", "IMAP fetch in a form that is not followed (only UID FETCH with BODY.PEEK[] is)", true,
     "1 IMAP message fetched in a form that is not followed (only UID FETCH with BODY.PEEK[] is)",
     "% IMAP messages fetched in a form that is not followed (only UID FETCH with BODY.PEEK[] is)"},
    {"login-not-taken", "login in a form whose user name is not taken (only USER, LOGIN and AUTH LOGIN are)", false,
     "1 session logged in a way whose user name is not taken: its records have no account",
     "% sessions logged in a way whose user name is not taken: their records have no account"},
    {"cut-at-limit", "message longer than --max-flow-length: cut there", true,
     "1 message longer than --max-flow-length: cut; raise the limit to record it whole",
     "% messages longer than --max-flow-length: cut; raise the limit to record them whole"},
    {"unfinished", "message still open when its connection ended: not recorded", true,
     "1 message still open when its connection ended (capture end, reset, idle, or BDAT): not recorded",
     "% messages still open when their connections ended (capture end, reset, idle, or BDAT): not recorded"},
    {"midstream-start", "connection began before the capture: its login and first commands are missing", false,
     "1 connection began before the capture: what came before is missing",
     "% connections began before the capture: what came before is missing"},
    {"tcp-gap", "data of this connection was not captured: what is recorded may be damaged", false,
     "1 connection lost data in the capture: its records may be damaged",
     "% connections lost data in the capture: their records may be damaged"},
}};

const KindText& Of(NoticeKind kind) { return kKinds[static_cast<size_t>(kind)]; }

}  // namespace

std::string_view NoticeKey(NoticeKind kind) { return Of(kind).key; }
std::string_view NoticeText(NoticeKind kind) { return Of(kind).text; }
bool CountsMessage(NoticeKind kind) { return Of(kind).message; }

std::string NoticeSummaryLine(NoticeKind kind, uint64_t count, bool pipelined) {
  std::string line(count == 1 ? Of(kind).one : Of(kind).many);
  if (const size_t at = line.find('%'); at != std::string::npos) line.replace(at, 1, std::to_string(count));
  // With --pipelined on, those left are the ones the split could not reach.
  if (kind == NoticeKind::kSmtpPipelined && pipelined) line = line.substr(0, line.find(':')) + ": not recorded";
  return line;
}

}  // namespace pelka
