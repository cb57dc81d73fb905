#include "mail/NameAddress.h"

#include <array>
#include <optional>
#include <vector>

#include "host/CodePage.h"
#include "mail/EncodedWords.h"
#include "mail/PrefixScanner.h"

namespace pelka {
namespace {

using namespace std::string_view_literals;

constexpr std::array<std::wstring_view, 3> kPrefixes = {L"=?gb2312?b?"sv, L"=?gbk?b?"sv, L"=?gbk?q?"sv};
constexpr size_t kQuotedPrintableKind = 2;
constexpr std::wstring_view kWordStart = L"=?"sv;
constexpr std::wstring_view kWordEnd = L"?="sv;
static_assert(kPrefixes[0].starts_with(kWordStart) && kPrefixes[1].starts_with(kWordStart) &&
              kPrefixes[2].starts_with(kWordStart));
constexpr size_t npos = std::wstring_view::npos;

std::wstring WithoutLineBreaks(std::wstring_view value) {
  std::wstring text;
  text.reserve(value.size());
  size_t start = 0;
  for (size_t at = value.find(L"\r\n"sv); at != npos; at = value.find(L"\r\n"sv, start)) {
    text.append(value.substr(start, at - start));
    start = at + 2;
  }
  text.append(value.substr(start));
  return text;
}

void AppendDecodedPayload(const SplitScratch& scratch, size_t kind, const std::wstring& payload,
                          std::wstring& display_name) {
  const wchar_t* decoded = kind == kQuotedPrintableKind ? DecodeQuotedPrintableW(scratch.qp_text, payload.c_str())
                                                        : scratch.base64_coder.DecodeString(payload.c_str());
  if (decoded) display_name += decoded;
}

// The final step: `rest` is what remains of the value after the name part.
void SplitRest(std::wstring_view rest, std::wstring& display_name, std::wstring& address) {
  const size_t lt = rest.find(L'<');
  const size_t gt = rest.rfind(L'>');
  if (lt == npos || gt == npos) {
    address = display_name;
    address += rest;
    display_name.clear();
    return;
  }
  address = gt < lt ? std::wstring() : std::wstring(rest.substr(lt + 1, gt - lt - 1));
}

// Decodes every word into the display name. Returns what is left for the
// split, or nothing when a word without payload ended the routine.
std::optional<std::wstring_view> DecodeWords(const SplitScratch& scratch, std::wstring_view text, size_t kind,
                                             size_t position, std::wstring& display_name) {
  PrefixScanner<wchar_t, kPrefixes.size()> scanner(text, kPrefixes);
  size_t cut = 0;  // everything before has been consumed
  for (;;) {
    display_name.append(text.substr(cut, position - cut));
    cut = position + kPrefixes[kind].size();
    const size_t end = text.find(kWordEnd, cut);
    if (end == npos || end == cut) {
      display_name.append(text.substr(cut));
      return std::nullopt;
    }
    AppendDecodedPayload(scratch, kind, std::wstring(text.substr(cut, end - cut)), display_name);
    cut = end + kWordEnd.size();
    const auto next = scanner.FindFrom(cut);
    if (!next) return text.substr(cut);
    kind = next->form;
    position = next->position;
  }
}

// Without encoded words: the display name from quotes or from "<...>", and
// the text left for the split; nothing when the value is the address as is.
std::optional<std::wstring_view> TakePlainName(std::wstring_view text, std::wstring& display_name,
                                               std::wstring& address) {
  const size_t quote = text.find(L'"');
  if (quote != npos) {
    const size_t pair = text.rfind(L"\" "sv);
    if (pair == npos) {
      address = text;
      return std::nullopt;
    }
    display_name = pair > quote ? text.substr(quote + 1, pair - quote - 1) : std::wstring_view();
    return text.substr(pair + 2);
  }
  const size_t lt = text.find(L'<');
  const size_t gt = text.rfind(L'>');
  if (lt != npos && gt != npos && gt > lt) display_name = text.substr(0, lt);
  return text;
}

}  // namespace

void SplitNameAndAddress(const SplitScratch& scratch, std::wstring_view value, std::wstring& display_name,
                         std::wstring& address) {
  // A copy is made only for a value with a line break before its last two
  // characters: most values end with their line's own CR LF and hold no
  // other, and without it they are the text as it is.
  std::wstring joined;
  std::wstring_view text = value;
  if (const size_t first_break = value.find(L"\r\n"sv); first_break != npos) {
    if (first_break + 2 == value.size()) {
      text = value.substr(0, first_break);
    } else {
      text = joined = WithoutLineBreaks(value);
    }
  }
  // Every prefix starts with "=?": a value without it, as most are, holds no
  // word, and is not searched once per prefix.
  std::optional<PrefixScanner<wchar_t, kPrefixes.size()>::Match> first;
  if (text.find(kWordStart) != npos) first = PrefixScanner<wchar_t, kPrefixes.size()>(text, kPrefixes).FindFrom(0);
  std::optional<std::wstring_view> rest;
  if (first) {
    if (text.find(kWordEnd) == npos) {
      address = text;
      return;
    }
    rest = DecodeWords(scratch, text, first->form, first->position, display_name);
  } else {
    rest = TakePlainName(text, display_name, address);
  }
  if (rest) SplitRest(*rest, display_name, address);
}

const wchar_t* DecodeQuotedPrintableW(std::wstring& qp_text, const wchar_t* payload) {
  if (!payload) return nullptr;
  qp_text.clear();
  const std::string bytes = WideToMultiByte(kCodePageAnsi, payload);
  std::vector<char> decoded(bytes.size() + 1, '\0');
  DecodeQuotedPrintableBytes(bytes, decoded);
  MultiByteToWide(kCodePageThreadAnsi, decoded.data(), qp_text);
  return qp_text.c_str();
}

}  // namespace pelka
