// Finding the first of several encoded-word prefixes in a header text.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace pelka {

// ASCII letters lower-cased, every other unit kept, so that positions in the
// copy are positions in the original.
template <typename CharT>
std::basic_string<CharT> AsciiLowerCopy(std::basic_string_view<CharT> text) {
  std::basic_string<CharT> lower(text);
  for (CharT& c : lower) {
    if (c >= CharT('A') && c <= CharT('Z')) c = static_cast<CharT>(c - CharT('A') + CharT('a'));
  }
  return lower;
}

// Answers "which listed prefix occurs first in the list's order, and where,
// at or after this position": the order of the list decides, not the position
// in the text. The start positions asked for must never decrease; each
// prefix's next occurrence is remembered, so a whole scan costs time linear in
// the text per prefix however many words it holds.
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
        next = text_.find(prefixes_[form], start);
        searched_[form] = true;
      }
      if (next != View::npos) return Match{form, next};
    }
    return std::nullopt;
  }

 private:
  View text_;
  std::array<View, N> prefixes_;
  std::array<size_t, N> next_{};
  std::array<bool, N> searched_{};
};

}  // namespace pelka
