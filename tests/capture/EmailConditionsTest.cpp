// The condition language of the command line: parsing and the test on one message.
#include "capture/EmailConditions.h"

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace pelka {
namespace {

// A parsed list as "a|b|..." or its error text.
template <typename T>
std::wstring Render(const Parsed<std::vector<T>>& parsed) {
  if (!parsed) return L"error: " + parsed.error;
  std::wstring out;
  for (const T& item : *parsed.value) {
    if constexpr (std::is_same_v<T, SizeRange>) {
      out += L"|" + std::to_wstring(item.low_kb) + L"-" + std::to_wstring(item.high_kb);
    } else {
      out += L"|" + item;
    }
  }
  return out.erase(0, 1);
}

TEST(ConditionSyntax, SizeAndDomainLists) {
  const std::wstring not_a_domain = L"\" is not a domain name such as example.com";
  const std::vector<std::pair<std::wstring, std::wstring>> cases = {
      {Render(ParseSizeList(L" 120; 0 - 1024 ;")), L"120-120|0-1024"},
      {Render(ParseSizeList(L"00099999")), L"99999-99999"},
      {Render(ParseSizeList(L"1-100000")), L"error: size \"100000\" is above the maximum of 99999 KB"},
      {Render(ParseSizeList(L"99999999999999999999")),
       L"error: size \"99999999999999999999\" is above the maximum of 99999 KB"},
      {Render(ParseSizeList(L"120;+5")), L"error: size \"+5\" is not a number of KB"},
      {Render(ParseSizeList(L"-5")), L"error: range \"-5\" needs a value on each side of \"-\""},
      {Render(ParseSizeList(L"1-2-3")), L"error: size \"2-3\" is not a number of KB"},
      {Render(ParseSizeList(L"1024-0")), L"error: range \"1024-0\" ends below its start"},
      {Render(ParseSizeList(L" ; ")), L"error: size list \";\" holds no size"},
      {Render(ParseDomainList(L"Example.COM; mail.example-2.net")), L"example.com|mail.example-2.net"},
      {Render(ParseDomainList(L"a.com\r\nb.org;\n")), L"a.com|b.org"},
      {Render(ParseDomainList(L"localhost")), L"error: domain \"localhost" + not_a_domain},
      {Render(ParseDomainList(L"a.com;@b.com")), L"error: domain \"@b.com" + not_a_domain},
      {Render(ParseDomainList(L"a..com")), L"error: domain \"a..com" + not_a_domain},
      {Render(ParseDomainList(L"-a.com")), L"error: domain \"-a.com" + not_a_domain},
      {Render(ParseDomainList(L";;")), L"error: domain list \";;\" holds no domain"},
  };
  for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

TEST(ConditionSyntax, ExpressionsJoinedWithAnd) {
  // Which name fills which field is decided by ConditionsHoldTogether and the
  // program's condition rows; receiver-domain-excluded is read only here.
  const auto all = ParseConditions(L"attachment=YES and size-included=120; 0-1024 AND receiver-domain-excluded=e.com");
  ASSERT_TRUE(all) << testing::PrintToString(all.error);
  EXPECT_EQ(all.value->with_attachments, true);
  EXPECT_EQ(*all.value->size_included, (std::vector<SizeRange>{{120, 120}, {0, 1024}}));
  EXPECT_EQ(*all.value->receiver_excluded, std::vector<std::wstring>{L"e.com"});
  const auto one = ParseConditions(L"  attachment = no ");
  ASSERT_TRUE(one);
  EXPECT_EQ(one.value->with_attachments, false);
  EXPECT_FALSE(one.value->size_included);

  const std::vector<std::pair<const wchar_t*, std::wstring>> bad = {
      {L"", L"no condition given"},
      {L"attachment", L"condition \"attachment\" is not written as name=value"},
      {L"attachment=yes and", L"condition \"\" is not written as name=value"},
      {L"and attachment=yes", L"condition \"\" is not written as name=value"},
      {L"attachment=maybe", L"attachment condition \"maybe\" is neither \"yes\" nor \"no\""},
      {L"colour=red", L"unknown condition \"colour\""},
      {L"size-included=1 and Size-Included=2", L"condition \"Size-Included\" is given more than once"},
      {L"size-included=1 and size-excluded=2-1", L"range \"2-1\" ends below its start"},
      {L"attachment=yes andsize-included=1",
       L"attachment condition \"yes andsize-included=1\" is neither \"yes\" nor \"no\""},
      {L"receiver-domain-excluded=x", L"domain \"x\" is not a domain name such as example.com"},
  };
  for (const auto& [text, error] : bad) {
    const auto parsed = ParseConditions(text);
    EXPECT_FALSE(parsed) << testing::PrintToString(text);
    EXPECT_EQ(parsed.error, error) << testing::PrintToString(text);
  }
}

TEST(ConditionSyntax, ConditionsHoldTogether) {
  const EmailConditions conditions = *ParseConditions(
      L"attachment=yes and size-included=1-100 and size-excluded=50 and sender-domain-excluded=spam.com and "
      L"receiver-domain-included=example.com").value;
  const EmailFacts facts{true, 10 * 1024, L"a@ok.org", {L"x@other.net", L"y@Mail.Example.com"}};
  EXPECT_TRUE(ConditionsHold(conditions, facts));
  const std::vector<std::pair<const char*, void (*)(EmailFacts&)>> changes = {
      {"no attachment", [](EmailFacts& f) { f.has_attachments = false; }},
      {"too small", [](EmailFacts& f) { f.size_bytes = 1023; }},
      {"too large", [](EmailFacts& f) { f.size_bytes = 101 * 1024; }},
      {"excluded size", [](EmailFacts& f) { f.size_bytes = 50 * 1024 + 1023; }},
      {"excluded sender", [](EmailFacts& f) { f.sender_address = L"b@SPAM.com"; }},
      {"excluded sender subdomain", [](EmailFacts& f) { f.sender_address = L"b@x.spam.com"; }},
      {"no included receiver", [](EmailFacts& f) { f.receiver_addresses = {L"y@notexample.com"}; }},
      {"no receivers", [](EmailFacts& f) { f.receiver_addresses.clear(); }},
  };
  for (const auto& [name, apply] : changes) {
    EmailFacts changed = facts;
    apply(changed);
    EXPECT_FALSE(ConditionsHold(conditions, changed)) << name;
  }
  EXPECT_TRUE(ConditionsHold(EmailConditions{}, EmailFacts{}));
}

}  // namespace
}  // namespace pelka
