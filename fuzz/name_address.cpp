// Splits random header values into display name and address. The value is
// read either byte by byte (characters below 256, where the interesting
// punctuation lives) or two bytes per character (any UTF-16 unit).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/Base64Coder.h"
#include "host/CodePage.h"
#include "mail/NameAddress.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t configuration = data[0];
  pelka::SetAnsiCodePage(configuration & 1 ? pelka::kCodePageUtf8 : pelka::kCodePageGbk);
  std::wstring value;
  if (configuration & 2) {
    for (size_t i = 1; i + 1 < size; i += 2) value.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
  } else {
    for (size_t i = 1; i < size; ++i) value.push_back(static_cast<wchar_t>(data[i]));
  }

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
        if (value.find(c) == std::wstring::npos) {
          std::fprintf(stderr, "the split invented a character not in the value\n");
          std::abort();
        }
      }
    }
  }
  pelka::DecodeQuotedPrintableW(qp_text, value.c_str());
  return 0;
}
