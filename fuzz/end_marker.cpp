// The keyword automaton must answer exactly what a naive search answers: once
// for the module's own end marker, and once for a keyword set taken from the
// input (small alphabets and long keywords reach the skip scan, large ones the
// plain scan).
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "flow/MultiPatternSearcher.h"
#include "module/EmailModule.h"

namespace {

using pelka::CMultiPatternSearcher;

bool NaiveContains(const std::string& text, const std::vector<std::string>& keywords) {
  return std::any_of(keywords.begin(), keywords.end(),
                     [&](const std::string& keyword) { return text.find(keyword) != std::string::npos; });
}

void Check(const CMultiPatternSearcher& searcher, const std::string& text, const std::vector<std::string>& keywords) {
  const bool found = searcher.Search(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  if (found == NaiveContains(text, keywords)) return;
  std::fprintf(stderr, "searcher answered %d for %zu keywords over %zu bytes; the naive search disagrees\n", found,
               keywords.size(), text.size());
  std::abort();
}

// Bytes of a keyword or text: from a small alphabet (so that keywords overlap
// and occur) or raw.
std::string Draw(FuzzedDataProvider& input, size_t max_length, const std::string& alphabet) {
  std::string drawn = input.ConsumeRandomLengthString(max_length);
  if (alphabet.empty()) return drawn;
  for (char& c : drawn) c = alphabet[static_cast<uint8_t>(c) % alphabet.size()];
  return drawn;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const pelka::CPelkaEmailModule module;
  static const std::vector<std::string> kEndMarker = {"\r\n.\r\n"};

  FuzzedDataProvider input(data, size);
  const int alphabet_choice = input.ConsumeIntegralInRange<int>(0, 3);
  static const std::string kAlphabets[] = {"\r\n.", "ab", "abcdefgh\r\n.", ""};
  const std::string& alphabet = kAlphabets[alphabet_choice];

  CMultiPatternSearcher searcher;
  searcher.Init();
  std::vector<std::string> keywords;
  const int keyword_count = input.ConsumeIntegralInRange<int>(0, 8);
  for (int i = 0; i < keyword_count; ++i) {
    const std::string keyword = Draw(input, 12, alphabet);
    const int32_t id = searcher.AddKeyword(reinterpret_cast<const uint8_t*>(keyword.data()),
                                           static_cast<uint32_t>(keyword.size()));
    if (keyword.empty()) {
      if (id != -1) std::abort();  // an empty keyword is refused
      continue;
    }
    if (id != static_cast<int32_t>(keywords.size())) std::abort();
    keywords.push_back(keyword);
  }
  // Rebuilding after Clear must give the same automaton.
  if (input.ConsumeBool()) {
    searcher.Clear();
    searcher.Init();
    for (const std::string& keyword : keywords) {
      searcher.AddKeyword(reinterpret_cast<const uint8_t*>(keyword.data()), static_cast<uint32_t>(keyword.size()));
    }
  }

  const std::string text = Draw(input, 4096, input.ConsumeBool() ? alphabet : std::string());
  Check(searcher, text, keywords);
  Check(module.end_marker_searcher(), text, kEndMarker);
  return 0;
}
