#include "flow/MultiPatternSearcher.h"

#include <deque>
#include <new>

#include "flow/ByteSearch.h"

namespace pelka {

void CMultiPatternSearcher::Init() {
  auto root = std::make_unique<SearchNode>();
  for (SearchNode*& next : root->transitions) next = root.get();
  root_ = root.get();
  nodes_.clear();
  own_keyword_.clear();
  only_keyword_.clear();
  nodes_.push_back(std::move(root));
  own_keyword_.push_back(-1);
}

void CMultiPatternSearcher::Clear() {
  root_ = nullptr;
  nodes_.clear();
  matches_.clear();
  own_keyword_.clear();
  only_keyword_.clear();
  std::fill(std::begin(char_used_), std::end(char_used_), false);
  distinct_chars_ = 0;
  min_length_ = 0;
  keyword_count_ = 0;
}

int32_t CMultiPatternSearcher::AddKeyword(const uint8_t* bytes, uint32_t length) {
  if (!root_ || !bytes || length == 0) return -1;
  // Count the nodes the keyword needs before changing anything.
  size_t new_nodes = 0;
  const SearchNode* walk = root_;
  for (uint32_t i = 0; i < length; ++i) {
    const SearchNode* next = walk ? walk->transitions[bytes[i]] : nullptr;
    if (walk && next->depth == walk->depth + 1) {
      walk = next;
    } else {
      walk = nullptr;
      ++new_nodes;
    }
  }
  if (nodes_.size() - 1 + new_nodes > kMaxNodes) return -1;

  try {
    nodes_.reserve(nodes_.size() + new_nodes);
    own_keyword_.reserve(nodes_.size() + new_nodes);
    SearchNode* node = root_;
    for (uint32_t i = 0; i < length; ++i) {
      SearchNode* next = node->transitions[bytes[i]];
      if (next->depth != node->depth + 1) {
        auto created = std::make_unique<SearchNode>();
        created->depth = node->depth + 1;
        created->index = static_cast<uint32_t>(nodes_.size());
        for (SearchNode*& fresh : created->transitions) fresh = root_;
        next = created.get();
        node->transitions[bytes[i]] = next;
        nodes_.push_back(std::move(created));
        own_keyword_.push_back(-1);
      }
      node = next;
    }
    const int32_t id = static_cast<int32_t>(keyword_count_);
    if (own_keyword_[node->index] < 0) own_keyword_[node->index] = id;
    CompleteTransitions();
    for (uint32_t i = 0; i < length; ++i) {
      if (!char_used_[bytes[i]]) {
        char_used_[bytes[i]] = true;
        ++distinct_chars_;
      }
    }
    if (min_length_ == 0 || static_cast<int32_t>(length) < min_length_) min_length_ = static_cast<int32_t>(length);
    if (keyword_count_ == 0) {
      only_keyword_.assign(bytes, bytes + length);
    } else {
      only_keyword_.clear();
    }
    ++keyword_count_;
    return id;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

void CMultiPatternSearcher::CompleteTransitions() {
  std::vector<SearchNode*> fallback(nodes_.size(), root_);
  matches_.clear();
  for (auto& node : nodes_) node->matches = nullptr;

  // Breadth-first over the trie edges: a node's fall-back is shallower, so it
  // is complete before the node itself is visited.
  std::deque<SearchNode*> queue;
  for (SearchNode*& next : root_->transitions) {
    if (next->depth == 1) {
      queue.push_back(next);
    } else {
      next = root_;
    }
  }
  while (!queue.empty()) {
    SearchNode* node = queue.front();
    queue.pop_front();
    const SearchNode* suffix = fallback[node->index];
    // Own keyword first (the longest), then the suffix node's list.
    MatchEntry* tail = suffix->matches;
    const int32_t own = own_keyword_[node->index];
    if (own >= 0 && (!tail || tail->keyword_length != node->depth)) {
      auto entry = std::make_unique<MatchEntry>(MatchEntry{node->depth, own, tail});
      tail = entry.get();
      matches_.push_back(std::move(entry));
    }
    node->matches = tail;
    for (int byte = 0; byte < 256; ++byte) {
      SearchNode*& next = node->transitions[byte];
      // Fall-backs never lead deeper than the node itself, so a transition one
      // level down is a trie edge.
      if (next->depth == node->depth + 1) {
        fallback[next->index] = suffix->transitions[byte];
        queue.push_back(next);
      } else {
        next = suffix->transitions[byte];
      }
    }
  }
}

bool CMultiPatternSearcher::Search(const uint8_t* text, uint64_t length) const {
  if (!root_ || !text || distinct_chars_ == 0 || distinct_chars_ > 256) return false;
  const bool skip = min_length_ >= 2 && distinct_chars_ != 256 &&
                    min_length_ >= static_cast<int32_t>(256 / (256 - distinct_chars_));
  if (keyword_count_ == 1 && !only_keyword_.empty()) {
    return FindSequence(text, length, only_keyword_.data(), only_keyword_.size()) != nullptr;
  }
  return skip ? SkipScan(text, length) : PlainScan(text, length);
}

bool CMultiPatternSearcher::PlainScan(const uint8_t* text, uint64_t length) const {
  const SearchNode* state = root_;
  for (uint64_t i = 0; i < length; ++i) {
    state = state->transitions[text[i]];
    if (state->matches) return true;
  }
  return false;
}

bool CMultiPatternSearcher::SkipScan(const uint8_t* text, uint64_t length) const {
  const uint64_t min_length = static_cast<uint64_t>(min_length_);
  const SearchNode* state = root_;
  uint64_t position = 0;
  uint64_t stay = 0;
  bool left_root = false;
  for (;;) {
    // The state is the root here: a keyword can only start at `position`.
    for (;;) {
      if (position >= length) return false;
      if (min_length <= length - position && char_used_[text[position + min_length - 1]]) break;
      position += min_length;
    }
    for (;;) {
      if (position >= length) return false;
      state = state->transitions[text[position++]];
      if (state->matches) return true;
      if (state != root_) {
        left_root = true;
        continue;
      }
      if (left_root) {
        left_root = false;
        stay = 0;
        break;
      }
      if (++stay >= min_length) {
        stay = 0;
        break;
      }
    }
  }
}

}  // namespace pelka
