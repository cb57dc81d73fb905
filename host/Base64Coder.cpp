#include "host/Base64Coder.h"

#include <cstdint>
#include <string>

#include "host/CodePage.h"

namespace pelka {
namespace {

// The 6-bit value of a base64 character, or -1 outside the alphabet.
int Base64Value(wchar_t c) {
  if (c >= L'A' && c <= L'Z') return c - L'A';
  if (c >= L'a' && c <= L'z') return c - L'a' + 26;
  if (c >= L'0' && c <= L'9') return c - L'0' + 52;
  if (c == L'+') return 62;
  if (c == L'/') return 63;
  return -1;
}

std::string DecodeBase64(const wchar_t* text) {
  std::string bytes;
  uint32_t bits = 0;
  int bit_count = 0;
  for (const wchar_t* p = text; *p && *p != L'='; ++p) {
    const int value = Base64Value(*p);
    if (value < 0) continue;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    bit_count += 6;
    if (bit_count >= 8) {
      bit_count -= 8;
      bytes.push_back(static_cast<char>((bits >> bit_count) & 0xFF));
    }
  }
  return bytes;
}

}  // namespace

const wchar_t* CTQBase64Coder::DecodeString(const wchar_t* text) {
  if (!text) return nullptr;
  const std::string bytes = DecodeBase64(text);
  if (bytes.empty()) return nullptr;
  MultiByteToWide(kCodePageThreadAnsi, bytes, decoded_);
  return decoded_.c_str();
}

}  // namespace pelka
