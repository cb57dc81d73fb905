// The keyword automaton against a plain search.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "flow/MultiPatternSearcher.h"

namespace pelka {
namespace {

const uint8_t* Bytes(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

TEST(MultiPatternSearch, AgreesWithAPlainSearchOnRandomKeywordsAndTexts) {
  std::mt19937 random(12345);
  auto random_text = [&](size_t max_length, char alphabet_end) {
    std::uniform_int_distribution<size_t> length(1, max_length);
    std::uniform_int_distribution<int> letter('a', alphabet_end);
    std::string text(length(random), ' ');
    for (char& c : text) c = static_cast<char>(letter(random));
    return text;
  };
  for (int round = 0; round < 300; ++round) {
    const char alphabet_end = round % 2 ? 'c' : 'z';
    CMultiPatternSearcher searcher;
    searcher.Init();
    std::vector<std::string> keywords;
    const int keyword_count = 1 + round % 4;
    for (int k = 0; k < keyword_count; ++k) {
      keywords.push_back(random_text(6, alphabet_end));
      ASSERT_EQ(searcher.AddKeyword(Bytes(keywords.back()), keywords.back().size()), k);
    }
    for (int t = 0; t < 50; ++t) {
      const std::string text = random_text(60, alphabet_end);
      const bool found = std::any_of(keywords.begin(), keywords.end(),
                                     [&](const std::string& keyword) { return text.find(keyword) != text.npos; });
      ASSERT_EQ(searcher.Search(Bytes(text), text.size()), found)
          << "round " << round << " text " << text;
    }
  }
}

TEST(MultiPatternSearch, EmptyOrClearedSearcherFindsNothing) {
  CMultiPatternSearcher searcher;
  EXPECT_EQ(searcher.AddKeyword(Bytes("ab"), 2), -1) << "no root before Init";
  searcher.Init();
  EXPECT_FALSE(searcher.Search(Bytes("ab"), 2));
  EXPECT_EQ(searcher.AddKeyword(Bytes("ab"), 2), 0);
  EXPECT_TRUE(searcher.Search(Bytes("xab"), 3));
  searcher.Clear();
  EXPECT_FALSE(searcher.Search(Bytes("xab"), 3));
  searcher.Init();
  EXPECT_EQ(searcher.AddKeyword(Bytes("cd"), 2), 0) << "identifiers start again after Clear";
}

}  // namespace
}  // namespace pelka
