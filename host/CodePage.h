// Conversions between multi-byte text in a code page and wide text.
//
// The "ANSI" code page stands for both the thread's and the system's code page
// of a Windows host; here it is one process setting, 936 (GBK) unless the
// program changes it.
// 65001 is UTF-8. An invalid or unmappable input sequence becomes U+FFFD and the
// conversion goes on: text is never cut short by bad bytes. Wide characters
// that the target code page cannot represent become '?'.
//
// Pure ASCII takes a fast path; the converters underneath are opened once per
// thread and code page, not per call.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pelka {

enum : unsigned {
  kCodePageAnsi = 0,        // the process's ANSI code page (system form)
  kCodePageThreadAnsi = 3,  // the thread's ANSI code page; same setting here
  kCodePageUtf8 = 65001,
  kCodePageGbk = 936,
};

// The process-wide ANSI code page. Changing it affects later conversions on
// every thread. Returns false (and keeps the old value) for a code page that
// the platform cannot convert.
bool SetAnsiCodePage(unsigned code_page);
unsigned GetAnsiCodePage();

// True when the code page is known to the conversion layer.
bool IsCodePageSupported(unsigned code_page);

// Bytes to wide text. kCodePageAnsi and kCodePageThreadAnsi mean the ANSI
// setting. Zero bytes are converted like any other character (U+0000); callers
// that want C-string semantics cut at the first zero byte themselves.
std::wstring MultiByteToWide(unsigned code_page, std::string_view bytes);
void MultiByteToWide(unsigned code_page, std::string_view bytes, std::wstring& out);

// Wide text to bytes in the code page.
std::string WideToMultiByte(unsigned code_page, std::wstring_view text);
void WideToMultiByte(unsigned code_page, std::wstring_view text, std::string& out);

// Whether `byte` starts a two-byte character in the double-byte code page
// (936, 949, 950 or 932); false for every other code page. No text match may
// start on the second byte of such a character.
bool IsLeadByte(unsigned code_page, uint8_t byte);

// A Unicode scalar value: at most U+10FFFF and no surrogate. Conversions to
// bytes write '?' for any other value.
inline bool IsScalarValue(wchar_t c) { return c >= 0 && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); }

// Shorthands for the ANSI code page, the common case of protocol bytes.
inline std::wstring AnsiToWide(std::string_view bytes) {
  return MultiByteToWide(kCodePageThreadAnsi, bytes);
}
inline std::string WideToAnsi(std::wstring_view text) {
  return WideToMultiByte(kCodePageThreadAnsi, text);
}

// UTF-8 is what every file the program writes uses.
inline std::string WideToUtf8(std::wstring_view text) {
  return WideToMultiByte(kCodePageUtf8, text);
}
inline std::wstring Utf8ToWideText(std::string_view bytes) {
  return MultiByteToWide(kCodePageUtf8, bytes);
}

}  // namespace pelka
