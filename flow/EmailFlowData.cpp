#include "flow/EmailFlowData.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "flow/ByteSearch.h"
#include "host/AsciiText.h"

namespace pelka {
namespace {

constexpr uint8_t kCr = '\r';
constexpr uint8_t kLf = '\n';

bool IsBlank(uint8_t byte) { return byte == ' ' || byte == '\t'; }

// Size of a grown buffer: the next multiple of 256 above n (a full 256 more
// when n already is one), so that many small appends reallocate rarely.
uint64_t GrownCapacity(uint64_t n) { return n + 256 - (n % 256); }

struct ByteSet {
  explicit ByteSet(const char* bytes) {
    if (!bytes) return;
    for (const char* p = bytes; *p; ++p) member[static_cast<uint8_t>(*p)] = true;
  }
  bool member[256] = {};
};

}  // namespace

uint32_t CEmailFlowDataImpl::Reserve(uint32_t capacity) {
  if (capacity > capacity_ && MakeRoom(capacity)) capacity_ = capacity;
  return 0;
}

CEmailFlowDataImpl::~CEmailFlowDataImpl() {
  if (pool_ && owned_) pool_->Give(std::move(owned_));
}

bool CEmailFlowDataImpl::MakeRoom(uint64_t capacity) {
  if (!owned_ && pool_) owned_ = pool_->Take();
  if (capacity > owned_.size()) {
    // The allocation at least doubles, so a message collected packet by
    // packet is copied a bounded number of times in all (large buffers grow
    // without copying); pages never written stay untouched.
    uint64_t doubled = uint64_t{owned_.size()} * 2;
    if (growth_limit_) doubled = std::min<uint64_t>(doubled, growth_limit_);
    const uint64_t size = std::min<uint64_t>(std::max(capacity, doubled), UINT32_MAX);
    if (size < capacity) return false;
    if (!owned_.Grow(static_cast<uint32_t>(size), start_offset_ + retained_length_)) return false;
  }
  if (start_offset_ && retained_length_) {
    std::memmove(owned_.get(), owned_.get() + start_offset_, retained_length_);
  }
  start_offset_ = 0;
  return true;
}

void CEmailFlowDataImpl::Append(const uint8_t* bytes, uint32_t length) {
  if (!bytes || length == 0) return;
  Commit();
  staged_ = bytes;
  staged_length_ = length;
}

void CEmailFlowDataImpl::Commit() {
  if (!staged_) return;
  const uint64_t free_room = uint64_t{capacity_} - start_offset_ - retained_length_;
  if (free_room < staged_length_) {
    const uint64_t needed = GrownCapacity(uint64_t{retained_length_} + staged_length_);
    if (needed > UINT32_MAX || !MakeRoom(needed)) {  // without memory the staged block is dropped
      staged_ = nullptr;
      staged_length_ = 0;
      return;
    }
    capacity_ = static_cast<uint32_t>(needed);
  }
  std::memcpy(owned_.get() + start_offset_ + retained_length_, staged_, staged_length_);
  retained_length_ += staged_length_;
  staged_ = nullptr;
  staged_length_ = 0;
}

void CEmailFlowDataImpl::Consume(uint32_t count) {
  if (count >= retained_length_) {
    count -= retained_length_;
    retained_length_ = 0;
    start_offset_ = 0;
  } else {
    retained_length_ -= count;
    start_offset_ += count;
    return;
  }
  if (count >= staged_length_) {
    staged_ = nullptr;
    staged_length_ = 0;
  } else {
    staged_ += count;
    staged_length_ -= count;
  }
}

uint32_t CEmailFlowDataImpl::ClearData() {
  retained_length_ = 0;
  start_offset_ = 0;
  staged_ = nullptr;
  staged_length_ = 0;
  return 0;
}

uint8_t CEmailFlowDataImpl::GetByte(uint32_t index) {
  if (index < retained_length_) return owned_.get()[start_offset_ + index];
  const uint64_t staged_index = uint64_t{index} - retained_length_;
  return staged_index < staged_length_ ? staged_[staged_index] : 0;
}

uint32_t CEmailFlowDataImpl::Reserved19(uint32_t* out) {
  if (out) *out = 0;
  return kStatusNotImplemented;
}

uint32_t CEmailFlowDataImpl::RangeEnd(uint32_t start, int32_t limit) {
  const uint32_t length = GetLength();
  if (start > length) return start;
  if (limit < 0) return length;
  return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{start} + static_cast<uint32_t>(limit), length));
}

const uint8_t* CEmailFlowDataImpl::ContiguousRange(uint32_t start, uint32_t end) const {
  if (end <= retained_length_) return owned_.get() + start_offset_ + start;
  if (start >= retained_length_) return staged_ + (start - retained_length_);
  return nullptr;
}

void CEmailFlowDataImpl::CopyRange(uint32_t start, uint32_t end, uint8_t* destination) {
  if (start >= end) return;
  if (start < retained_length_) {
    const uint32_t retained_end = std::min(end, retained_length_);
    std::memcpy(destination, owned_.get() + start_offset_ + start, retained_end - start);
    destination += retained_end - start;
    start = retained_end;
  }
  if (start < end) std::memcpy(destination, staged_ + (start - retained_length_), end - start);
}

bool CEmailFlowDataImpl::EnsureScratch(uint32_t size) {
  if (size <= scratch_capacity_) return true;
  std::unique_ptr<uint8_t[]> grown(new (std::nothrow) uint8_t[size]);
  if (!grown) return false;
  scratch_ = std::move(grown);
  scratch_capacity_ = size;
  return true;
}

const uint8_t* CEmailFlowDataImpl::CopyToScratch(uint32_t start, uint32_t end, uint32_t zeros) {
  const uint64_t count = end > start ? end - start : 0;
  // Room for at least a wide terminator, so the empty text is always valid.
  const uint64_t size = std::max<uint64_t>(count + zeros, sizeof(wchar_t));
  if (size > UINT32_MAX || !EnsureScratch(static_cast<uint32_t>(size))) {
    static const uint8_t kEmpty[sizeof(wchar_t)] = {};
    return kEmpty;
  }
  std::memset(scratch_.get(), 0, size);
  CopyRange(start, end, scratch_.get());
  return scratch_.get();
}

const uint8_t* CEmailFlowDataImpl::GetCopy(uint32_t start, int32_t limit) {
  return CopyToScratch(start, RangeEnd(start, limit), 0);
}

const wchar_t* CEmailFlowDataImpl::GetStringW(uint32_t start, int32_t limit) {
  // The bytes are followed by a whole wide terminator of this platform.
  const uint32_t end = RangeEnd(start, limit);
  return reinterpret_cast<const wchar_t*>(CopyToScratch(start, end, sizeof(wchar_t)));
}

const char* CEmailFlowDataImpl::GetStringA(uint32_t start, int32_t limit) {
  return reinterpret_cast<const char*>(CopyToScratch(start, RangeEnd(start, limit), 1));
}

const uint8_t* CEmailFlowDataImpl::GetBuffer(uint32_t start, uint32_t count) {
  if (count == 0 || uint64_t{start} + count > GetLength()) return nullptr;
  const uint32_t end = start + count;
  if (const uint8_t* contiguous = ContiguousRange(start, end)) return contiguous;
  return CopyToScratch(start, end, 0);
}

uint32_t CEmailFlowDataImpl::CopyOut(uint32_t start, uint8_t* destination, int32_t limit) {
  if (destination) CopyRange(start, RangeEnd(start, limit), destination);
  return 0;
}

uint32_t CEmailFlowDataImpl::FindBytes(uint32_t start, const uint8_t* needle, int32_t needle_length, int32_t limit) {
  if (!needle) return kNotFound;
  const uint64_t pattern_length =
      needle_length < 0 ? std::strlen(reinterpret_cast<const char*>(needle)) : static_cast<uint64_t>(needle_length);
  const uint32_t end = RangeEnd(start, limit);
  // A match must end before the range's last byte.
  if (uint64_t{start} + pattern_length + 1 > end) return kNotFound;
  const uint32_t search_end = end - 1;
  if (const uint8_t* bytes = ContiguousRange(start, search_end)) {
    const uint8_t* found = FindSequence(bytes, search_end - start, needle, pattern_length);
    return found ? start + static_cast<uint32_t>(found - bytes) : kNotFound;
  }
  for (uint32_t p = start; p + pattern_length <= search_end; ++p) {
    uint64_t i = 0;
    while (i < pattern_length && GetByte(static_cast<uint32_t>(p + i)) == needle[i]) ++i;
    if (i == pattern_length) return p;
  }
  return kNotFound;
}

uint32_t CEmailFlowDataImpl::FindText(const char* text, uint32_t start, int32_t limit) {
  return FindBytes(start, reinterpret_cast<const uint8_t*>(text), -1, limit);
}

uint32_t CEmailFlowDataImpl::FindByte(uint8_t byte, uint32_t start, int32_t limit) {
  return FindBytes(start, &byte, 1, limit);
}

uint32_t CEmailFlowDataImpl::ScanForByte(uint32_t start, uint8_t byte, int32_t limit) {
  const uint32_t end = RangeEnd(start, limit);
  for (uint32_t p = start; p < end; ++p) {
    if (GetByte(p) == byte) return p;
  }
  return kNotFound;
}

uint32_t CEmailFlowDataImpl::FindAnyOf(uint32_t start, const char* set, int32_t limit) {
  const ByteSet members(set);
  const uint32_t end = RangeEnd(start, limit);
  for (uint32_t p = start; p < end; ++p) {
    if (members.member[GetByte(p)]) return p;
  }
  return kNotFound;
}

uint32_t CEmailFlowDataImpl::GetLineLength(int with_line_break, uint32_t start, int32_t limit) {
  const uint32_t end = RangeEnd(start, limit);
  uint32_t p = start;
  while (p < end && GetByte(p) != kCr && GetByte(p) != kLf && GetByte(p) != 0) ++p;
  if (p >= end) return kNotFound;
  if (!with_line_break) return p;
  while (p < end && (GetByte(p) == kCr || GetByte(p) == 0)) ++p;
  if (p >= end) return end - start;
  return GetByte(p) == kLf ? p - start + 1 : p - start;
}

int CEmailFlowDataImpl::CompareNoCase(const char* text, int32_t length, uint32_t start) {
  if (!text) return 1;
  const uint64_t count = length < 0 ? std::strlen(text) : static_cast<uint64_t>(length);
  if (uint64_t{start} + count > GetLength()) return 1;
  for (uint64_t i = 0; i < count; ++i) {
    const uint8_t stored = ToLowerAscii(GetByte(static_cast<uint32_t>(start + i)));
    if (stored != ToLowerAscii(static_cast<uint8_t>(text[i]))) return 1;
  }
  return 0;
}

int CEmailFlowDataImpl::Compare(const char* text, int32_t length, uint32_t start) {
  if (length < 1) return 0;
  if (!text || uint64_t{start} + static_cast<uint32_t>(length) > GetLength()) return 1;
  for (int32_t i = 0; i < length; ++i) {
    if (GetByte(start + i) != static_cast<uint8_t>(text[i])) return 1;
  }
  return 0;
}

uint32_t CEmailFlowDataImpl::Tokenize(uint32_t start, const char* delimiters, int32_t limit) {
  const ByteSet delimiter(delimiters);
  const uint32_t end = RangeEnd(start, limit);
  token_count_ = 0;
  uint32_t p = start;
  while (token_count_ < kMaxTokens) {
    while (p < end && delimiter.member[GetByte(p)]) ++p;
    if (p >= end) break;
    const uint32_t token_start = p;
    while (p < end && !delimiter.member[GetByte(p)]) ++p;
    tokens_[token_count_++] = {token_start, p - token_start};
    if (p < end) ++p;  // the delimiter that ended the token
  }
  return token_count_;
}

const char* CEmailFlowDataImpl::GetToken(uint32_t index) {
  if (index >= token_count_) return "";
  return GetStringA(tokens_[index].offset, static_cast<int32_t>(tokens_[index].length));
}

namespace {

// On to the first CR LF not followed by a tab, and past it; the end when none.
uint32_t SkipContinuation(const uint8_t* bytes, uint32_t p, uint32_t end) {
  while (p + 1 < end) {
    if (bytes[p] == kCr && bytes[p + 1] == kLf && (p + 2 >= end || bytes[p + 2] != '\t')) return p + 2;
    ++p;
  }
  return end;
}

// Finds where the name scan of a header walk stops (the first ':' or LF from
// a position) without visiting every byte of the lines that hold no field; a
// message body is mostly such lines. The next colon and the next tab are
// remembered, so over a whole walk each byte is searched a bounded number of
// times.
class NameScan {
 public:
  NameScan(const uint8_t* bytes, uint32_t end) : bytes_(bytes), end_(end) {}

  // The first ':' or LF at or after p, or the last LF before the next colon or
  // tab: up to there every line is plain (no field, no continuation), and the
  // walk would step over those lines LF by LF to the same place.
  uint32_t Next(uint32_t p) {
    if (!searched_ || next_colon_ < p) next_colon_ = Find(':', p, end_);
    // Without a colon ahead no line holds a field: the walk would only step
    // to the end, most often through a message's whole body.
    if (next_colon_ == end_) return end_;
    // A tab past the next colon does not change where this scan stops.
    if (!searched_ || next_tab_ < p) next_tab_ = Find('\t', p, next_colon_);
    searched_ = true;
    const uint32_t plain_end = std::min(next_colon_, next_tab_);
    if (const void* lf = memrchr(bytes_ + p, kLf, plain_end - p)) {
      return static_cast<uint32_t>(static_cast<const uint8_t*>(lf) - bytes_);
    }
    if (plain_end == next_colon_) return next_colon_;
    // A tab in p's line: the line ends at its LF unless a colon comes first.
    return std::min(Find(kLf, plain_end, next_colon_), next_colon_);
  }

 private:
  // The first `byte` in [from, to), or `to`.
  uint32_t Find(uint8_t byte, uint32_t from, uint32_t to) const {
    const void* found = std::memchr(bytes_ + from, byte, to - from);
    return found ? static_cast<uint32_t>(static_cast<const uint8_t*>(found) - bytes_) : to;
  }

  const uint8_t* bytes_;
  uint32_t end_;
  bool searched_ = false;
  uint32_t next_colon_ = 0;
  uint32_t next_tab_ = 0;
};

}  // namespace

uint32_t CEmailFlowDataImpl::IndexHeader(uint32_t start, int32_t limit, uint32_t* out) {
  const uint32_t end = RangeEnd(start, limit);
  header_count_ = 0;
  if (start >= end) {
    if (out) *out = end;
    return end;
  }
  // The walk reads the range as one block, offset so that positions stay
  // absolute; the store only splits a range while a block is staged.
  const uint8_t* block = ContiguousRange(start, end);
  if (!block) block = CopyToScratch(start, end, 0);
  const uint8_t* bytes = block - start;
  uint32_t p = start;
  uint32_t result = end;
  NameScan name_scan(bytes, end);
  for (;;) {
    while (p < end && IsBlank(bytes[p])) ++p;
    if (p >= end) break;
    const uint32_t name_start = p;
    p = name_scan.Next(p);
    if (p >= end) break;
    if (bytes[p] == kLf) {  // a line without a field
      ++p;
      if (p < end && bytes[p] == '\t') p = SkipContinuation(bytes, p, end);
      continue;
    }
    const uint32_t name_length = p - name_start;
    ++p;
    while (p < end && IsBlank(bytes[p])) ++p;
    if (p >= end) break;
    const uint32_t value_start = p;
    const void* line_end = std::memchr(bytes + p, kLf, end - p);
    if (!line_end) {
      p = end;
      break;
    }
    p = static_cast<uint32_t>(static_cast<const uint8_t*>(line_end) - bytes) + 1;
    if (end - p >= 3 && IsBlank(bytes[p])) p = SkipContinuation(bytes, p, end);
    if (p >= end) break;
    if (header_count_ < kMaxIndexedHeaders) {
      headers_[header_count_++] = {name_start, name_length, value_start, p - value_start};
    }
    if (bytes[p] == kCr || bytes[p] == kLf) {
      if (end - p < 5) break;
      if (bytes[p] == kCr && bytes[p + 1] == kLf && bytes[p + 2] == kCr && bytes[p + 3] == kLf) {
        result = p - start + 1;
        break;
      }
    }
  }
  if (out) *out = std::min(p, end);
  return result;
}

const char* CEmailFlowDataImpl::GetHeaderName(uint32_t index) {
  if (index >= header_count_) return nullptr;
  return GetStringA(headers_[index].name_offset, static_cast<int32_t>(headers_[index].name_length));
}

const char* CEmailFlowDataImpl::GetHeaderValue(uint32_t index) {
  if (index >= header_count_) return nullptr;
  return GetStringA(headers_[index].value_offset, static_cast<int32_t>(headers_[index].value_length));
}

const char* CEmailFlowDataImpl::FindHeaderValue(const char* name) {
  if (!name) return nullptr;
  const size_t name_length = std::strlen(name);
  for (uint32_t i = 0; i < header_count_; ++i) {
    const HeaderEntry& entry = headers_[i];
    if (entry.name_length == name_length &&
        CompareNoCase(name, static_cast<int32_t>(name_length), entry.name_offset) == 0) {
      return GetHeaderValue(i);
    }
  }
  return nullptr;
}

}  // namespace pelka
