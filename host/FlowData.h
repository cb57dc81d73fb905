// CPAEFlowData: the host framework's byte store interface for one flow's
// collected data, with searching, comparing, line, token and mail-header
// indexing operations.
//
// Conventions of every operation:
//  - Positions and counts are 32-bit. A result of kNotFound (all bits set)
//    means "none".
//  - A range is (start, limit): it ends at start when start lies beyond the
//    length; otherwise at start + limit capped at the length, or at the length
//    when limit is negative.
//  - The copy operations (GetCopy, GetStringW, GetStringA, and GetToken,
//    GetHeaderName, GetHeaderValue, FindHeaderValue, which use them) return one
//    scratch buffer that the next such call overwrites.
#pragma once

#include <cstdint>

#include "host/CriticalSection.h"
#include "host/ObjectModel.h"

namespace pelka {

constexpr uint32_t kNotFound = 0xFFFFFFFFu;
constexpr uint32_t kMaxIndexedHeaders = 32;
constexpr uint32_t kMaxTokens = 63;

class CPAEFlowData : public CTQObject {
 public:
  // Grows the owned buffer to exactly `capacity` bytes when it is smaller.
  virtual uint32_t Reserve(uint32_t capacity) = 0;
  virtual uint32_t GetCapacity() = 0;
  virtual uint32_t GetSize() = 0;
  // Stages the caller's bytes without copying them (a block still staged is
  // committed first). The bytes must stay valid until the next Append or Commit.
  virtual void Append(const uint8_t* bytes, uint32_t length) = 0;
  // Drops `count` bytes from the front.
  virtual void Consume(uint32_t count) = 0;
  virtual uint8_t* GetOwnedBuffer() = 0;
  virtual uint32_t Reserved13() = 0;
  virtual uint32_t ResetData() = 0;
  // The byte at a logical index; the index is not checked.
  virtual uint8_t GetByte(uint32_t index) = 0;
  virtual uint32_t FindText(const char* text, uint32_t start, int32_t limit) = 0;
  virtual uint32_t FindByte(uint8_t byte, uint32_t start, int32_t limit) = 0;
  virtual ~CPAEFlowData() = default;
  virtual uint32_t Reserved19(uint32_t* out) = 0;
  // Contiguous address of exactly `count` bytes at `start`, or null.
  virtual const uint8_t* GetBuffer(uint32_t start, uint32_t count) = 0;
  virtual void SetUserValue(uint32_t value) = 0;
  virtual uint32_t GetUserValue() = 0;
  virtual uint32_t GetLength() = 0;
  virtual CCriticalSection* GetLock() = 0;
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
  // Copies the staged block behind the retained bytes.
  virtual void Commit() = 0;
  virtual uint32_t ClearData() = 0;
  // First match of the needle wholly inside the range, before its last byte.
  // A negative needle length means up to the needle's zero byte.
  virtual uint32_t FindBytes(uint32_t start, const uint8_t* needle, int32_t needle_length, int32_t limit) = 0;
  virtual uint32_t GetLineLength(int with_line_break, uint32_t start, int32_t limit) = 0;
  virtual uint32_t ScanForByte(uint32_t start, uint8_t byte, int32_t limit) = 0;
  // 0 when equal (bytes lower-cased), 1 otherwise or when the text passes the end.
  virtual int CompareNoCase(const char* text, int32_t length, uint32_t start) = 0;
  virtual int Compare(const char* text, int32_t length, uint32_t start) = 0;
  virtual uint32_t CopyOut(uint32_t start, uint8_t* destination, int32_t limit) = 0;
  virtual const wchar_t* Unsupported35() = 0;
  virtual const uint8_t* GetCopy(uint32_t start, int32_t limit) = 0;
  virtual const wchar_t* GetStringW(uint32_t start, int32_t limit) = 0;
  virtual const char* GetStringA(uint32_t start, int32_t limit) = 0;
  virtual uint32_t FindAnyOf(uint32_t start, const char* set, int32_t limit) = 0;
  virtual uint32_t Tokenize(uint32_t start, const char* delimiters, int32_t limit) = 0;
  virtual uint32_t GetTokenCount() = 0;
  virtual const char* GetToken(uint32_t index) = 0;
  // Divides a mail header into at most 32 fields; see the byte store's notes.
  virtual uint32_t IndexHeader(uint32_t start, int32_t limit, uint32_t* end) = 0;
  virtual uint32_t GetHeaderCount() = 0;
  virtual const char* GetHeaderName(uint32_t index) = 0;
  virtual const char* FindHeaderValue(const char* name) = 0;
  virtual const char* GetHeaderValue(uint32_t index) = 0;
};

}  // namespace pelka
