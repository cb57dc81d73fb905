// The observer's frame: reading lines, the module's flow limit, the record
// count, and the SMTP session. POP3 and IMAP4 are in MailObserverPop3Imap.cpp.
#include "capture/MailObserver.h"

#include <algorithm>
#include <cstring>

#include "capture/MailObserverText.h"
#include "host/Types.h"

namespace pelka {

using observer_text::IsCrlfDotLine;
using observer_text::IsDotLine;
using observer_text::StartsWithWord;

MailObserver::MailObserver(uint16_t protocol, uint64_t max_flow_length, NoticeListener& listener)
    : listener_(listener), max_flow_length_(max_flow_length), protocol_(protocol) {}

void MailObserver::Notice(NoticeKind kind) { listener_.OnNotice(kind, packet_); }

void MailObserver::OnSegment(uint64_t packet, uint32_t direction, const uint8_t* data, uint32_t length,
                             uint64_t records) {
  packet_ = packet;
  const int side = direction == kFromClient ? 0 : 1;
  if (length > 0 && !encrypted_) {
    if (side == 1) server_seen_ = true;
    // After an accepted STARTTLS the client's next bytes say whether the
    // session really went on in TLS (a handshake record) or stayed clear.
    if (tls_accepted_ && side == 0) {
      tls_accepted_ = false;
      encrypted_ = data[0] == 0x16;
      if (encrypted_) Notice(NoticeKind::kStarttls);
    }
    if (!encrypted_) {
      ModuleSegment(direction, data, length);
      Scan(side, data, length);
      module_segment_opened_ = false;
    }
  }
  CountRecords(records);
}

// A message the module completed without a record failed its address test.
void MailObserver::CountRecords(uint64_t records) {
  for (uint64_t missing = expected_records_ > records ? expected_records_ - records : 0; missing > 0; --missing)
    Notice(NoticeKind::kNoReceiverAddress);
  expected_records_ = records;
}

void MailObserver::OnEnd(uint64_t packet, uint64_t records) {
  packet_ = packet;
  CountRecords(records);
  if (!encrypted_ && MessageOpen()) Notice(NoticeKind::kUnfinished);
}

void MailObserver::OnGap() {
  for (Line& line : lines_) {
    line.skip = 0;
    line.length = 0;
    line.kept_length = 0;
    line.tail_length = 0;
  }
}

bool MailObserver::MessageOpen() const {
  if (cut_message_open_) return false;
  if (protocol_ == kProtocolSmtp) return smtp_phase_ == SmtpPhase::kBody || bdat_open_ || module_holds_message_;
  if (protocol_ == kProtocolPop3) return pop3_multiline_ == kPop3Retr && pop3_body_started_;
  return (lines_[1].skip > 0 && imap_literal_message_) || module_fetches_ > 0;
}

// Lines are found with memchr; a body line keeps only what tells the end
// marker, other lines their first kKeptBytes and their last kTailBytes.
void MailObserver::Scan(int side, const uint8_t* data, uint32_t length) {
  Line& line = lines_[side];
  const uint8_t* at = data;
  size_t left = length;
  while (left > 0) {
    if (line.skip > 0) {
      const size_t passed = static_cast<size_t>(std::min<uint64_t>(line.skip, left));
      line.skip -= passed;
      at += passed;
      left -= passed;
      continue;
    }
    // Inside a body only a line that starts with a dot can end it: the
    // bytes before the next such line are passed over with one memchr.
    const bool body = InBodyLine(side);
    if (body && !(line.kept_length > 0 && line.kept[0] == '.')) {
      if (side == 1) pop3_body_started_ = true;
      // Where the module collects the same body, the end comes at a
      // segment's end, or a few command lines before it (pipelining): only
      // the segment's last bytes are read.
      if (ModuleCollectsBody(side) && left > kBodyTailBytes) {
        PassBytes(line, at, left - kBodyTailBytes);
        at += left - kBodyTailBytes;
        left = kBodyTailBytes;
      }
      const size_t passed = PassBody(line, at, left);
      at += passed;
      left -= passed;
      if (left == 0) break;
    }
    if (line.length == 0) line.at_segment_start = at == data;
    const auto* end = static_cast<const uint8_t*>(std::memchr(at, '\n', left));
    const size_t taken = end ? static_cast<size_t>(end - at) + 1 : left;
    const size_t limit = body ? 3 : kKeptBytes;
    const size_t kept = std::min(taken, limit - std::min<size_t>(line.kept_length, limit));
    std::memcpy(line.kept + line.kept_length, at, kept);
    line.kept_length += static_cast<uint32_t>(kept);
    if (!body) KeepTail(line, at, taken);
    if (taken >= 2) line.before_end = static_cast<char>(at[taken - 2]);
    else if (taken == 1 && line.length > 0) line.before_end = line.last;
    line.last = static_cast<char>(at[taken - 1]);
    line.length += taken;
    at += taken;
    left -= taken;
    if (!end) break;
    line.ends_segment = left == 0;
    OnLine(side, line);
    line.previous_crlf = line.before_end == '\r';
    line.kept_length = 0;
    line.tail_length = 0;
    line.length = 0;
  }
}

size_t MailObserver::PassBody(Line& line, const uint8_t* at, size_t left) {
  for (size_t from = 0;;) {
    const auto* dot = static_cast<const uint8_t*>(std::memchr(at + from, '.', left - from));
    if (!dot) break;
    const auto index = static_cast<size_t>(dot - at);
    if (index == 0 ? line.length == 0 : dot[-1] == '\n') {
      PassBytes(line, at, index);
      return index;
    }
    from = index + 1;
  }
  PassBytes(line, at, left);
  return left;
}

// Keeps of passed bytes what a line that starts after them needs: whether
// the line before it ended with CR LF. A line left open did not start with
// a dot, so its length only has to be more than zero.
void MailObserver::PassBytes(Line& line, const uint8_t* at, size_t count) {
  if (count == 0) return;
  const auto last = static_cast<char>(at[count - 1]);
  if (last == '\n') {
    line.previous_crlf = (count >= 2 ? static_cast<char>(at[count - 2]) : line.last) == '\r';
    line.length = 0;
  } else {
    line.length += count;
  }
  line.kept_length = 0;
  line.tail_length = 0;
  line.last = last;
}

void MailObserver::KeepTail(Line& line, const uint8_t* at, size_t taken) {
  if (taken >= kTailBytes) {
    std::memcpy(line.tail, at + taken - kTailBytes, kTailBytes);
    line.tail_length = kTailBytes;
    return;
  }
  const size_t keep = std::min<size_t>(line.tail_length, kTailBytes - taken);
  std::memmove(line.tail, line.tail + line.tail_length - keep, keep);
  std::memcpy(line.tail + keep, at, taken);
  line.tail_length = static_cast<uint32_t>(keep + taken);
}

bool MailObserver::InBodyLine(int side) const {
  if (protocol_ == kProtocolSmtp) return side == 0 && smtp_phase_ == SmtpPhase::kBody;
  if (protocol_ == kProtocolPop3) return side == 1 && pop3_multiline_ != 0;
  return false;
}

bool MailObserver::ModuleCollectsBody(int side) const {
  if (!module_in_body_) return false;
  if (protocol_ == kProtocolSmtp) return side == 0 && smtp_phase_ == SmtpPhase::kBody && !message_pipelined_;
  return protocol_ == kProtocolPop3 && side == 1 && module_reply_seen_ && pop3_multiline_ == kPop3Retr;
}

void MailObserver::OnLine(int side, const Line& line) {
  if (protocol_ == kProtocolSmtp) return side == 0 ? SmtpClientLine(line) : SmtpServerLine(line);
  if (protocol_ == kProtocolPop3) return side == 0 ? Pop3ClientLine(line) : Pop3ServerLine(line);
  return side == 0 ? ImapClientLine(line) : ImapServerLine(line);
}

void MailObserver::ModuleSegment(uint32_t direction, const uint8_t* data, uint32_t length) {
  // The module checks its limit first, and then neither parses nor keeps
  // the segment: it completes the message from what it has.
  if (module_collected_ > max_flow_length_) {
    Notice(NoticeKind::kCutAtLimit);
    cut_message_open_ = true;  // noticed already: its end does not count
    module_in_body_ = false;
    module_reply_seen_ = false;
    module_collected_ = 0;
    module_fetches_ = 0;
    module_holds_message_ = false;
    return;
  }
  if (protocol_ == kProtocolSmtp) return SmtpModuleSegment(direction, data, length);
  if (protocol_ == kProtocolPop3) return Pop3ModuleSegment(direction, data, length);
  return ImapModuleSegment(direction, data, length);
}

void MailObserver::ModuleCompleted() {
  module_holds_message_ = false;
  module_in_body_ = false;
  module_reply_seen_ = false;
  module_collected_ = 0;
  ++expected_records_;
}

void MailObserver::NoticeLogin() {
  if (login_noticed_) return;
  login_noticed_ = true;
  Notice(NoticeKind::kLoginNotTaken);
}

// --- SMTP ---------------------------------------------------------------------------

namespace {

// The AUTH LOGIN prompts the module takes, exactly.
constexpr const char* kLoginPrompts[] = {"334 dXNlcm5hbWU6", "334 VXNlcm5hbWU6", "334 UGFzc3dvcmQ6",
                                         "334 cGFzc3dvcmQ6"};

bool ContainsCrlf(const uint8_t* data, size_t length) { return memmem(data, length, "\r\n", 2) != nullptr; }

bool IsDataOrBdat(const char* text, size_t length) {
  return StartsWithWord({text, length}, "DATA") || StartsWithWord({text, length}, "BDAT");
}

}  // namespace

MailObserver::Split MailObserver::PipelinedSplit(const uint8_t* data, uint32_t length) const {
  if (protocol_ != kProtocolSmtp || encrypted_ || module_in_body_ || module_await_user_ || module_await_pass_)
    return {};
  if (smtp_phase_ != SmtpPhase::kCommands || lines_[0].skip > 0 || lines_[0].length > 0) return {};
  const auto* text = reinterpret_cast<const char*>(data);
  for (uint32_t at = 0; at < length;) {
    const auto* end = static_cast<const char*>(std::memchr(text + at, '\n', length - at));
    if (!end) return {};
    const auto next = static_cast<uint32_t>(end - text) + 1;
    const std::string_view line(text + at, next - at);
    // A BDAT's chunk follows its line at once: the command is cut off in
    // front only, and a BDAT that starts the segment is as the module wants.
    if (StartsWithWord(line, "BDAT")) return {at, at};
    // The body sent with its DATA goes on in a segment of its own, where the
    // module collects it.
    if (StartsWithWord(line, "DATA")) return {at, next};
    at = next;
  }
  return {};
}

void MailObserver::SmtpModuleSegment(uint32_t direction, const uint8_t* data, uint32_t length) {
  if (direction != kFromClient) {
    // The prompts are searched anywhere in the segment; each starts "334 ".
    const std::string_view text(reinterpret_cast<const char*>(data), length);
    bool user = false, pass = false;
    for (size_t at = text.find("334 "); at != std::string_view::npos; at = text.find("334 ", at + 1)) {
      const std::string_view prompt = text.substr(at, 16);
      user = user || prompt == kLoginPrompts[0] || prompt == kLoginPrompts[1];
      pass = pass || prompt == kLoginPrompts[2] || prompt == kLoginPrompts[3];
    }
    if (user) module_await_user_ = true;
    else if (pass) module_await_pass_ = true;
    return;
  }
  if (module_in_body_) {
    module_collected_ += length;
    return;
  }
  if (module_await_user_ || module_await_pass_) {
    (module_await_user_ ? module_await_user_ : module_await_pass_) = false;
    return;
  }
  const auto* text = reinterpret_cast<const char*>(data);
  if (length >= 4 && IsDataOrBdat(text, length) && ContainsCrlf(data, length)) {
    module_in_body_ = true;
    module_collected_ = 0;
    module_segment_opened_ = true;
  }
}

void MailObserver::SmtpClientLine(const Line& line) {
  const bool module_completed =
      module_in_body_ && !module_segment_opened_ && line.previous_crlf && IsCrlfDotLine(line.kept, line.length);
  if (module_completed) ModuleCompleted();
  if (smtp_phase_ == SmtpPhase::kDataSent) smtp_phase_ = SmtpPhase::kBody;  // the client did not wait for 354
  if (smtp_phase_ == SmtpPhase::kBody) {
    if (!IsDotLine(line.kept, line.length)) return;
    smtp_phase_ = SmtpPhase::kCommands;
    cut_message_open_ = false;
    // Ended where the module ends one, the message was seen after all; a
    // module still collecting waits for an end marker it will not find.
    if (!module_completed && message_pipelined_) Notice(NoticeKind::kSmtpPipelined);
    else if (!module_completed && module_in_body_) module_holds_message_ = true;
    message_pipelined_ = false;
    return;
  }
  ++replies_due_;
  const std::string_view text(line.kept, line.kept_length);
  if (StartsWithWord(text, "DATA")) {
    bdat_open_ = false;
    // The module sees a DATA only at the start of a segment, and collects
    // only the segments after it.
    message_pipelined_ = !line.at_segment_start || !line.ends_segment;
    replies_before_data_ = replies_due_ - 1;
    // Without a server side (yet), the body follows at once.
    smtp_phase_ = server_seen_ ? SmtpPhase::kDataSent : SmtpPhase::kBody;
  } else if (StartsWithWord(text, "BDAT")) {
    SmtpBdat(line, text);
  } else if (StartsWithWord(text, "AUTH")) {
    const std::string_view mechanism = observer_text::Word(text, 1);
    if (!observer_text::EqualsUpper(mechanism, "LOGIN") || !observer_text::Word(text, 2).empty()) NoticeLogin();
    else auth_login_sent_ = true;
  } else if (StartsWithWord(text, "STARTTLS")) {
    starttls_sent_ = true;
  }
}

void MailObserver::SmtpBdat(const Line& line, std::string_view text) {
  lines_[0].skip = observer_text::Number(observer_text::Word(text, 1));
  if (!bdat_open_) message_pipelined_ = !line.at_segment_start;
  bdat_open_ = true;
  if (!observer_text::EqualsUpper(observer_text::Word(text, 2), "LAST")) return;
  bdat_open_ = false;
  cut_message_open_ = false;
  // The module waits for an end marker that BDAT does not send.
  module_holds_message_ = module_in_body_;
  if (message_pipelined_) Notice(NoticeKind::kSmtpPipelined);
  message_pipelined_ = false;
}

void MailObserver::SmtpServerLine(const Line& line) {
  const std::string_view text(line.kept, line.kept_length);
  if (text.size() < 4 || !observer_text::IsDigit(text[0])) return;
  if (auth_login_sent_ && text.substr(0, 3) == "334") {
    auth_login_sent_ = false;
    if (text.substr(0, 16) != kLoginPrompts[0] && text.substr(0, 16) != kLoginPrompts[1]) NoticeLogin();
  }
  if (text[3] == '-') return;  // a reply's last line ends it
  const bool ok = text[0] == '2' || text[0] == '3';
  if (!ok) bdat_open_ = false;  // a refused chunk ends its transaction
  if (starttls_sent_) tls_accepted_ = text.substr(0, 3) == "220";
  starttls_sent_ = false;
  if (smtp_phase_ == SmtpPhase::kDataSent) {
    if (replies_before_data_ > 0) {
      --replies_before_data_;
    } else {
      smtp_phase_ = ok && text.substr(0, 3) == "354" ? SmtpPhase::kBody : SmtpPhase::kCommands;
      if (smtp_phase_ == SmtpPhase::kCommands) message_pipelined_ = false;
    }
  }
  if (replies_due_ > 0) --replies_due_;
}

}  // namespace pelka
