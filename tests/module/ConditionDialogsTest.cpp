#include "module/ConditionDialogs.h"

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace pelka {
namespace {

std::string Narrow(const std::wstring& text) { return testing::PrintToString(text); }

TEST(ConditionDialogs, HoldTheThreeDialogsInBothLanguages) {
  struct Case {
    int dialog;
    const wchar_t* english_title;
    const wchar_t* chinese_title;
    std::vector<int> ids;  // identified controls, in order
  };
  const std::vector<Case> cases = {
      {102, L"Email General Settings", L"Email 常规设置", {1011, 1023, 1024, 1012, 1001, 1013, 1002}},
      {103, L"Send Address Settings", L"发送地址设置", {1014, 1018, 1015, 1019}},
      {104, L"Receive Address Settings", L"接收地址设置", {1016, 1017, 1020, 1005}},
  };
  ASSERT_EQ(ConditionDialogs().size(), cases.size());
  for (const Case& c : cases) {
    const ConditionDialog* dialog = FindConditionDialog(c.dialog);
    ASSERT_NE(dialog, nullptr) << c.dialog;
    EXPECT_STREQ(TitleIn(*dialog, kLanguageEnglish), c.english_title);
    EXPECT_STREQ(TitleIn(*dialog, kLanguageChinese), c.chinese_title);
    EXPECT_EQ(TitleIn(*dialog, 1031), nullptr);
    std::vector<int> ids;
    for (const DialogControl& control : dialog->controls) {
      if (control.id != kNoControlId) ids.push_back(control.id);
      // Only captionless kinds may lack a caption, in both languages alike.
      const bool blank = std::wstring(control.english).empty();
      EXPECT_EQ(blank, std::wstring(control.chinese).empty()) << c.dialog;
      if (control.kind == ControlKind::kCheckBox || control.kind == ControlKind::kRadioButton) {
        EXPECT_FALSE(blank) << control.id;
      }
    }
    EXPECT_EQ(ids, c.ids) << c.dialog;
  }
  EXPECT_EQ(FindConditionDialog(101), nullptr);
}

TEST(ConditionDialogs, ControlsCarryTheirCaptionsAndKinds) {
  struct Case {
    int dialog;
    int control;
    ControlKind kind;
    const wchar_t* english;
    const wchar_t* chinese;
  };
  const std::vector<Case> cases = {
      {102, 1011, ControlKind::kCheckBox, L"Concern Attatchments", L"关注邮件附件"},
      {102, 1023, ControlKind::kRadioButton, L"Yes", L"是"},
      {102, 1024, ControlKind::kRadioButton, L"No", L"否"},
      {102, 1012, ControlKind::kCheckBox, L"Size Included", L"将包含的大小"},
      {102, 1001, ControlKind::kEdit, L"", L""},
      {102, 1013, ControlKind::kCheckBox, L"Size Excluded", L"将排斥的大小"},
      {103, 1014, ControlKind::kCheckBox, L"Domain Included in Send Address", L"发送地址包含的域名"},
      {103, 1019, ControlKind::kMultiLineEdit, L"", L""},
      {104, 1016, ControlKind::kCheckBox, L"Domain Included in Receive Address", L"接收地址包含的域名"},
      {104, 1020, ControlKind::kCheckBox, L"Domain Excluded in Receive Address", L"接收地址排除的域名"},
      {104, 1005, ControlKind::kMultiLineEdit, L"", L""},
  };
  for (const Case& c : cases) {
    const DialogControl* control = FindDialogControl(*FindConditionDialog(c.dialog), c.control);
    ASSERT_NE(control, nullptr) << c.control;
    EXPECT_EQ(control->kind, c.kind) << c.control;
    EXPECT_STREQ(CaptionIn(*control, kLanguageEnglish), c.english);
    EXPECT_STREQ(CaptionIn(*control, kLanguageChinese), c.chinese);
  }
  EXPECT_TRUE(FindDialogControl(*FindConditionDialog(102), 1023)->first_of_group);
  EXPECT_FALSE(FindDialogControl(*FindConditionDialog(102), 1024)->first_of_group);
  EXPECT_EQ(FindDialogControl(*FindConditionDialog(103), 1011), nullptr);
}

TEST(ConditionSyntax, SizeLists) {
  struct Case {
    const wchar_t* text;
    std::vector<SizeRange> sizes;  // empty: an error
    const wchar_t* error;
  };
  const std::vector<Case> cases = {
      {L"120", {{120, 120}}, L""},
      {L"0-1024", {{0, 1024}}, L""},
      {L"120;0-1024", {{120, 120}, {0, 1024}}, L""},
      {L" 120; 0 - 1024 ;", {{120, 120}, {0, 1024}}, L""},
      {L"99999", {{99999, 99999}}, L""},
      {L"00099999", {{99999, 99999}}, L""},
      {L"5-5", {{5, 5}}, L""},
      {L"100000", {}, L"size \"100000\" is above the maximum of 99999 KB"},
      {L"1-100000", {}, L"size \"100000\" is above the maximum of 99999 KB"},
      {L"12a", {}, L"size \"12a\" is not a number of KB"},
      {L"120;+5", {}, L"size \"+5\" is not a number of KB"},
      {L"1.5", {}, L"size \"1.5\" is not a number of KB"},
      {L"-5", {}, L"range \"-5\" needs a value on each side of \"-\""},
      {L"5-", {}, L"range \"5-\" needs a value on each side of \"-\""},
      {L"1-2-3", {}, L"size \"2-3\" is not a number of KB"},
      {L"1024-0", {}, L"range \"1024-0\" ends below its start"},
      {L" ; ", {}, L"size list \";\" holds no size"},
      {L"", {}, L"size list \"\" holds no size"},
  };
  for (const Case& c : cases) {
    const auto parsed = ParseSizeList(c.text);
    if (c.sizes.empty()) {
      EXPECT_FALSE(parsed) << Narrow(c.text);
      EXPECT_EQ(parsed.error, c.error) << Narrow(c.text);
    } else {
      ASSERT_TRUE(parsed) << Narrow(c.text) << " " << Narrow(parsed.error);
      EXPECT_EQ(*parsed.value, c.sizes) << Narrow(c.text);
    }
  }
}

TEST(ConditionSyntax, DomainLists) {
  struct Case {
    const wchar_t* text;
    std::vector<std::wstring> domains;  // empty: an error
    const wchar_t* error;
  };
  const std::vector<Case> cases = {
      {L"example.com", {L"example.com"}, L""},
      {L"Example.COM; mail.example-2.net", {L"example.com", L"mail.example-2.net"}, L""},
      {L"a.com\r\nb.org;\n", {L"a.com", L"b.org"}, L""},
      {L"localhost", {}, L"domain \"localhost\" is not a domain name such as example.com"},
      {L"a.com;user@b.com", {}, L"domain \"user@b.com\" is not a domain name such as example.com"},
      {L"a..com", {}, L"domain \"a..com\" is not a domain name such as example.com"},
      {L"-a.com", {}, L"domain \"-a.com\" is not a domain name such as example.com"},
      {L"a.com.", {}, L"domain \"a.com.\" is not a domain name such as example.com"},
      {L"邮件.com", {}, L"domain \"邮件.com\" is not a domain name such as example.com"},
      {L";;", {}, L"domain list \";;\" holds no domain"},
  };
  for (const Case& c : cases) {
    const auto parsed = ParseDomainList(c.text);
    if (c.domains.empty()) {
      EXPECT_FALSE(parsed) << Narrow(c.text);
      EXPECT_EQ(parsed.error, c.error) << Narrow(c.text);
    } else {
      ASSERT_TRUE(parsed) << Narrow(c.text) << " " << Narrow(parsed.error);
      EXPECT_EQ(*parsed.value, c.domains) << Narrow(c.text);
    }
  }
}

TEST(ConditionSyntax, ExpressionsJoinedWithAnd) {
  const auto all = ParseConditions(
      L"attachment=YES and size-included=120; 0-1024 AND size-excluded=500 and sender-domain-included=a.com "
      L"and sender-domain-excluded=b.com and receiver-domain-included=c.com;d.com and "
      L"receiver-domain-excluded=e.com");
  ASSERT_TRUE(all) << Narrow(all.error);
  const EmailConditions& c = *all.value;
  EXPECT_EQ(c.with_attachments, true);
  EXPECT_EQ(*c.size_included, (std::vector<SizeRange>{{120, 120}, {0, 1024}}));
  EXPECT_EQ(*c.size_excluded, (std::vector<SizeRange>{{500, 500}}));
  EXPECT_EQ(*c.sender_included, std::vector<std::wstring>{L"a.com"});
  EXPECT_EQ(*c.sender_excluded, std::vector<std::wstring>{L"b.com"});
  EXPECT_EQ(*c.receiver_included, (std::vector<std::wstring>{L"c.com", L"d.com"}));
  EXPECT_EQ(*c.receiver_excluded, std::vector<std::wstring>{L"e.com"});

  const auto one = ParseConditions(L"  attachment = no ");
  ASSERT_TRUE(one);
  EXPECT_EQ(one.value->with_attachments, false);
  EXPECT_FALSE(one.value->size_included);

  struct Bad {
    const wchar_t* text;
    const wchar_t* error;
  };
  const std::vector<Bad> bad = {
      {L"", L"no condition given"},
      {L"attachment", L"condition \"attachment\" is not written as name=value"},
      {L"attachment=yes and", L"condition \"\" is not written as name=value"},
      {L"and attachment=yes", L"condition \"\" is not written as name=value"},
      {L"=yes", L"condition \"=yes\" is not written as name=value"},
      {L"attachment=maybe", L"attachment condition \"maybe\" is neither \"yes\" nor \"no\""},
      {L"colour=red", L"unknown condition \"colour\""},
      {L"size-included=1 and Size-Included=2", L"condition \"Size-Included\" is given more than once"},
      {L"size-included=1 and size-excluded=2-1", L"range \"2-1\" ends below its start"},
      {L"attachment=yes andsize-included=1", L"attachment condition \"yes andsize-included=1\" is neither "
                                              L"\"yes\" nor \"no\""},
      {L"receiver-domain-excluded=x", L"domain \"x\" is not a domain name such as example.com"},
  };
  for (const Bad& b : bad) {
    const auto parsed = ParseConditions(b.text);
    EXPECT_FALSE(parsed) << Narrow(b.text);
    EXPECT_EQ(parsed.error, b.error) << Narrow(b.text);
  }
}

TEST(ConditionSyntax, ConditionsHoldTogether) {
  const EmailConditions conditions = *ParseConditions(
      L"attachment=yes and size-included=1-100 and size-excluded=50 and sender-domain-excluded=spam.com and "
      L"receiver-domain-included=example.com").value;
  EmailFacts facts{true, 10 * 1024, L"a@ok.org", {L"x@other.net", L"y@Mail.Example.com"}};
  EXPECT_TRUE(ConditionsHold(conditions, facts));

  struct Change {
    const char* name;
    void (*apply)(EmailFacts&);
  };
  const std::vector<Change> changes = {
      {"no attachment", [](EmailFacts& f) { f.has_attachments = false; }},
      {"too small", [](EmailFacts& f) { f.size_bytes = 1023; }},
      {"too large", [](EmailFacts& f) { f.size_bytes = 101 * 1024; }},
      {"excluded size", [](EmailFacts& f) { f.size_bytes = 50 * 1024 + 1023; }},
      {"excluded sender", [](EmailFacts& f) { f.sender_address = L"b@SPAM.com"; }},
      {"excluded sender subdomain", [](EmailFacts& f) { f.sender_address = L"b@x.spam.com"; }},
      {"no included receiver", [](EmailFacts& f) { f.receiver_addresses = {L"y@notexample.com"}; }},
      {"no receivers", [](EmailFacts& f) { f.receiver_addresses.clear(); }},
  };
  for (const Change& change : changes) {
    EmailFacts changed = facts;
    change.apply(changed);
    EXPECT_FALSE(ConditionsHold(conditions, changed)) << change.name;
  }
  EXPECT_TRUE(ConditionsHold(EmailConditions{}, EmailFacts{}));
}

}  // namespace
}  // namespace pelka
