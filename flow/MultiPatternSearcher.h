// CMultiPatternSearcher: a keyword automaton that answers whether any of its
// byte keywords occurs in a text.
//
// The automaton is a trie whose every node has complete transitions (each byte
// leads to the deepest node whose path is a suffix of the node's path followed
// by that byte), so a search never backtracks. When all keywords are long and
// use few byte values, the search skips whole stretches: if the byte at
// "minimum keyword length - 1" ahead is used by no keyword, no keyword can
// start in those bytes. For the mail end marker "\r\n.\r\n" this reads about
// one byte in five of ordinary text. A lone keyword is searched as a plain
// byte sequence instead (see flow/ByteSearch.h), with the same answers.
//
// Built once, then only read: Search may run on several threads at once.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace pelka {

struct MatchEntry {
  int32_t keyword_length = 0;
  int32_t keyword_id = 0;
  MatchEntry* next = nullptr;
};

struct SearchNode {
  int32_t depth = 0;
  SearchNode* transitions[256] = {};
  // Keywords ending here (own and suffix ones), longest first; null when none.
  MatchEntry* matches = nullptr;
  uint32_t index = 0;
};

class CMultiPatternSearcher {
 public:
  // Creating a node fails once this many nodes exist beside the root.
  static constexpr size_t kMaxNodes = 1000000;

  CMultiPatternSearcher() = default;
  ~CMultiPatternSearcher() = default;
  CMultiPatternSearcher(const CMultiPatternSearcher&) = delete;
  CMultiPatternSearcher& operator=(const CMultiPatternSearcher&) = delete;

  // Creates the root. Needed before the first AddKeyword and after Clear.
  void Init();
  // Adds a keyword; returns its identifier (0 for the first), or -1 when the
  // automaton cannot grow (node limit, no memory, no root, empty keyword).
  // Keywords added before a failure stay usable.
  int32_t AddKeyword(const uint8_t* bytes, uint32_t length);
  // True when some keyword occurs in the text.
  bool Search(const uint8_t* text, uint64_t length) const;
  // Frees every node and match entry and forgets the keywords.
  void Clear();

  uint32_t distinct_chars() const { return distinct_chars_; }
  int32_t min_length() const { return min_length_; }
  size_t node_count() const { return nodes_.size(); }

 private:
  bool PlainScan(const uint8_t* text, uint64_t length) const;
  bool SkipScan(const uint8_t* text, uint64_t length) const;
  // Recomputes every fall-back transition and match list from the trie edges.
  void CompleteTransitions();

  std::vector<std::unique_ptr<SearchNode>> nodes_;
  bool char_used_[256] = {};
  uint32_t distinct_chars_ = 0;
  int32_t min_length_ = 0;
  SearchNode* root_ = nullptr;
  uint32_t keyword_count_ = 0;
  std::vector<std::unique_ptr<MatchEntry>> matches_;
  // Per node: the identifier and length of the keyword that ends exactly there
  // (-1 when none). Kept so the match lists can be rebuilt.
  std::vector<int32_t> own_keyword_;
  // The keyword while there is exactly one (the mail end marker): a single
  // sequence is found faster by jumping between its rarest byte.
  std::vector<uint8_t> only_keyword_;
};

}  // namespace pelka
