#include "host/DataFormat.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace pelka {
namespace {

TEST(DataFormat, FormatsIpv4AsDottedDecimal) {
  struct Case {
    uint32_t address;
    const wchar_t* expected;
  };
  const std::vector<Case> cases = {
      {0x00000000u, L"0.0.0.0"},     {0xFFFFFFFFu, L"255.255.255.255"}, {0xC0A80001u, L"192.168.0.1"},
      {0x0A000102u, L"10.0.1.2"},    {0x7F000001u, L"127.0.0.1"},       {0x01020304u, L"1.2.3.4"},
  };
  const CTQDataFormat format;
  for (const Case& c : cases) EXPECT_EQ(format.FormatIpAddress(c.address), c.expected);
}

}  // namespace
}  // namespace pelka
