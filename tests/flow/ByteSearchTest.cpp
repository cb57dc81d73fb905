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
  };
  const Case cases[] = {
      {"abc", "", 0},
      {"", "a", -1},
      {"ab", "abc", -1},
      {"xx\r\n.\r\n", "\r\n.\r\n", 2},
      {"\r\n.\r", "\r\n.\r\n", -1},
      {"a.b.\r\n.\r\n", "\r\n.\r\n", 4},
      {"\r\n\r\n.\r\n", "\r\n.\r\n", 2},  // a false start right before the marker
      {"\r\r\n.\r\n", "\r\n.\r\n", 1},
      {"line\r\n..\r\nmore", "\r\n.\r\n", -1},  // a dot-stuffed line
      {"Content-Type: x\r\nContent-Disposition: attachment;", "Content-Disposition: attachment", 17},
      {"A4 OKA4 OK", "A4 OK", 0},
      {"zzA4 O", "A4 OK", -1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Position(c.haystack, c.needle), c.expected) << testing::PrintToString(c.haystack);
  }
}

TEST(FindSequence, AgreesWithMemmemOnRandomAndCrowdedTexts) {
  std::mt19937 random(11);
  const std::string alphabets[] = {"ab.\r\n", "-:C ", "aaaab"};
  for (int round = 0; round < 30000; ++round) {
    const std::string& alphabet = alphabets[round % 3];
    std::string haystack(random() % 200, 'x');
    for (char& c : haystack) c = alphabet[random() % alphabet.size()];
    std::string needle(1 + random() % 6, 'x');
    for (char& c : needle) c = alphabet[random() % alphabet.size()];
    ASSERT_EQ(Position(haystack, needle), MemmemPosition(haystack, needle))
        << testing::PrintToString(haystack) << " / " << testing::PrintToString(needle);
  }
}

TEST(FindSequence, ATextFullOfTheAnchorByteStillFindsTheLateMatch) {
  // Every byte is the needle's rarest one, so comparing soon costs more than
  // the text's length and the search hands the rest over.
  std::string haystack(100000, '.');
  haystack += "..x";
  EXPECT_EQ(Position(haystack, "..x"), static_cast<long>(haystack.size() - 3));
  EXPECT_EQ(Position(haystack, "...y"), -1);
}

}  // namespace
}  // namespace pelka
