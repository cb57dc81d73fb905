// FindSequence must answer exactly as memmem, and the keyword automaton as a
// plain search, whatever the text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "flow/ByteSearch.h"
#include "flow/MultiPatternSearcher.h"

namespace pelka {
namespace {

const uint8_t* Bytes(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

long Position(const std::string& haystack, const std::string& needle) {
  const uint8_t* found = FindSequence(Bytes(haystack), haystack.size(), Bytes(needle), needle.size());
  return found ? static_cast<long>(found - Bytes(haystack)) : -1;
}

// Random text of the given length over the given letters.
std::string RandomText(std::mt19937& random, size_t length, const std::string& alphabet) {
  std::string text(length, 'x');
  for (char& c : text) c = alphabet[random() % alphabet.size()];
  return text;
}

TEST(FindSequence, ATextFullOfTheAnchorByteStillFindsTheLateMatch) {
  // Every byte is the needle's rarest one, so comparing soon costs more than
  // the text's length and the search hands the rest over. The random texts
  // below are too short to get there.
  const std::string anchors = std::string(100000, '.') + "..x";
  EXPECT_EQ(Position(anchors, "..x"), static_cast<long>(anchors.size() - 3));
  EXPECT_EQ(Position(anchors, "...y"), -1);
  EXPECT_EQ(Position("abc", ""), 0);
}

TEST(FindSequence, AgreesWithMemmemOnRandomAndCrowdedTexts) {
  std::mt19937 random(11);
  // The end marker's bytes, a header's, and one letter crowding out another.
  const std::string alphabets[] = {"ab.\r\n", "-:C ", "aaaab"};
  for (int round = 0; round < 30000; ++round) {
    const std::string haystack = RandomText(random, random() % 200, alphabets[round % 3]);
    const std::string needle = RandomText(random, 1 + random() % 6, alphabets[round % 3]);
    const void* found = memmem(haystack.data(), haystack.size(), needle.data(), needle.size());
    ASSERT_EQ(Position(haystack, needle), found ? static_cast<const char*>(found) - haystack.data() : -1)
        << testing::PrintToString(haystack) << " / " << testing::PrintToString(needle);
  }
}

TEST(MultiPatternSearch, AgreesWithAPlainSearchOnRandomKeywordsAndTexts) {
  std::mt19937 random(12345);
  for (int round = 0; round < 300; ++round) {
    const std::string alphabet = round % 2 ? "abc" : "abcdefghijklmnopqrstuvwxyz";
    CMultiPatternSearcher searcher;
    searcher.Init();
    std::vector<std::string> keywords;
    for (int k = 0; k < 1 + round % 4; ++k) {
      keywords.push_back(RandomText(random, 1 + random() % 6, alphabet));
      ASSERT_EQ(searcher.AddKeyword(Bytes(keywords.back()), keywords.back().size()), k);
    }
    for (int t = 0; t < 50; ++t) {
      const std::string text = RandomText(random, 1 + random() % 60, alphabet);
      const bool found = std::any_of(keywords.begin(), keywords.end(),
                                     [&](const std::string& keyword) { return text.find(keyword) != text.npos; });
      ASSERT_EQ(searcher.Search(Bytes(text), text.size()), found) << "round " << round << " text " << text;
    }
  }
}

}  // namespace
}  // namespace pelka
