// Splits random header values into display name and address. The value is
// read either byte by byte or two bytes per character (bit 1 of the first
// byte; bit 0 chooses UTF-8 over GBK as the ANSI code page).
#include <cstdint>
#include <string>

#include "fuzz/FuzzCommon.h"
#include "host/Base64Coder.h"
#include "mail/NameAddress.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t configuration = data[0];
  pelka::SetAnsiCodePage(configuration & 1 ? pelka::kCodePageUtf8 : pelka::kCodePageGbk);
  const std::wstring value = pelka::fuzz::WideText(data + 1, size - 1, configuration & 2);

  pelka::CTQBase64Coder coder;
  std::wstring qp_text;
  std::wstring display_name;
  std::wstring address;
  pelka::SplitNameAndAddress(pelka::SplitScratch{coder, qp_text}, value, display_name, address);
  // Without an encoded word (looked for once line breaks are gone) nothing is
  // decoded, so every character of both parts comes from the value.
  std::wstring joined = value;
  for (size_t at = joined.find(L"\r\n"); at != std::wstring::npos; at = joined.find(L"\r\n", at)) joined.erase(at, 2);
  if (joined.find(L"=?") == std::wstring::npos) {
    for (const std::wstring* part : {&display_name, &address}) {
      for (wchar_t c : *part) {
        if (value.find(c) == std::wstring::npos) pelka::fuzz::Fail("the split invented a character not in the value");
      }
    }
  }
  pelka::DecodeQuotedPrintableW(qp_text, value.c_str());
  return 0;
}
