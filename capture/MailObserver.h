// Follows the command and reply lines of one mail connection beside the
// module, to tell what the module did not record and why (capture/Notices.h).
//
// It sees the same in-order bytes the module sees, after the module has had
// them, together with the number of records the module has posted on the
// connection so far. It keeps two things per connection:
// - the conversation as the client and server hold it: which commands were
//   sent, which replies came, where a message body, a BDAT chunk, a POP3
//   multi-line reply or an IMAP literal begins and ends;
// - the module's own view, from the rules it follows: a DATA or BDAT command
//   is only seen at the start of a client segment, a POP3 RETR at the start
//   of one, an IMAP fetch only as UID FETCH with BODY.PEEK; a body ends at
//   the end marker or at the flow limit.
// Where the two part, a notice goes to the listener. Whenever the module
// completes a message and the records do not grow, the message failed the
// address test.
//
// Cost: lines are found with memchr; a line keeps at most kKeptBytes of its
// start (and a body line none of it), message bodies are skipped, never
// copied. Where the module collects the same body, only the last
// kBodyTailBytes of each body segment are read for its end: a body that ends
// further before a segment's end (a long pipelined command group after it)
// is taken to go on. No allocation after construction: the whole state is a few hundred
// bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "capture/Notices.h"

namespace pelka {

class MailObserver {
 public:
  static constexpr size_t kKeptBytes = 96;
  static constexpr size_t kTailBytes = 24;
  // Of a body segment that the module collects too, the bytes read.
  static constexpr size_t kBodyTailBytes = 512;
  static constexpr size_t kTagBytes = 15;

  // `protocol` is the flow's application protocol (630, 626, 614);
  // `max_flow_length` the module's limit in bytes.
  MailObserver(uint16_t protocol, uint64_t max_flow_length, NoticeListener& listener);

  // SMTP with --pipelined: where to cut a client segment so that the module
  // sees a DATA or BDAT command at the start of a segment: before the first
  // such line (`at`), and for DATA also after it (`after`), so that a body
  // sent with it reaches the module too. Cuts at 0 or at the end are none.
  struct Split {
    uint32_t at = 0;
    uint32_t after = 0;
  };
  Split PipelinedSplit(const uint8_t* data, uint32_t length) const;

  // One segment the module has handled; direction 1 = from the client.
  // `records`: records posted on this connection so far.
  void OnSegment(uint64_t packet, uint32_t direction, const uint8_t* data, uint32_t length, uint64_t records);

  // Bytes were lost before the next segment: a chunk or literal being
  // passed over, and the line being read, are dropped; reading starts afresh.
  void OnGap();

  // The connection ended after `packet`; a message still open is noticed.
  void OnEnd(uint64_t packet, uint64_t records);

 private:
  // The line being read in one direction.
  struct Line {
    char kept[kKeptBytes];
    char tail[kTailBytes];  // the line's last bytes, line end included
    uint32_t kept_length = 0;
    uint32_t tail_length = 0;
    char last = 0;         // the last byte read so far
    char before_end = 0;   // the byte before the line feed
    uint64_t length = 0;       // the whole line so far, line end included
    bool at_segment_start = false;
    bool ends_segment = false;  // nothing of the segment follows the line
    bool previous_crlf = true;  // the line before ended with CR LF
    uint64_t skip = 0;          // bytes to pass over unread (a chunk or literal)
  };
  // POP3 commands by the reply they wait for.
  static constexpr uint8_t kPop3Single = 0, kPop3Multi = 1, kPop3Retr = 2, kPop3Top = 3;
  enum class SmtpPhase : uint8_t { kCommands, kDataSent, kBody };

  void Notice(NoticeKind kind);
  void CountRecords(uint64_t records);
  void Scan(int side, const uint8_t* data, uint32_t length);
  static void KeepTail(Line& line, const uint8_t* at, size_t taken);
  static size_t PassBody(Line& line, const uint8_t* at, size_t left);
  static void PassBytes(Line& line, const uint8_t* at, size_t count);
  bool InBodyLine(int side) const;
  bool ModuleCollectsBody(int side) const;
  void ModuleCompleted();
  void NoticeLogin();
  void SmtpBdat(const Line& line, std::string_view text);
  void OnLine(int side, const Line& line);
  void ModuleSegment(uint32_t direction, const uint8_t* data, uint32_t length);

  void SmtpClientLine(const Line& line);
  void SmtpServerLine(const Line& line);
  void SmtpModuleSegment(uint32_t direction, const uint8_t* data, uint32_t length);
  void Pop3ClientLine(const Line& line);
  void Pop3ServerLine(const Line& line);
  void Pop3ModuleSegment(uint32_t direction, const uint8_t* data, uint32_t length);
  void ImapClientLine(const Line& line);
  void ImapServerLine(const Line& line);
  void ImapModuleSegment(uint32_t direction, const uint8_t* data, uint32_t length);
  void ImapLiteral(std::string_view text);
  // True when a message is half way, on either view.
  bool MessageOpen() const;

  NoticeListener& listener_;
  uint64_t max_flow_length_;
  uint64_t packet_ = 0;
  uint64_t expected_records_ = 0;  // what the module should have posted by now
  Line lines_[2];
  uint16_t protocol_;
  bool encrypted_ = false;
  bool tls_accepted_ = false;  // a STARTTLS was accepted: the next client bytes tell
  bool login_noticed_ = false;
  bool server_seen_ = false;

  // The module's view.
  bool module_in_body_ = false;
  bool module_reply_seen_ = false;    // POP3: the retrieval's status line came
  bool module_await_user_ = false;    // SMTP: AUTH LOGIN prompts
  bool module_await_pass_ = false;
  bool module_segment_opened_ = false;  // this segment opened the body: not collected
  bool cut_message_open_ = false;  // the message being sent was cut (and noticed)
  bool module_holds_message_ = false;  // SMTP: a BDAT message ended, the module waits on
  uint64_t module_collected_ = 0;
  uint32_t module_fetches_ = 0;       // IMAP: literals the module will record at completion
  char module_tag_[kTagBytes + 1] = {};

  // The conversation's view.
  SmtpPhase smtp_phase_ = SmtpPhase::kCommands;
  bool message_pipelined_ = false;
  bool bdat_open_ = false;
  bool starttls_sent_ = false;
  bool auth_login_sent_ = false;
  uint32_t replies_due_ = 0;       // SMTP commands not answered yet
  uint32_t replies_before_data_ = 0;
  // POP3: commands waiting for their status line, oldest first (2 bits each).
  uint32_t pop3_queue_ = 0;
  uint8_t pop3_queued_ = 0;
  uint8_t pop3_multiline_ = 0;  // the kind whose multi-line reply is being read, 0 for none
  bool pop3_stls_ = false;
  bool pop3_body_started_ = false;
  bool imap_literal_message_ = false;  // the literal being passed over is a message
  char starttls_tag_[kTagBytes + 1] = {};  // IMAP
  bool imap_literal_open_ = false;
};

}  // namespace pelka
