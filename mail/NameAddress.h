// Dividing a header value into display name and address, decoding the
// GB2312/GBK encoded words on the way.
#pragma once

#include <string>
#include <string_view>

#include "host/Base64Coder.h"

namespace pelka {

// What the split borrows from the flow: the base64 coder, whose
// buffer holds its last result, and the text that holds the last
// quoted-printable result.
struct SplitScratch {
  CTQBase64Coder& base64_coder;
  std::wstring& qp_text;
};

// Splits one header value (wide text, line ends and continuation lines
// included). Both outputs are the caller's and should be empty: the decode
// loop appends to `display_name`; `address` is only ever assigned whole.
//
// Every "\r\n" is removed first (the blank or tab that began a continuation
// line stays). Three forms are decoded, found in this priority order, in any
// letter case: "=?gb2312?b?", "=?gbk?b?" (base64, bytes read in the ANSI code
// page) and "=?gbk?q?" (quoted-printable); other words pass through for the
// later decoding.
//
// With a decodable word: when no "?=" occurs at all the address is the whole
// value. Otherwise text before each word and the decoded words are appended to
// the display name; a prefix without a payload or closing "?=" appends the rest
// undecoded and ends everything, leaving the address alone. The rest after the
// last word is split as below.
//
// Without one: with a double quote in the text, the display name is what lies
// between the first quote and the last quote that a blank follows, and the
// split goes on after that blank; no such pair makes the whole value the
// address. Without a quote, a "<" followed later by a ">" makes the display name
// everything before the first "<".
//
// The split: text without "<" (or without any ">") becomes the address, behind
// the display name, which is then emptied; otherwise the address runs from
// after the first "<" to before the last ">" (empty when that ">" comes first).
// Nothing is trimmed.
void SplitNameAndAddress(const SplitScratch& scratch, std::wstring_view value, std::wstring& display_name,
                         std::wstring& address);

// Decodes a quoted-printable payload: the text goes to bytes in the ANSI code
// page, is decoded like DecodeQuotedPrintableBytes ("_" stays "_"; a "=" with
// no hexadecimal digit ends the text) and comes back as wide text in
// `qp_text`, which the result points into. A null payload gives null and
// leaves `qp_text` alone.
const wchar_t* DecodeQuotedPrintableW(std::wstring& qp_text, const wchar_t* payload);

}  // namespace pelka
