// The e-mail conditions a user gives on the command line, and their test on
// one message.
//
//   attachment=yes and size-included=120;0-1024 and receiver-domain-excluded=example.com
//
// Conditions are joined with "and" and must all hold. Sizes are in KB, a list
// separated by ";", each entry one number or a range "low-high", no value
// above 99999. Domains are a list separated by ";" (line breaks also separate,
// so a list pasted from a multi-line box reads the same). Blanks around
// entries are ignored. Every parse error names the bad part in double quotes.
//
// The program applies the conditions where it receives the module's records
// (capture/HostLog.h); the module itself knows nothing of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelka {

inline constexpr uint32_t kMaxSizeKb = 99999;

// One entry of a size list: a single value has low == high.
struct SizeRange {
  uint32_t low_kb;
  uint32_t high_kb;
  friend bool operator==(const SizeRange&, const SizeRange&) = default;
};

// The outcome of a parse: a value, or an error text that quotes the bad part.
template <typename T>
struct Parsed {
  std::optional<T> value;
  std::wstring error;
  explicit operator bool() const { return value.has_value(); }
};

Parsed<std::vector<SizeRange>> ParseSizeList(std::wstring_view text);

// Domains come back in lower case.
Parsed<std::vector<std::wstring>> ParseDomainList(std::wstring_view text);

// All conditions of one expression; an absent member was not given.
struct EmailConditions {
  std::optional<bool> with_attachments;  // "attachment=yes" / "attachment=no"
  std::optional<std::vector<SizeRange>> size_included;
  std::optional<std::vector<SizeRange>> size_excluded;
  std::optional<std::vector<std::wstring>> sender_included;
  std::optional<std::vector<std::wstring>> sender_excluded;
  std::optional<std::vector<std::wstring>> receiver_included;
  std::optional<std::vector<std::wstring>> receiver_excluded;
};

// Names of the conditions, as written before "=":
//   attachment                 yes | no
//   size-included              size list
//   size-excluded              size list
//   sender-domain-included     domain list
//   sender-domain-excluded     domain list
//   receiver-domain-included   domain list
//   receiver-domain-excluded   domain list
// Names and "and" ignore letter case; a name may be given only once.
Parsed<EmailConditions> ParseConditions(std::wstring_view text);

// Whether a message size in bytes lies in a size list; the size counts in
// whole KB (1024 bytes, rounded down).
bool SizeMatches(const std::vector<SizeRange>& sizes, uint64_t bytes);

// Whether the domain of an address (after its last "@") is a listed domain or
// lies under one ("mail.example.com" lies under "example.com"), ignoring case.
bool DomainMatches(const std::vector<std::wstring>& domains, std::wstring_view address);

// The facts about one message that the conditions look at.
struct EmailFacts {
  bool has_attachments = false;
  uint64_t size_bytes = 0;
  std::wstring sender_address;
  std::vector<std::wstring> receiver_addresses;
};

// True when every given condition holds. A receiver condition holds for
// inclusion when any receiver matches, for exclusion when none does.
bool ConditionsHold(const EmailConditions& conditions, const EmailFacts& facts);

// The facts from a record's field texts. Several receiver addresses in one
// field are separated by ";", "," or blanks; an attachment list of nothing
// but ";" and blanks names no attachment.
EmailFacts FactsFromRecord(const std::wstring& attachments, uint64_t size_bytes, const std::wstring& sender,
                           const std::wstring& receivers);

}  // namespace pelka
