#include "module/Placeholders.h"

#include <cstdint>
#include <cwctype>
#include <optional>

#include "host/WideFormat.h"

namespace pelka {
namespace {

// The underscore that separates format part and name must lie within the
// run's first 32 characters, the opening "%" counted.
constexpr size_t kMaxFormatScan = 32;

bool IsFlag(wchar_t c) { return c == L'-' || c == L'+' || c == L' ' || c == L'#' || c == L'0'; }
bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

bool EqualsIgnoreCase(std::wstring_view a, std::wstring_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::towlower(static_cast<wint_t>(a[i])) != std::towlower(static_cast<wint_t>(b[i]))) return false;
  }
  return true;
}

// The type of value a format part asks for; none when it asks for none.
std::optional<PlaceholderType> TypeOfFormat(std::wstring_view format) {
  // Only the whole part "%I64d" or "%I64u" is 64-bit; "%5I64u" is not.
  if (EqualsIgnoreCase(format, L"%I64d")) return PlaceholderType::kSigned64;
  if (EqualsIgnoreCase(format, L"%I64u")) return PlaceholderType::kUnsigned64;
  switch (format.back()) {
    case L'd': case L'u': case L'o': case L'x': case L'X': return PlaceholderType::kInt32;
    case L'c': return PlaceholderType::kWideChar;
    case L'f': return PlaceholderType::kDouble;
    case L's': return PlaceholderType::kWideText;
    default: return std::nullopt;
  }
}

// Rebuilds a format part as a single conversion: its flags, width and
// precision, then the conversion of its type in the platform formatter's
// terms. Anything else in the part (length modifiers, "*") is dropped, since
// exactly one value of the decided type is passed.
std::wstring CleanConversion(std::wstring_view format, PlaceholderType type) {
  std::wstring out = L"%";
  size_t i = 1;
  while (i < format.size() && IsFlag(format[i])) out += format[i++];
  while (i < format.size() && IsDigit(format[i])) out += format[i++];
  if (i < format.size() && format[i] == L'.') {
    out += format[i++];
    while (i < format.size() && IsDigit(format[i])) out += format[i++];
  }
  switch (type) {
    case PlaceholderType::kSigned64: return out + L"I64d";
    case PlaceholderType::kUnsigned64: return out + L"I64u";
    default: return out + format.back();
  }
}

std::wstring FormatValue(const Placeholder& placeholder, va_list& args) {
  const std::wstring conversion = CleanConversion(placeholder.format, placeholder.type);
  const wchar_t* format = conversion.c_str();
  switch (placeholder.type) {
    case PlaceholderType::kSigned64: return FormatWide(format, static_cast<long long>(va_arg(args, int64_t)));
    case PlaceholderType::kUnsigned64:
      return FormatWide(format, static_cast<unsigned long long>(va_arg(args, uint64_t)));
    case PlaceholderType::kInt32: return FormatWide(format, va_arg(args, int));
    case PlaceholderType::kWideChar: return FormatWide(format, static_cast<wint_t>(va_arg(args, int)));
    case PlaceholderType::kDouble: return FormatWide(format, va_arg(args, double));
    case PlaceholderType::kWideText: {
      const wchar_t* value = va_arg(args, const wchar_t*);
      return FormatWide(format, value ? value : L"(null)");
    }
    case PlaceholderType::kPercentPair: break;
  }
  return L"%";
}

// Decides whether the run `candidate` (both "%" included) is a placeholder.
bool ParseCandidate(std::wstring_view candidate, Placeholder& placeholder) {
  const size_t scan = candidate.size() < kMaxFormatScan ? candidate.size() : kMaxFormatScan;
  const size_t underscore = candidate.substr(0, scan).find(L'_');
  if (underscore == std::wstring_view::npos) return false;
  const std::wstring_view format = candidate.substr(0, underscore);
  const std::optional<PlaceholderType> type = TypeOfFormat(format);
  if (!type) return false;
  placeholder.type = *type;
  placeholder.text.assign(candidate);
  placeholder.format.assign(format);
  placeholder.name.assign(candidate.substr(underscore + 1, candidate.size() - underscore - 2));
  return true;
}

size_t FindPercent(std::wstring_view text, size_t from) {
  return from >= text.size() ? std::wstring_view::npos : text.find(L'%', from);
}

}  // namespace

std::vector<Placeholder> ScanPlaceholders(std::wstring_view text) {
  std::vector<Placeholder> found;
  constexpr size_t npos = std::wstring_view::npos;
  size_t p = text.find(L'%');
  while (p != npos) {
    const size_t s = p + 1;
    const size_t q = FindPercent(text, s);
    if (q == npos) break;
    if (q == s) {
      // "%%" stands for one "%"; the scan goes on after the pair.
      found.push_back(Placeholder{L"%%", L"%", L"", PlaceholderType::kPercentPair});
      p = FindPercent(text, q + 1);
      continue;
    }
    // The next candidate opens at the first "%" after this run's closing one,
    // so a lone "%" before a placeholder swallows its opening sign and its
    // closing sign opens the next run.
    const size_t next = FindPercent(text, q + 1);
    Placeholder placeholder;
    if (ParseCandidate(text.substr(p, q - p + 1), placeholder)) found.push_back(std::move(placeholder));
    p = next;
  }
  return found;
}

void CollectPlaceholders(CTQMultiReplaceW& replacer, const wchar_t* default_text, va_list args) {
  if (!default_text) return;
  va_list values;
  va_copy(values, args);
  for (const Placeholder& placeholder : ScanPlaceholders(default_text)) {
    const std::wstring value = FormatValue(placeholder, values);
    replacer.AddPattern(placeholder.text.c_str(), value.c_str());
  }
  va_end(values);
}

}  // namespace pelka
