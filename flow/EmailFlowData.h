// CEmailFlowDataImpl: the byte store that collects one message of a flow.
//
// The bytes are held in two parts read as one sequence: the retained part
// (copied into the owned buffer) and, behind it, the staged block (the
// caller's payload, referenced until the next Append or Commit copies it).
// Appending a packet therefore costs one copy, made when it is committed.
//
// The object locks nothing itself: its lock is offered to the host, and the
// module touches a flow's store only from the thread that delivers the flow.
#pragma once

#include <cstdint>
#include <memory>

#include "flow/MessageBufferPool.h"
#include "host/FlowData.h"

namespace pelka {

class CEmailFlowDataImpl final : public CTQObjectImplT<CPAEFlowData, CTQMultiThreadModel> {
 public:
  CEmailFlowDataImpl() = default;
  // The buffer goes back to the pool, if the store has one.
  ~CEmailFlowDataImpl() override;
  CEmailFlowDataImpl(const CEmailFlowDataImpl&) = delete;
  CEmailFlowDataImpl& operator=(const CEmailFlowDataImpl&) = delete;

  uint32_t Reserve(uint32_t capacity) override;
  uint32_t GetCapacity() override { return capacity_; }
  // The allocation stops doubling at this size (0: no bound) and then grows
  // only by what is needed: a message is cut soon after the longest length
  // collected, so pages doubled beyond it would stay unused.
  void set_growth_limit(uint32_t bytes) { growth_limit_ = bytes; }
  // The store's first buffer comes from `pool` when it has one, and the
  // buffer goes back there at the end. The pool must outlive the store.
  void set_buffer_pool(MessageBufferPool* pool) { pool_ = pool; }
  uint32_t GetSize() override { return GetLength(); }
  void Append(const uint8_t* bytes, uint32_t length) override;
  void Consume(uint32_t count) override;
  uint8_t* GetOwnedBuffer() override { return owned_.get(); }
  uint32_t Reserved13() override { return 0; }
  uint32_t ResetData() override { return ClearData(); }
  uint8_t GetByte(uint32_t index) override;
  uint32_t FindText(const char* text, uint32_t start, int32_t limit) override;
  uint32_t FindByte(uint8_t byte, uint32_t start, int32_t limit) override;
  uint32_t Reserved19(uint32_t* out) override;
  const uint8_t* GetBuffer(uint32_t start, uint32_t count) override;
  void SetUserValue(uint32_t value) override { user_value_ = value; }
  uint32_t GetUserValue() override { return user_value_; }
  uint32_t GetLength() override { return retained_length_ + staged_length_; }
  CCriticalSection* GetLock() override { return &lock_; }
  void Lock() override { lock_.Enter(); }
  void Unlock() override { lock_.Leave(); }
  void Commit() override;
  uint32_t ClearData() override;
  uint32_t FindBytes(uint32_t start, const uint8_t* needle, int32_t needle_length, int32_t limit) override;
  uint32_t GetLineLength(int with_line_break, uint32_t start, int32_t limit) override;
  uint32_t ScanForByte(uint32_t start, uint8_t byte, int32_t limit) override;
  int CompareNoCase(const char* text, int32_t length, uint32_t start) override;
  int Compare(const char* text, int32_t length, uint32_t start) override;
  uint32_t CopyOut(uint32_t start, uint8_t* destination, int32_t limit) override;
  const wchar_t* Unsupported35() override { return L"Sorry, unsupported yet!"; }
  const uint8_t* GetCopy(uint32_t start, int32_t limit) override;
  const wchar_t* GetStringW(uint32_t start, int32_t limit) override;
  const char* GetStringA(uint32_t start, int32_t limit) override;
  uint32_t FindAnyOf(uint32_t start, const char* set, int32_t limit) override;
  uint32_t Tokenize(uint32_t start, const char* delimiters, int32_t limit) override;
  uint32_t GetTokenCount() override { return token_count_; }
  const char* GetToken(uint32_t index) override;
  uint32_t IndexHeader(uint32_t start, int32_t limit, uint32_t* end) override;
  uint32_t GetHeaderCount() override { return header_count_; }
  const char* GetHeaderName(uint32_t index) override;
  const char* FindHeaderValue(const char* name) override;
  const char* GetHeaderValue(uint32_t index) override;

 private:
  struct HeaderEntry {
    uint32_t name_offset, name_length, value_offset, value_length;
  };
  struct TokenEntry {
    uint32_t offset, length;
  };

  // End of the range (start, limit) under the store's range rule.
  uint32_t RangeEnd(uint32_t start, int32_t limit);
  // Address of [start, end) when it lies wholly in one part, else null.
  const uint8_t* ContiguousRange(uint32_t start, uint32_t end) const;
  // Copies [start, end) into the zero-filled scratch buffer, with `zeros`
  // zero bytes behind it.
  const uint8_t* CopyToScratch(uint32_t start, uint32_t end, uint32_t zeros);
  void CopyRange(uint32_t start, uint32_t end, uint8_t* destination);
  bool EnsureScratch(uint32_t size);
  // Makes the owned buffer hold `capacity` bytes with the retained part at
  // its front. False without memory (nothing changes then).
  bool MakeRoom(uint64_t capacity);

  uint32_t user_value_ = 0;
  // The capacity the store reports grows in 256-byte steps, each step a new
  // compacted buffer as far as callers can tell; the allocation behind it
  // grows geometrically so that collecting a message stays linear.
  uint32_t capacity_ = 0;
  uint32_t growth_limit_ = 0;
  MessageBufferPool* pool_ = nullptr;
  MessageBytes owned_;
  uint32_t retained_length_ = 0;
  uint32_t start_offset_ = 0;
  const uint8_t* staged_ = nullptr;
  uint32_t staged_length_ = 0;
  std::unique_ptr<uint8_t[]> scratch_;
  uint32_t scratch_capacity_ = 0;
  CCriticalSection lock_;
  uint32_t header_count_ = 0;
  HeaderEntry headers_[kMaxIndexedHeaders] = {};
  uint32_t token_count_ = 0;
  TokenEntry tokens_[kMaxTokens] = {};
};

}  // namespace pelka
