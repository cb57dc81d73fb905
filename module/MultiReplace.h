// Multi-pattern text replacement.
//
// A replacer holds a list of (pattern, replacement) pairs in insertion order
// and rewrites a text by replacing every occurrence of every pattern in one
// left-to-right scan. At each position the shortest pattern that matches wins;
// text produced by a replacement is never scanned again.
//
// The template does the work; the two operations that depend on the character
// type (length of a zero-terminated text, comparison) are supplied by the
// concrete class. CTQMultiReplaceW is the wide-character replacer.
//
// A replacer is not safe for concurrent use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <new>
#include <string>
#include <vector>

namespace pelka {

template <typename Char>
class CTQMultiReplaceImplT {
 public:
  // Patterns longer than this are refused.
  static constexpr uint32_t kMaxPatternLength = 65535;

  CTQMultiReplaceImplT() = default;
  CTQMultiReplaceImplT(const CTQMultiReplaceImplT&) = delete;
  CTQMultiReplaceImplT& operator=(const CTQMultiReplaceImplT&) = delete;
  virtual ~CTQMultiReplaceImplT() { ClearPatterns(); }

  // Number of characters of a zero-terminated text; 0 for a null text.
  virtual size_t TextLength(const Char* text) const = 0;

  // 1 when the texts are equal, else 0. Two null texts are equal, one null
  // text is unequal. case_sensitive 0 ignores letter case. count -1 compares
  // whole texts, any other count only the first `count` characters.
  virtual int CompareText(const Char* a, const Char* b, int case_sensitive, int count) const = 0;

  // Adds a pattern, or, when an equal pattern (case-sensitive) is present,
  // sets that entry's replacement and keeps its place in the list. A null or
  // empty replacement deletes the pattern from texts. A null, empty or too
  // long pattern is ignored, and so is a pattern that does not fit in memory.
  void AddPattern(const Char* pattern, const Char* replacement);

  // Removes every pattern. The result buffer is kept for reuse.
  void ClearPatterns() { entries_.clear(); }

  size_t PatternCount() const { return entries_.size(); }

  // Returns the text with all patterns replaced. The result is either `text`
  // itself (no patterns, null or empty text, or no memory for the work) or the
  // replacer's own buffer, valid until the next Replace or destruction.
  const Char* Replace(const Char* text);

 private:
  struct Entry {
    std::basic_string<Char> pattern;
    std::basic_string<Char> replacement;  // empty: the pattern is deleted
    uint32_t length = 0;
  };

  const Entry* FindMatch(const Char* probe, uint32_t length) const;
  uint32_t LongestPatternLength() const;
  // Makes room for `needed` characters, growing to the next multiple of 256.
  void Reserve(size_t needed);
  void Append(size_t& used, const Char* chars, size_t count);

  std::list<Entry> entries_;
  std::vector<Char> result_;
};

// The wide-character replacer.
class CTQMultiReplaceW final : public CTQMultiReplaceImplT<wchar_t> {
 public:
  size_t TextLength(const wchar_t* text) const override;
  int CompareText(const wchar_t* a, const wchar_t* b, int case_sensitive, int count) const override;
};

// ---------------------------------------------------------------------------

template <typename Char>
void CTQMultiReplaceImplT<Char>::AddPattern(const Char* pattern, const Char* replacement) {
  const size_t length = TextLength(pattern);
  if (length == 0 || length > kMaxPatternLength) return;
  const size_t replacement_length = TextLength(replacement);
  try {
    for (Entry& entry : entries_) {
      if (entry.length == length && CompareText(entry.pattern.c_str(), pattern, 1, -1)) {
        if (replacement_length) entry.replacement.assign(replacement, replacement_length);
        else entry.replacement.clear();
        return;
      }
    }
    Entry entry;
    entry.pattern.assign(pattern, length);
    if (replacement_length) entry.replacement.assign(replacement, replacement_length);
    entry.length = static_cast<uint32_t>(length);
    entries_.push_back(std::move(entry));
  } catch (const std::bad_alloc&) {
    // Out of memory drops the pattern silently.
  }
}

template <typename Char>
uint32_t CTQMultiReplaceImplT<Char>::LongestPatternLength() const {
  uint32_t longest = 0;
  for (const Entry& entry : entries_) longest = entry.length > longest ? entry.length : longest;
  return longest;
}

template <typename Char>
const typename CTQMultiReplaceImplT<Char>::Entry* CTQMultiReplaceImplT<Char>::FindMatch(
    const Char* probe, uint32_t length) const {
  for (const Entry& entry : entries_) {
    if (entry.length != length || entry.pattern[0] != probe[0]) continue;
    if (CompareText(entry.pattern.c_str(), probe, 1, static_cast<int>(length))) return &entry;
  }
  return nullptr;
}

template <typename Char>
void CTQMultiReplaceImplT<Char>::Reserve(size_t needed) {
  if (needed <= result_.size()) return;
  result_.resize((needed / 256 + 1) * 256);
}

template <typename Char>
void CTQMultiReplaceImplT<Char>::Append(size_t& used, const Char* chars, size_t count) {
  Reserve(used + count + 1);  // room for the terminating zero as well
  for (size_t i = 0; i < count; ++i) result_[used + i] = chars[i];
  used += count;
}

template <typename Char>
const Char* CTQMultiReplaceImplT<Char>::Replace(const Char* text) {
  const size_t text_length = TextLength(text);
  if (entries_.empty() || text_length == 0) return text;
  const uint32_t longest = LongestPatternLength();
  try {
    if (result_.empty()) result_.resize(text_length * 2 > 1024 ? text_length * 2 : 1024);
    size_t used = 0;
    size_t pos = 0;
    while (pos < text_length) {
      const Entry* match = nullptr;
      const size_t room = text_length - pos;
      const uint32_t limit = room < longest ? static_cast<uint32_t>(room) : longest;
      for (uint32_t probe = 1; probe <= limit && !match; ++probe) match = FindMatch(text + pos, probe);
      if (match) {
        Append(used, match->replacement.data(), match->replacement.size());
        pos += match->length;
      } else {
        Append(used, text + pos, 1);
        ++pos;
      }
    }
    Reserve(used + 1);
    result_[used] = Char(0);
    return result_.data();
  } catch (const std::bad_alloc&) {
    return text;
  }
}

}  // namespace pelka
