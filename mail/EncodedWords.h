// Decoding of encoded words ("=?charset?b?...?=") in header texts, and the
// byte-level decoders behind it.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace pelka {

// Turns one header text, multi-byte in the ANSI code page, into wide text.
//
// Six forms are recognised, tried in this fixed order (the order decides, not
// the position in the text), in any letter case:
//   0 "=?gb2312?b?"  1 "=?gb2312?q?"  2 "=?gbk?b?"  3 "=?gbk?q?"
//   4 "=?utf-8?b?"   5 "=?utf-8?q?"
// Every word ends at "?=". Any other charset is plain text here. A prefix with
// no closing "?=" after it still names the form but adds no payload, and the
// scan stops there.
//
// Every "\r\n" in `text` is first replaced by one blank (in place). Without a
// recognised word the output is the text read with the ANSI code page.
// Otherwise the payloads of all words found are joined and decoded once, with
// the encoding and character set of the LAST word found: a base64 word followed
// by a quoted-printable word is decoded as quoted-printable, and "=" padding
// stops the decoding of whatever was joined after it. Text before the first
// word is kept; text between and after words is dropped. For the UTF-8 forms an
// empty decoded payload leaves `output` as it was, and the text before the
// first word is put in front of it; for the other forms `output` is assigned.
//
// The text ends at its first zero byte; `text` is cut there as well.
void DecodeEncodedWords(std::string& text, std::wstring& output);

// Base64 (RFC 4648 alphabet) of `input` up to its first zero byte or its end.
// A "=" ends the decoding at once; bytes outside the alphabet are skipped.
// Only complete bytes are written. At the end of the input a zero byte follows
// them and the result is their number; when a "=" ended the decoding the
// result is their number plus one and nothing more is written (the caller's
// buffer is expected to be zero-filled). `output` should hold the input length
// plus one byte; nothing is written past its end.
size_t DecodeBase64Bytes(std::string_view input, std::span<char> output);

// Quoted-printable of `input` up to its first zero byte or its end. "=\r\n" is
// skipped; "=" takes up to two hexadecimal digits (either case) and always
// consumes itself and the next two bytes, writing one byte of their value (0
// when no digit follows, which ends the text for a reader of C strings); other
// bytes are copied and "_" stays "_". A zero byte follows the output. The
// result counts the bytes produced. `output` should hold the input length plus
// one byte; nothing is written past its end.
size_t DecodeQuotedPrintableBytes(std::string_view input, std::span<char> output);

// UTF-8 bytes to a new zero-terminated wide string; null for a null pointer or
// a length below 1.
std::unique_ptr<wchar_t[]> Utf8ToWide(const char* bytes, ptrdiff_t length);

}  // namespace pelka
