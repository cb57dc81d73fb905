// Named placeholders in message templates.
//
// A placeholder is a run "%<format>_<NAME>%" such as "[%I64u_SNUM%]": a
// printf-style conversion, an underscore and a name between two percent signs,
// with no "%" inside and the first underscore within the run's first 32
// characters (counting the opening "%"). Values are bound to placeholders by
// name: the default text of a message is scanned once, each placeholder takes
// the next value of the argument list in the order the placeholders stand
// there, and every occurrence of the placeholder in the text actually shown
// (translated or default) is replaced by its formatted value. A "%%" pair in
// the default text makes every "%%" of the shown text a single "%".
//
// The format part decides what is taken from the argument list:
//   "%I64d" / "%I64u" (whole part, letter case ignored)  int64_t / uint64_t
//   last character d u o x X                           int (32-bit)
//   last character c                                   wchar_t (passed as int)
//   last character f                                   double
//   last character s                                   const wchar_t*
// Any other format part makes the run plain text that takes no value.
//
// The value is formatted with the flags, width and precision of the format
// part and the conversion of its last character, with Windows wide-printf
// semantics ("s" wide text, "c" wide character). A
// length modifier in a format part that the table above does not mark as
// 64-bit is ignored (the value taken is 32-bit), and "*" widths are dropped,
// since no extra argument is taken for them.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>
#include <vector>

#include "module/MultiReplace.h"

namespace pelka {

enum class PlaceholderType {
  kPercentPair,  // "%%": replaced by "%", takes no value
  kSigned64,
  kUnsigned64,
  kInt32,
  kWideChar,
  kDouble,
  kWideText,
};

struct Placeholder {
  std::wstring text;    // the whole run, both "%" included: what is replaced
  std::wstring format;  // the format part, from "%" up to the first underscore
  std::wstring name;    // after the first underscore, up to the closing "%"
  PlaceholderType type = PlaceholderType::kPercentPair;
};

// The placeholders and "%%" pairs of a text, in the order in which they take
// values. Runs that are not placeholders are left out.
std::vector<Placeholder> ScanPlaceholders(std::wstring_view text);

// Scans `default_text`, takes one value per placeholder from `args`, and adds
// a pattern per placeholder and per "%%" pair to `replacer` (which the caller
// has cleared). A placeholder that stands twice takes two values; the later
// one wins for both occurrences.
void CollectPlaceholders(CTQMultiReplaceW& replacer, const wchar_t* default_text, va_list args);

}  // namespace pelka
