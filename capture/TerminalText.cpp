#include "capture/TerminalText.h"

#include <cstdint>
#include <cstdio>

namespace pelka {
namespace {

// Length of the UTF-8 sequence that starts with `lead`, 0 when no sequence
// starts with it.
size_t SequenceLength(uint8_t lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

bool IsContinuation(uint8_t byte) { return (byte & 0xC0) == 0x80; }

// Whether text[at, at + length) is one well-formed UTF-8 character (no
// overlong form, no surrogate, nothing above U+10FFFF).
bool IsWellFormed(std::string_view text, size_t at, size_t length) {
  if (length == 0 || at + length > text.size()) return false;
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
  for (size_t i = 1; i < length; ++i)
    if (!IsContinuation(byte(i))) return false;
  if (length == 3 && byte(0) == 0xE0 && byte(1) < 0xA0) return false;
  if (length == 3 && byte(0) == 0xED && byte(1) >= 0xA0) return false;
  if (length == 4 && byte(0) == 0xF0 && byte(1) < 0x90) return false;
  if (length == 4 && byte(0) == 0xF4 && byte(1) >= 0x90) return false;
  return true;
}

void AppendEscape(std::string& out, const char* format, unsigned value) {
  char escaped[8];
  std::snprintf(escaped, sizeof escaped, format, value);
  out += escaped;
}

// How many bytes at the end of `text` begin a character that is not complete
// yet: they may be completed by the next write.
size_t IncompleteTail(std::string_view text) {
  const size_t size = text.size();
  for (size_t back = 1; back <= 3 && back <= size; ++back) {
    const auto byte = static_cast<uint8_t>(text[size - back]);
    if (IsContinuation(byte)) continue;
    const size_t length = SequenceLength(byte);
    return length > back ? back : 0;
  }
  return 0;
}

}  // namespace

std::string EscapeForTerminal(std::string_view text, bool keep_layout) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const auto lead = static_cast<uint8_t>(text[at]);
    if (lead < 0x20 || lead == 0x7F) {
      if (keep_layout && (lead == '\n' || lead == '\t')) {
        out += static_cast<char>(lead);
      } else {
        AppendEscape(out, "\\x%02x", lead);
      }
      ++at;
      continue;
    }
    const size_t length = SequenceLength(lead);
    if (!IsWellFormed(text, at, length)) {
      AppendEscape(out, "\\x%02x", lead);
      ++at;
      continue;
    }
    // U+0080 to U+009F are C2 80 to C2 9F.
    const auto second = length == 2 ? static_cast<uint8_t>(text[at + 1]) : 0;
    if (lead == 0xC2 && second < 0xA0) {
      AppendEscape(out, "\\u%04x", second);
    } else {
      out.append(text, at, length);
    }
    at += length;
  }
  return out;
}

TerminalStreamBuffer::~TerminalStreamBuffer() {
  // A character never completed is shown as the bytes it was.
  if (!partial_.empty()) {
    const std::string escaped = EscapeForTerminal(partial_, true);
    target_->sputn(escaped.data(), static_cast<std::streamsize>(escaped.size()));
  }
  target_->pubsync();
}

TerminalStreamBuffer::int_type TerminalStreamBuffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  const char byte = traits_type::to_char_type(c);
  xsputn(&byte, 1);
  return c;
}

std::streamsize TerminalStreamBuffer::xsputn(const char* text, std::streamsize count) {
  partial_.append(text, static_cast<size_t>(count));
  const size_t ready = partial_.size() - IncompleteTail(partial_);
  const std::string escaped = EscapeForTerminal(std::string_view(partial_).substr(0, ready), true);
  partial_.erase(0, ready);
  if (target_->sputn(escaped.data(), static_cast<std::streamsize>(escaped.size())) !=
      static_cast<std::streamsize>(escaped.size()))
    return 0;
  return count;
}

int TerminalStreamBuffer::sync() { return target_->pubsync(); }

}  // namespace pelka
