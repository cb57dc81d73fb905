// The coder library's base64 decoder: wide base64 text in, wide text out.
#pragma once

#include <string>

namespace pelka {

class CTQBase64Coder {
 public:
  // Decodes RFC 4648 base64 (characters outside the alphabet are skipped,
  // "=" ends the data) and reads the decoded bytes with the ANSI code page.
  // Returns the decoded text, held by the coder until its next call, or null
  // when nothing decodes. A null input gives null.
  const wchar_t* DecodeString(const wchar_t* text);

 private:
  std::wstring decoded_;
};

}  // namespace pelka
