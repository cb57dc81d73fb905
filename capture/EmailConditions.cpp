#include "capture/EmailConditions.h"

#include <algorithm>
#include <cwctype>

namespace pelka {
namespace {

// ---------------------------------------------------------------------------
// Text helpers

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

std::wstring_view Trim(std::wstring_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::wstring Lower(std::wstring_view text) {
  std::wstring out(text);
  for (wchar_t& c : out) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
  return out;
}

std::wstring Quoted(std::wstring_view text) { return L"\"" + std::wstring(text) + L"\""; }

// Splits at any of the separators; the pieces are trimmed, empty ones dropped.
std::vector<std::wstring_view> SplitList(std::wstring_view text, std::wstring_view separators) {
  std::vector<std::wstring_view> items;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find_first_of(separators, start);
    if (end == std::wstring_view::npos) end = text.size();
    const std::wstring_view item = Trim(text.substr(start, end - start));
    if (!item.empty()) items.push_back(item);
    start = end + 1;
  }
  return items;
}

// ---------------------------------------------------------------------------
// Sizes

// A size in KB: decimal digits only, at most kMaxSizeKb.
std::optional<uint32_t> ParseKb(std::wstring_view digits, std::wstring& error) {
  const std::wstring_view value = Trim(digits);
  const bool all_digits =
      !value.empty() && std::all_of(value.begin(), value.end(), [](wchar_t c) { return c >= L'0' && c <= L'9'; });
  if (!all_digits) {
    error = L"size " + Quoted(value) + L" is not a number of KB";
    return std::nullopt;
  }
  // Leading zeros are harmless; more significant digits than the maximum
  // has cannot be a valid size and need not be summed.
  const std::wstring_view significant = value.substr(std::min(value.find_first_not_of(L'0'), value.size()));
  uint32_t kb = 0;
  for (wchar_t c : significant.substr(0, 6)) kb = kb * 10 + static_cast<uint32_t>(c - L'0');
  if (significant.size() > 6 || kb > kMaxSizeKb) {
    error = L"size " + Quoted(value) + L" is above the maximum of " + std::to_wstring(kMaxSizeKb) + L" KB";
    return std::nullopt;
  }
  return kb;
}

std::optional<SizeRange> ParseSizeEntry(std::wstring_view entry, std::wstring& error) {
  const size_t dash = entry.find(L'-');
  if (dash == std::wstring_view::npos) {
    const auto kb = ParseKb(entry, error);
    if (!kb) return std::nullopt;
    return SizeRange{*kb, *kb};
  }
  if (Trim(entry.substr(0, dash)).empty() || Trim(entry.substr(dash + 1)).empty()) {
    error = L"range " + Quoted(entry) + L" needs a value on each side of \"-\"";
    return std::nullopt;
  }
  const auto low = ParseKb(entry.substr(0, dash), error);
  if (!low) return std::nullopt;
  const auto high = ParseKb(entry.substr(dash + 1), error);
  if (!high) return std::nullopt;
  if (*high < *low) {
    error = L"range " + Quoted(entry) + L" ends below its start";
    return std::nullopt;
  }
  return SizeRange{*low, *high};
}

// ---------------------------------------------------------------------------
// Domains

bool IsLabelChar(wchar_t c) {
  return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') || c == L'-';
}

// A host name of at least two dot-separated labels of letters, digits and
// inner hyphens.
bool IsDomain(std::wstring_view domain) {
  if (domain.size() > 253) return false;
  size_t labels = 0;
  size_t start = 0;
  while (true) {
    const size_t dot = domain.find(L'.', start);
    const std::wstring_view label = domain.substr(start, dot == std::wstring_view::npos ? dot : dot - start);
    if (label.empty() || label.size() > 63) return false;
    if (label.front() == L'-' || label.back() == L'-') return false;
    if (!std::all_of(label.begin(), label.end(), IsLabelChar)) return false;
    ++labels;
    if (dot == std::wstring_view::npos) break;
    start = dot + 1;
  }
  return labels >= 2;
}

// ---------------------------------------------------------------------------
// Expressions

// Splits at the word "and" (any letter case) standing between blanks or at
// either end of the text, so that a dangling "and" leaves an empty condition.
std::vector<std::wstring_view> SplitAtAnd(std::wstring_view text) {
  std::vector<std::wstring_view> parts;
  size_t start = 0;
  for (size_t i = 0; i + 3 <= text.size(); ++i) {
    const bool word_start = i == 0 || IsBlank(text[i - 1]);
    const bool word_end = i + 3 == text.size() || IsBlank(text[i + 3]);
    if (!word_start || !word_end || Lower(text.substr(i, 3)) != L"and") continue;
    parts.push_back(text.substr(start, i - start));
    start = i + 3;
    i += 2;  // continue at the blank after the word
  }
  parts.push_back(text.substr(start));
  return parts;
}

template <typename T>
bool SetOnce(std::optional<T>& slot, T value, std::wstring_view name, std::wstring& error) {
  if (slot) {
    error = L"condition " + Quoted(name) + L" is given more than once";
    return false;
  }
  slot = std::move(value);
  return true;
}

bool ApplyCondition(std::wstring_view name, std::wstring_view value, EmailConditions& out, std::wstring& error) {
  const std::wstring key = Lower(name);
  if (key == L"attachment") {
    const std::wstring answer = Lower(value);
    if (answer != L"yes" && answer != L"no") {
      error = L"attachment condition " + Quoted(value) + L" is neither \"yes\" nor \"no\"";
      return false;
    }
    return SetOnce(out.with_attachments, answer == L"yes", name, error);
  }
  struct SizeSlot {
    const wchar_t* name;
    std::optional<std::vector<SizeRange>>* slot;
  };
  for (const SizeSlot& s : {SizeSlot{L"size-included", &out.size_included},
                            SizeSlot{L"size-excluded", &out.size_excluded}}) {
    if (key != s.name) continue;
    auto sizes = ParseSizeList(value);
    if (!sizes) return error = sizes.error, false;
    return SetOnce(*s.slot, std::move(*sizes.value), name, error);
  }
  struct DomainSlot {
    const wchar_t* name;
    std::optional<std::vector<std::wstring>>* slot;
  };
  for (const DomainSlot& s : {DomainSlot{L"sender-domain-included", &out.sender_included},
                              DomainSlot{L"sender-domain-excluded", &out.sender_excluded},
                              DomainSlot{L"receiver-domain-included", &out.receiver_included},
                              DomainSlot{L"receiver-domain-excluded", &out.receiver_excluded}}) {
    if (key != s.name) continue;
    auto domains = ParseDomainList(value);
    if (!domains) return error = domains.error, false;
    return SetOnce(*s.slot, std::move(*domains.value), name, error);
  }
  error = L"unknown condition " + Quoted(name);
  return false;
}

}  // namespace

Parsed<std::vector<SizeRange>> ParseSizeList(std::wstring_view text) {
  Parsed<std::vector<SizeRange>> result;
  std::vector<SizeRange> sizes;
  for (std::wstring_view entry : SplitList(text, L";")) {
    const auto range = ParseSizeEntry(entry, result.error);
    if (!range) return result;
    sizes.push_back(*range);
  }
  if (sizes.empty()) {
    result.error = L"size list " + Quoted(Trim(text)) + L" holds no size";
    return result;
  }
  result.value = std::move(sizes);
  return result;
}

Parsed<std::vector<std::wstring>> ParseDomainList(std::wstring_view text) {
  Parsed<std::vector<std::wstring>> result;
  std::vector<std::wstring> domains;
  for (std::wstring_view entry : SplitList(text, L";\r\n")) {
    if (!IsDomain(entry)) {
      result.error = L"domain " + Quoted(entry) + L" is not a domain name such as example.com";
      return result;
    }
    domains.push_back(Lower(entry));
  }
  if (domains.empty()) {
    result.error = L"domain list " + Quoted(Trim(text)) + L" holds no domain";
    return result;
  }
  result.value = std::move(domains);
  return result;
}

Parsed<EmailConditions> ParseConditions(std::wstring_view text) {
  Parsed<EmailConditions> result;
  EmailConditions conditions;
  if (Trim(text).empty()) {
    result.error = L"no condition given";
    return result;
  }
  for (std::wstring_view part : SplitAtAnd(text)) {
    const std::wstring_view condition = Trim(part);
    const size_t equals = condition.find(L'=');
    if (condition.empty() || equals == std::wstring_view::npos || Trim(condition.substr(0, equals)).empty()) {
      result.error = L"condition " + Quoted(condition) + L" is not written as name=value";
      return result;
    }
    if (!ApplyCondition(Trim(condition.substr(0, equals)), Trim(condition.substr(equals + 1)), conditions,
                        result.error)) {
      return result;
    }
  }
  result.value = std::move(conditions);
  return result;
}

bool SizeMatches(const std::vector<SizeRange>& sizes, uint64_t bytes) {
  const uint64_t kb = bytes / 1024;
  return std::any_of(sizes.begin(), sizes.end(),
                     [kb](const SizeRange& range) { return kb >= range.low_kb && kb <= range.high_kb; });
}

bool DomainMatches(const std::vector<std::wstring>& domains, std::wstring_view address) {
  const size_t at = address.rfind(L'@');
  const std::wstring domain = Lower(Trim(at == std::wstring_view::npos ? address : address.substr(at + 1)));
  return std::any_of(domains.begin(), domains.end(), [&domain](const std::wstring& listed) {
    if (domain == listed) return true;
    return domain.size() > listed.size() && domain.ends_with(listed) &&
           domain[domain.size() - listed.size() - 1] == L'.';
  });
}

bool ConditionsHold(const EmailConditions& conditions, const EmailFacts& facts) {
  if (conditions.with_attachments && *conditions.with_attachments != facts.has_attachments) return false;
  if (conditions.size_included && !SizeMatches(*conditions.size_included, facts.size_bytes)) return false;
  if (conditions.size_excluded && SizeMatches(*conditions.size_excluded, facts.size_bytes)) return false;
  if (conditions.sender_included && !DomainMatches(*conditions.sender_included, facts.sender_address)) return false;
  if (conditions.sender_excluded && DomainMatches(*conditions.sender_excluded, facts.sender_address)) return false;
  const auto any_receiver = [&facts](const std::vector<std::wstring>& domains) {
    return std::any_of(facts.receiver_addresses.begin(), facts.receiver_addresses.end(),
                       [&domains](const std::wstring& address) { return DomainMatches(domains, address); });
  };
  if (conditions.receiver_included && !any_receiver(*conditions.receiver_included)) return false;
  if (conditions.receiver_excluded && any_receiver(*conditions.receiver_excluded)) return false;
  return true;
}

EmailFacts FactsFromRecord(const std::wstring& attachments, uint64_t size_bytes, const std::wstring& sender,
                           const std::wstring& receivers) {
  EmailFacts facts;
  facts.has_attachments = attachments.find_first_not_of(L" ;") != std::wstring::npos;
  facts.size_bytes = size_bytes;
  facts.sender_address = sender;
  size_t start = 0;
  while (start < receivers.size()) {
    const size_t end = std::min(receivers.find_first_of(L";, \t", start), receivers.size());
    if (end > start) facts.receiver_addresses.push_back(receivers.substr(start, end - start));
    start = end + 1;
  }
  return facts;
}

}  // namespace pelka
