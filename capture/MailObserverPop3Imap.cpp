// The observer's POP3 and IMAP4 sessions (the frame is in MailObserver.cpp).
#include <algorithm>
#include <cstring>

#include "capture/MailObserver.h"
#include "capture/MailObserverText.h"
#include "host/Types.h"

namespace pelka {

using observer_text::EqualsUpper;
using observer_text::FindUpper;
using observer_text::IsCrlfDotLine;
using observer_text::IsDotLine;
using observer_text::StartsWithWord;
using observer_text::Word;

// --- POP3 ---------------------------------------------------------------------------

namespace {

// The commands that end a retrieval for the module, besides USER.
constexpr std::string_view kPop3EndingWords[] = {"AUTH", "APOP", "DELE", "LIST", "NOOP", "PASS",
                                                 "QUIT", "RSET", "STAT", "TOP",  "UIDL"};

bool StartsWithUpper(std::string_view text, std::string_view upper) {
  return text.size() >= upper.size() && EqualsUpper(text.substr(0, upper.size()), upper);
}

// The module's refusal test: "-ERR" with at most one more byte before CR LF.
bool IsShortError(const uint8_t* data, uint32_t length) {
  if (length < 4) return false;
  const auto* crlf = static_cast<const uint8_t*>(memmem(data, length, "\r\n", 2));
  if (!crlf || crlf - data >= 6) return false;
  return StartsWithUpper({reinterpret_cast<const char*>(data), length}, "-ERR");
}

}  // namespace

void MailObserver::Pop3ModuleSegment(uint32_t direction, const uint8_t* data, uint32_t length) {
  const std::string_view text(reinterpret_cast<const char*>(data), length);
  if (direction == kFromClient) {
    if (length < 4) return;
    const size_t crlf = text.find("\r\n");
    if (crlf == std::string_view::npos || crlf < 4) return;
    if (StartsWithUpper(text, "RETR")) {
      module_in_body_ = true;
      return;
    }
    if (StartsWithUpper(text, "USER") ||
        std::any_of(std::begin(kPop3EndingWords), std::end(kPop3EndingWords),
                    [&](std::string_view word) { return StartsWithUpper(text, word); }))
      module_in_body_ = false;
    return;
  }
  if (!module_in_body_) return;
  if (!module_reply_seen_) {
    if (IsShortError(data, length)) return;
    module_reply_seen_ = true;
  }
  module_collected_ += length;
}

void MailObserver::Pop3ClientLine(const Line& line) {
  const std::string_view text(line.kept, line.kept_length);
  uint8_t kind = kPop3Single;
  if (StartsWithWord(text, "RETR")) {
    kind = kPop3Retr;
  } else if (StartsWithWord(text, "TOP")) {
    kind = kPop3Top;
  } else if (StartsWithWord(text, "CAPA") || ((StartsWithWord(text, "LIST") || StartsWithWord(text, "UIDL") ||
                                               StartsWithWord(text, "AUTH")) && Word(text, 1).empty())) {
    kind = kPop3Multi;
  } else if (StartsWithWord(text, "AUTH") || StartsWithWord(text, "APOP")) {
    NoticeLogin();
  } else if (StartsWithWord(text, "STLS")) {
    pop3_stls_ = true;
  }
  if (pop3_queued_ >= 16) return;
  pop3_queue_ |= static_cast<uint32_t>(kind) << (2 * pop3_queued_);
  ++pop3_queued_;
}

void MailObserver::Pop3ServerLine(const Line& line) {
  if (module_in_body_ && module_reply_seen_ && line.previous_crlf && IsCrlfDotLine(line.kept, line.length))
    ModuleCompleted();
  if (pop3_multiline_ != 0) {
    pop3_body_started_ = true;
    if (IsDotLine(line.kept, line.length)) pop3_multiline_ = 0;
    if (pop3_multiline_ == 0) cut_message_open_ = false;
    return;
  }
  const std::string_view text(line.kept, line.kept_length);
  const bool ok = StartsWithUpper(text, "+OK");
  if (!ok && !StartsWithUpper(text, "-ERR") && !StartsWithUpper(text, "+ ")) return;
  if (pop3_stls_ && ok) tls_accepted_ = true;
  pop3_stls_ = false;
  if (pop3_queued_ == 0) return;  // the greeting
  const auto kind = static_cast<uint8_t>(pop3_queue_ & 3);
  pop3_queue_ >>= 2;
  --pop3_queued_;
  if (!ok || kind == kPop3Single) return;
  if (kind == kPop3Top) Notice(NoticeKind::kPop3Top);
  pop3_multiline_ = kind;
  pop3_body_started_ = false;
}

// --- IMAP4 --------------------------------------------------------------------------

void MailObserver::ImapModuleSegment(uint32_t direction, const uint8_t*, uint32_t length) {
  if (direction != kFromClient && module_in_body_) module_collected_ += length;
}

void MailObserver::ImapClientLine(const Line& line) {
  const std::string_view text(line.kept, line.kept_length);
  uint64_t literal = 0;
  if (observer_text::LiteralAtEnd({line.tail, line.tail_length}, &literal)) lines_[0].skip = literal;
  // The module's test, over the line: LOGIN anywhere, else UID FETCH with
  // BODY.PEEK after it.
  if (FindUpper(text, "LOGIN") != std::string_view::npos) {
    module_in_body_ = false;
  } else if (const size_t fetch = FindUpper(text, "UID FETCH");
             fetch != std::string_view::npos && fetch > 0 &&
             FindUpper(text, "BODY.PEEK", fetch + 10) != std::string_view::npos) {
    module_in_body_ = true;
    const size_t tag = std::min(fetch - 1, kTagBytes);
    std::memcpy(module_tag_, text.data(), tag);
    module_tag_[tag] = 0;
  }
  const std::string_view command = Word(text, 1);
  if (EqualsUpper(command, "AUTHENTICATE")) NoticeLogin();
  if (EqualsUpper(command, "STARTTLS")) {
    const std::string_view tag = Word(text, 0).substr(0, kTagBytes);
    std::memcpy(starttls_tag_, tag.data(), tag.size());
    starttls_tag_[tag.size()] = 0;
  }
}

void MailObserver::ImapServerLine(const Line& line) {
  const std::string_view text(line.kept, line.kept_length);
  uint64_t literal = 0;
  if (observer_text::LiteralAtEnd({line.tail, line.tail_length}, &literal)) {
    ImapLiteral(text);
    lines_[1].skip = literal;
    return;
  }
  const std::string_view tag = Word(text, 0);
  if (tag.empty() || tag == "*" || tag == "+") return;
  const bool ok = EqualsUpper(Word(text, 1), "OK");
  if (module_in_body_ && ok && tag == module_tag_) {
    expected_records_ += module_fetches_;
    module_fetches_ = 0;
    module_in_body_ = false;
    module_collected_ = 0;
    cut_message_open_ = false;
  }
  if (starttls_tag_[0] != 0 && tag == starttls_tag_) {
    tls_accepted_ = ok;
    starttls_tag_[0] = 0;
  }
}

// A fetch response line ending in a literal: the module records it when it
// is collecting the response and the line puts UID first; a whole message or
// its text fetched in any other way is noticed. Header fetches are not
// messages.
void MailObserver::ImapLiteral(std::string_view text) {
  const bool text_only = FindUpper(text, "BODY[TEXT]") != std::string_view::npos ||
                         FindUpper(text, "RFC822.TEXT") != std::string_view::npos;
  const bool whole = FindUpper(text, "BODY[]") != std::string_view::npos ||
                     FindUpper(text, "RFC822 {") != std::string_view::npos;
  const bool taken = module_in_body_ && FindUpper(text, "FETCH (UID") != std::string_view::npos;
  imap_literal_message_ = whole || text_only || taken;
  if (taken && !text_only) {
    ++module_fetches_;
  } else if (whole || text_only) {
    Notice(NoticeKind::kImapFetchForm);
  }
}

}  // namespace pelka
