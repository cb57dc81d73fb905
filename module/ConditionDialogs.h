// E-mail condition dialogs.
//
// The module carries three dialogs in which a user sets conditions on e-mail
// messages: 102 (attachments and message sizes), 103 (sender domains) and 104
// (receiver domains), each in English (1033) and Chinese (2052). The module's
// own code never opens them and filters nothing by them; they are kept here as
// data that a user interface can present.
#pragma once

#include <cstdint>
#include <span>

namespace pelka {

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

}  // namespace pelka
