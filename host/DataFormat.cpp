#include "host/DataFormat.h"

namespace pelka {

std::wstring CTQDataFormat::FormatIpAddress(uint32_t address) const {
  // Called for every record: digits are written in place, without a string
  // per octet.
  wchar_t text[16];
  wchar_t* out = text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (shift != 24) *out++ = L'.';
    const unsigned octet = (address >> shift) & 0xFFu;
    if (octet >= 100) *out++ = static_cast<wchar_t>(L'0' + octet / 100);
    if (octet >= 10) *out++ = static_cast<wchar_t>(L'0' + octet / 10 % 10);
    *out++ = static_cast<wchar_t>(L'0' + octet % 10);
  }
  return std::wstring(text, out);
}

}  // namespace pelka
