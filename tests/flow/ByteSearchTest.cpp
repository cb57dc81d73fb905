// FindSequence must answer exactly as memmem, whatever the text.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "flow/ByteSearch.h"

namespace pelka {
namespace {

const uint8_t* Bytes(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

long Position(const std::string& haystack, const std::string& needle) {
  const uint8_t* found = FindSequence(Bytes(haystack), haystack.size(), Bytes(needle), needle.size());
  return found ? static_cast<long>(found - Bytes(haystack)) : -1;
}

long MemmemPosition(const std::string& haystack, const std::string& needle) {
  const void* found = memmem(haystack.data(), haystack.size(), needle.data(), needle.size());
  return found ? static_cast<long>(static_cast<const char*>(found) - haystack.data()) : -1;
}

TEST(FindSequence, Cases) {
  struct Case {
    std::string haystack, needle;
    long expected;
  } cases[] = {
      {"abc", "", 0},
      {"ab", "abc", -1},
      {"\r\n.\r", "\r\n.\r\n", -1},
      {"\r\n\r\n.\r\n", "\r\n.\r\n", 2},  // a false start right before the marker
      {"\r\r\n.\r\n", "\r\n.\r\n", 1},
      {"line\r\n..\r\nmore", "\r\n.\r\n", -1},  // a dot-stuffed line
      {"A4 OKA4 OK", "A4 OK", 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Position(c.haystack, c.needle), c.expected) << testing::PrintToString(c.haystack);
  }
  // Every byte is the needle's rarest one, so comparing soon costs more than
  // the text's length and the search hands the rest over.
  const std::string anchors = std::string(100000, '.') + "..x";
  EXPECT_EQ(Position(anchors, "..x"), static_cast<long>(anchors.size() - 3));
  EXPECT_EQ(Position(anchors, "...y"), -1);
}

TEST(FindSequence, AgreesWithMemmemOnRandomAndCrowdedTexts) {
  std::mt19937 random(11);
  const std::string alphabets[] = {"ab.\r\n", "-:C ", "aaaab"};
  const auto random_text = [&](size_t length, const std::string& alphabet) {
    std::string text(length, 'x');
    for (char& c : text) c = alphabet[random() % alphabet.size()];
    return text;
  };
  for (int round = 0; round < 30000; ++round) {
    const std::string haystack = random_text(random() % 200, alphabets[round % 3]);
    const std::string needle = random_text(1 + random() % 6, alphabets[round % 3]);
    ASSERT_EQ(Position(haystack, needle), MemmemPosition(haystack, needle))
        << testing::PrintToString(haystack) << " / " << testing::PrintToString(needle);
  }
}

}  // namespace
}  // namespace pelka
