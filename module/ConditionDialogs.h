// E-mail condition dialogs and the condition syntax they announce.
//
// The module carries three dialogs in which a user sets conditions on e-mail
// messages: 102 (attachments and message sizes), 103 (sender domains) and 104
// (receiver domains), each in English (1033) and Chinese (2052). The module's
// own code never opens them and filters nothing by them; they are kept here as
// data that a user interface can present.
//
// The same conditions can be written as text, for a command line:
//
//   attachment=yes and size-included=120;0-1024 and receiver-domain-excluded=example.com
//
// Conditions are joined with "and" and must all hold. Sizes are in KB, a list
// separated by ";", each entry one number or a range "low-high", no value
// above 99999. Domains are a list separated by ";" (line breaks also separate,
// as in the dialogs' multi-line edits). Blanks around entries are ignored.
// Every parse error names the bad part in double quotes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pelka {

// ---------------------------------------------------------------------------
// Dialog data

enum : uint16_t {
  kLanguageEnglish = 1033,
  kLanguageChinese = 2052,
};

enum : int {
  kDialogGeneralSettings = 102,
  kDialogSendAddress = 103,
  kDialogReceiveAddress = 104,
};

// Control identifiers. Controls without one (static texts, group boxes,
// lines) carry kNoControlId.
enum : int {
  kNoControlId = -1,
  kIdcSizeIncludedEdit = 1001,
  kIdcSizeExcludedEdit = 1002,
  kIdcReceiveExcludedEdit = 1005,
  kIdcConcernAttachments = 1011,
  kIdcSizeIncluded = 1012,
  kIdcSizeExcluded = 1013,
  kIdcSendIncluded = 1014,
  kIdcSendExcluded = 1015,
  kIdcReceiveIncluded = 1016,
  kIdcReceiveIncludedEdit = 1017,
  kIdcSendIncludedEdit = 1018,
  kIdcSendExcludedEdit = 1019,
  kIdcReceiveExcluded = 1020,
  kIdcAttachmentsYes = 1023,
  kIdcAttachmentsNo = 1024,
};

enum class ControlKind {
  kCheckBox,
  kRadioButton,
  kGroupBox,
  kEdit,           // single line
  kMultiLineEdit,  // scrolls vertically by itself
  kStatic,
  kEtchedLine,     // horizontal
};

struct DialogControl {
  int id;
  ControlKind kind;
  const wchar_t* english;  // caption; empty for edits and lines
  const wchar_t* chinese;
  bool first_of_group = false;  // a radio button that starts its group
};

struct ConditionDialog {
  int id;
  const wchar_t* english_title;
  const wchar_t* chinese_title;
  std::span<const DialogControl> controls;  // in tab order
};

// Common to all three dialogs: a popup with caption and system menu.
inline constexpr int kDialogWidth = 244;   // dialog units
inline constexpr int kDialogHeight = 170;  // dialog units
inline constexpr const wchar_t* kDialogFont = L"MS Shell Dlg";
inline constexpr int kDialogFontPoints = 8;

// The three dialogs, by ascending identifier.
std::span<const ConditionDialog> ConditionDialogs();

// A dialog by identifier; null when there is none.
const ConditionDialog* FindConditionDialog(int id);

// A control of a dialog by identifier; null when there is none.
const DialogControl* FindDialogControl(const ConditionDialog& dialog, int control_id);

// A caption or title in a language (1033 or 2052); null for another language.
const wchar_t* CaptionIn(const DialogControl& control, uint16_t language);
const wchar_t* TitleIn(const ConditionDialog& dialog, uint16_t language);

// ---------------------------------------------------------------------------
// Condition syntax

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
//   attachment                 yes | no                        (dialog 102, 1011)
//   size-included              size list                       (dialog 102, 1012)
//   size-excluded              size list                       (dialog 102, 1013)
//   sender-domain-included     domain list                     (dialog 103, 1014)
//   sender-domain-excluded     domain list                     (dialog 103, 1015)
//   receiver-domain-included   domain list                     (dialog 104, 1016)
//   receiver-domain-excluded   domain list                     (dialog 104, 1020)
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

}  // namespace pelka
