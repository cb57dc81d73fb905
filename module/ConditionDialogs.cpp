#include "module/ConditionDialogs.h"

#include <array>

namespace pelka {
namespace {

// Dialog data. The English captions are published exactly as the dialogs
// show them, misspellings included: a user interface matches them as they are.

constexpr const wchar_t* kAndNoteEnglish =
    L"Note: When two or more conditions are enabled, they are combined with \"and\".";
constexpr const wchar_t* kAndNoteChinese = L"说明：当用户启用多个条件后，每个条件间将是与关系。";

constexpr const wchar_t* kSizeHelpEnglish =
    L"Use \"-\" as a range mark and \";\" to separate values.\n"
    L"Examples: 120\n"
    L"0-1024\n"
    L"120; 0-1024\n"
    L"Note: Max Value is 99999 KB.";
constexpr const wchar_t* kSizeHelpChinese =
    L"可用\"-\"表示范围，多个值之间用\";\"分隔。\n"
    L"例如：120\n"
    L"0-1024\n"
    L"120;0-1024\n"
    L"注意：最大值为99999 KB。";

constexpr const wchar_t* kDomainHelpEnglish = L"Separate several domains with \";\", e.g. example.com;example.net";
constexpr const wchar_t* kDomainHelpChinese = L"多个域名之间用\";\"分隔，例如：example.com;example.net";

constexpr std::array kGeneralControls = {
    DialogControl{kIdcConcernAttachments, ControlKind::kCheckBox, L"Concern Attatchments", L"关注邮件附件"},
    DialogControl{kNoControlId, ControlKind::kStatic, L"Carry Attatchments:", L"邮件是否携带附件:"},
    DialogControl{kIdcAttachmentsYes, ControlKind::kRadioButton, L"Yes", L"是", true},
    DialogControl{kIdcAttachmentsNo, ControlKind::kRadioButton, L"No", L"否"},
    DialogControl{kNoControlId, ControlKind::kGroupBox, L"Email File Size (KB)", L"邮件尺寸大小(KB)"},
    DialogControl{kIdcSizeIncluded, ControlKind::kCheckBox, L"Size Included", L"将包含的大小"},
    DialogControl{kIdcSizeIncludedEdit, ControlKind::kEdit, L"", L""},
    DialogControl{kIdcSizeExcluded, ControlKind::kCheckBox, L"Size Excluded", L"将排斥的大小"},
    DialogControl{kIdcSizeExcludedEdit, ControlKind::kEdit, L"", L""},
    DialogControl{kNoControlId, ControlKind::kStatic, kSizeHelpEnglish, kSizeHelpChinese},
    DialogControl{kNoControlId, ControlKind::kStatic, kAndNoteEnglish, kAndNoteChinese},
    // Frames the attachment condition.
    DialogControl{kNoControlId, ControlKind::kGroupBox, L"", L""},
};

constexpr std::array kSendControls = {
    DialogControl{kIdcSendIncluded, ControlKind::kCheckBox, L"Domain Included in Send Address", L"发送地址包含的域名"},
    DialogControl{kIdcSendIncludedEdit, ControlKind::kMultiLineEdit, L"", L""},
    DialogControl{kNoControlId, ControlKind::kStatic, kDomainHelpEnglish, kDomainHelpChinese},
    DialogControl{kIdcSendExcluded, ControlKind::kCheckBox, L"Domain Excluded in Send Address", L"发送地址排除的域名"},
    DialogControl{kIdcSendExcludedEdit, ControlKind::kMultiLineEdit, L"", L""},
    DialogControl{kNoControlId, ControlKind::kStatic, kDomainHelpEnglish, kDomainHelpChinese},
    DialogControl{kNoControlId, ControlKind::kEtchedLine, L"", L""},
    DialogControl{kNoControlId, ControlKind::kEtchedLine, L"", L""},
    DialogControl{kNoControlId, ControlKind::kStatic, kAndNoteEnglish, kAndNoteChinese},
};

constexpr std::array kReceiveControls = {
    DialogControl{kIdcReceiveIncluded, ControlKind::kCheckBox, L"Domain Included in Receive Address",
                  L"接收地址包含的域名"},
    DialogControl{kIdcReceiveIncludedEdit, ControlKind::kMultiLineEdit, L"", L""},
    DialogControl{kNoControlId, ControlKind::kStatic, kDomainHelpEnglish, kDomainHelpChinese},
    DialogControl{kIdcReceiveExcluded, ControlKind::kCheckBox, L"Domain Excluded in Receive Address",
                  L"接收地址排除的域名"},
    DialogControl{kIdcReceiveExcludedEdit, ControlKind::kMultiLineEdit, L"", L""},
    DialogControl{kNoControlId, ControlKind::kStatic, kDomainHelpEnglish, kDomainHelpChinese},
    DialogControl{kNoControlId, ControlKind::kStatic, kAndNoteEnglish, kAndNoteChinese},
    DialogControl{kNoControlId, ControlKind::kEtchedLine, L"", L""},
    DialogControl{kNoControlId, ControlKind::kEtchedLine, L"", L""},
};

constexpr std::array kDialogs = {
    ConditionDialog{kDialogGeneralSettings, L"Email General Settings", L"Email 常规设置", kGeneralControls},
    ConditionDialog{kDialogSendAddress, L"Send Address Settings", L"发送地址设置", kSendControls},
    ConditionDialog{kDialogReceiveAddress, L"Receive Address Settings", L"接收地址设置", kReceiveControls},
};

}  // namespace

std::span<const ConditionDialog> ConditionDialogs() { return kDialogs; }

const ConditionDialog* FindConditionDialog(int id) {
  for (const ConditionDialog& dialog : kDialogs) {
    if (dialog.id == id) return &dialog;
  }
  return nullptr;
}

const DialogControl* FindDialogControl(const ConditionDialog& dialog, int control_id) {
  if (control_id == kNoControlId) return nullptr;
  for (const DialogControl& control : dialog.controls) {
    if (control.id == control_id) return &control;
  }
  return nullptr;
}

const wchar_t* CaptionIn(const DialogControl& control, uint16_t language) {
  if (language == kLanguageEnglish) return control.english;
  if (language == kLanguageChinese) return control.chinese;
  return nullptr;
}

const wchar_t* TitleIn(const ConditionDialog& dialog, uint16_t language) {
  if (language == kLanguageEnglish) return dialog.english_title;
  if (language == kLanguageChinese) return dialog.chinese_title;
  return nullptr;
}

}  // namespace pelka
