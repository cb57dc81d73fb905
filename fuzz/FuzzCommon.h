// Small pieces the fuzz targets share: stopping on a broken promise, and
// reading input bytes as wide text or as a choice of ANSI code page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/CodePage.h"

namespace pelka::fuzz {

[[noreturn]] inline void Fail(const char* what) {
  std::fprintf(stderr, "fuzz target check failed: %s\n", what);
  std::abort();
}

// One character per byte (the characters below 256, where the interesting
// punctuation lives), or one per little-endian byte pair (any UTF-16 unit).
inline std::wstring WideText(const uint8_t* data, size_t size, bool two_bytes) {
  std::wstring text;
  if (two_bytes) {
    for (size_t i = 0; i + 1 < size; i += 2) text.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
  } else {
    for (size_t i = 0; i < size; ++i) text.push_back(static_cast<wchar_t>(data[i]));
  }
  return text;
}

// Sets the ANSI code page named by the two low bits: GBK, UTF-8, Western, or
// `fourth`.
inline void ChooseAnsiCodePage(unsigned bits, unsigned fourth = kCodePageGbk) {
  const unsigned code_pages[] = {kCodePageGbk, kCodePageUtf8, 1252, fourth};
  SetAnsiCodePage(code_pages[bits & 3]);
}

}  // namespace pelka::fuzz
