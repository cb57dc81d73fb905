// Coverage notices: what went by in a mail connection that the module did not
// record, and why, so that a run that finds fewer messages than were sent
// says where the others went.
//
// Each notice has a fixed kind (its key never changes: scripts and the
// database match on it), the packet where the loss showed, and a short
// English text. The kinds that stand for one message each are marked by
// CountsMessage(): their count plus the records give the messages that
// crossed the wire.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pelka {

enum class NoticeKind : uint8_t {
  kSmtpPipelined,      // DATA or BDAT not at the start of a client segment
  kStarttls,           // the session switched to TLS
  kTlsPort,            // a connection on a mail port the module does not follow
  kNoReceiverAddress,  // a message the address test dropped
  kPop3Top,            // a POP3 TOP retrieval
  kImapFetchForm,      // an IMAP fetch in a form the module does not follow
  kLoginNotTaken,      // a login the module cannot read
  kCutAtLimit,         // a message longer than --max-flow-length
  kUnfinished,         // a message still open when its connection ended
  kMidstreamStart,     // the connection began before the capture
  kTcpGap,             // bytes of the connection were never captured
};
inline constexpr size_t kNoticeKindCount = 11;

// "smtp-pipelined", "starttls", ... as notices.jsonl, statistics.json and the
// database name them.
std::string_view NoticeKey(NoticeKind kind);
// The text of one notice.
std::string_view NoticeText(NoticeKind kind);
// True for the kinds that stand for one message each.
bool CountsMessage(NoticeKind kind);
// One line of the run summary for `count` notices of `kind`: what was missed
// and what to do about it. `pipelined`: --pipelined was given.
std::string NoticeSummaryLine(NoticeKind kind, uint64_t count, bool pipelined);

using NoticeCounts = std::array<uint64_t, kNoticeKindCount>;

// Where an observer's notices go; called on the thread of the connection.
class NoticeListener {
 public:
  virtual ~NoticeListener() = default;
  virtual void OnNotice(NoticeKind kind, uint64_t packet) = 0;
};

}  // namespace pelka
