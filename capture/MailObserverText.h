// Small text tests for the mail observer's command and reply lines. Every
// function takes the bytes it may read as a view and reads nothing beyond.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace pelka::observer_text {

inline char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }
inline bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// `text` equals `upper` (upper-case ASCII) ignoring case.
inline bool EqualsUpper(std::string_view text, std::string_view upper) {
  if (text.size() != upper.size()) return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (Upper(text[i]) != upper[i]) return false;
  return true;
}

// `text` begins with the word `upper`, ignoring case, followed by a blank or
// its end.
inline bool StartsWithWord(std::string_view text, std::string_view upper) {
  if (text.size() < upper.size() || !EqualsUpper(text.substr(0, upper.size()), upper)) return false;
  return text.size() == upper.size() || IsBlank(text[upper.size()]);
}

// The index-th word of a line (0 the first), words parted by blanks.
inline std::string_view Word(std::string_view text, size_t index) {
  size_t at = 0;
  for (;;) {
    while (at < text.size() && IsBlank(text[at])) ++at;
    size_t end = at;
    while (end < text.size() && !IsBlank(text[end])) ++end;
    if (at == end) return {};
    if (index-- == 0) return text.substr(at, end - at);
    at = end;
  }
}

// The decimal number at the start of `text`; 0 when it has none.
inline uint64_t Number(std::string_view text) {
  uint64_t value = 0;
  for (size_t i = 0; i < text.size() && IsDigit(text[i]) && value < (uint64_t{1} << 40); ++i)
    value = value * 10 + static_cast<uint64_t>(text[i] - '0');
  return value;
}

// `text` holds `upper` somewhere, ignoring case; the position or npos.
inline size_t FindUpper(std::string_view text, std::string_view upper, size_t from = 0) {
  if (upper.empty() || text.size() < upper.size()) return std::string_view::npos;
  for (size_t at = from; at + upper.size() <= text.size(); ++at)
    if (EqualsUpper(text.substr(at, upper.size()), upper)) return at;
  return std::string_view::npos;
}

// A line "." alone, with CR LF or a bare line feed; `length` is the whole
// line's, line end included.
inline bool IsDotLine(const char* kept, uint64_t length) {
  return (length == 3 && kept[0] == '.' && kept[1] == '\r') || (length == 2 && kept[0] == '.');
}
inline bool IsCrlfDotLine(const char* kept, uint64_t length) {
  return length == 3 && kept[0] == '.' && kept[1] == '\r';
}

// The size of an IMAP literal that ends a line ("{123}" or "{123+}" before
// the line end); false when the line does not end in one.
inline bool LiteralAtEnd(std::string_view tail, uint64_t* size) {
  while (!tail.empty() && (tail.back() == '\n' || tail.back() == '\r')) tail.remove_suffix(1);
  if (tail.empty() || tail.back() != '}') return false;
  tail.remove_suffix(1);
  if (!tail.empty() && tail.back() == '+') tail.remove_suffix(1);
  const size_t open = tail.rfind('{');
  if (open == std::string_view::npos || open + 1 == tail.size()) return false;
  for (size_t i = open + 1; i < tail.size(); ++i)
    if (!IsDigit(tail[i])) return false;
  *size = Number(tail.substr(open + 1));
  return true;
}

}  // namespace pelka::observer_text
