// Finding the first of several encoded-word prefixes in a header text.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "host/AsciiText.h"

namespace pelka {

// ASCII letters lower-cased, every other unit kept, so that positions in the
// copy are positions in the original.
template <typename CharT>
std::basic_string<CharT> AsciiLowerCopy(std::basic_string_view<CharT> text) {
  std::basic_string<CharT> lower(text);
  for (CharT& c : lower) c = ToLowerAscii(c);
  return lower;
}

// Answers "which listed prefix occurs first in the list's order, and where,
// at or after this position": the order of the list decides, not the position
// in the text. Prefixes are given in lower case and match in any letter case;
// every prefix starts with the same non-letter unit, which the search jumps
// between. The start positions asked for must never decrease; each prefix's
// next occurrence is remembered, so a whole scan costs time linear in the
// text per prefix however many words it holds.
template <typename CharT, size_t N>
class PrefixScanner {
 public:
  using View = std::basic_string_view<CharT>;
  struct Match {
    size_t form;      // index in the prefix list
    size_t position;  // where the prefix starts
  };

  // Both views must outlive the scanner.
  PrefixScanner(View text, const std::array<View, N>& prefixes) : text_(text), prefixes_(prefixes) {}

  std::optional<Match> FindFrom(size_t start) {
    for (size_t form = 0; form < N; ++form) {
      size_t& next = next_[form];
      if (!searched_[form] || (next != View::npos && next < start)) {
        next = FindNoCase(prefixes_[form], start);
        searched_[form] = true;
      }
      if (next != View::npos) return Match{form, next};
    }
    return std::nullopt;
  }

 private:
  size_t FindNoCase(View prefix, size_t start) const {
    if (prefix.empty()) return start <= text_.size() ? start : View::npos;
    for (size_t at = text_.find(prefix[0], start); at != View::npos; at = text_.find(prefix[0], at + 1)) {
      if (text_.size() - at < prefix.size()) return View::npos;
      size_t i = 1;
      while (i < prefix.size() && ToLowerAscii(text_[at + i]) == prefix[i]) ++i;
      if (i == prefix.size()) return at;
    }
    return View::npos;
  }

  View text_;
  std::array<View, N> prefixes_;
  std::array<size_t, N> next_{};
  std::array<bool, N> searched_{};
};

}  // namespace pelka
