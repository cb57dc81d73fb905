// Small byte and text helpers shared by the protocol parsers, the mail
// decoders and the diagnosis checks.
//
// Protocol words are ASCII. Letter case is folded over ASCII only, so a byte
// outside it never matches a letter whatever the process locale; every code
// page a capture can be read in keeps ASCII as it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace pelka {

// The line end of every mail protocol.
inline constexpr char kLineEnd[] = "\r\n";
inline constexpr size_t kLineEndLength = 2;

// Packet times are in microseconds; durations are reported in seconds.
inline constexpr uint64_t kMicrosecondsPerSecond = 1000000;

// One byte or wide character with its ASCII letter case changed; every other
// unit is kept.
template <typename CharT>
constexpr CharT ToUpperAscii(CharT c) {
  return c >= CharT('a') && c <= CharT('z') ? static_cast<CharT>(c - CharT('a') + CharT('A')) : c;
}
template <typename CharT>
constexpr CharT ToLowerAscii(CharT c) {
  return c >= CharT('A') && c <= CharT('Z') ? static_cast<CharT>(c - CharT('A') + CharT('a')) : c;
}

// Whether the `length` bytes at `bytes` begin with `word`, ASCII letter case
// ignored on both sides. Never reads past `length`.
inline bool StartsWithNoCase(const uint8_t* bytes, size_t length, std::string_view word) {
  if (!bytes || length < word.size()) return false;
  for (size_t i = 0; i < word.size(); ++i) {
    if (ToUpperAscii(bytes[i]) != ToUpperAscii(static_cast<uint8_t>(word[i]))) return false;
  }
  return true;
}

// Whether `text` equals `word`, ASCII letter case ignored on both sides.
inline bool EqualsNoCase(std::string_view text, std::string_view word) {
  return text.size() == word.size() && StartsWithNoCase(reinterpret_cast<const uint8_t*>(text.data()), text.size(), word);
}

// The first `byte` in [begin, end), or null.
inline const uint8_t* FindByte(const uint8_t* begin, const uint8_t* end, uint8_t byte) {
  if (!begin || end <= begin) return nullptr;
  return static_cast<const uint8_t*>(std::memchr(begin, byte, static_cast<size_t>(end - begin)));
}

// Index of the first CR LF pair in the `length` bytes, or -1.
inline int64_t FindLineEnd(const uint8_t* bytes, size_t length) {
  for (size_t i = 0; bytes && i + 1 < length; ++i) {
    if (bytes[i] == '\r' && bytes[i + 1] == '\n') return static_cast<int64_t>(i);
  }
  return -1;
}

}  // namespace pelka
