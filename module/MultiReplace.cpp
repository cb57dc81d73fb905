#include "module/MultiReplace.h"

#include <cwchar>
#include <cwctype>

namespace pelka {

size_t CTQMultiReplaceW::TextLength(const wchar_t* text) const {
  return text ? std::wcslen(text) : 0;
}

int CTQMultiReplaceW::CompareText(const wchar_t* a, const wchar_t* b, int case_sensitive,
                                  int count) const {
  if (!a || !b) return a == b ? 1 : 0;
  // A negative count compares whole texts: up to and including the zero.
  for (int i = 0; count < 0 || i < count; ++i) {
    wchar_t ca = a[i];
    wchar_t cb = b[i];
    if (!case_sensitive) {
      ca = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(ca)));
      cb = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(cb)));
    }
    if (ca != cb) return 0;
    if (ca == L'\0') return 1;
  }
  return 1;
}

}  // namespace pelka
