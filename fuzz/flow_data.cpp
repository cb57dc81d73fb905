// Drives the byte store with a small op-code program taken from the input and
// checks every answer against a plain vector holding the same logical bytes.
//
// A staged block lives only until the store must have copied it (the next
// Append or Commit); it is freed right then, so a store that still reads it
// afterwards is caught by AddressSanitizer.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "flow/EmailFlowData.h"
#include "host/RefPtr.h"

namespace {

using pelka::CEmailFlowDataImpl;
using pelka::kNotFound;
using Bytes = std::vector<uint8_t>;

[[noreturn]] void Fail(const char* what, int line) {
  std::fprintf(stderr, "byte store disagrees with the model: %s (line %d)\n", what, line);
  std::abort();
}
#define EXPECT_MODEL(condition) \
  if (!(condition)) Fail(#condition, __LINE__)

// The store's range rule over the model's length.
uint32_t RangeEnd(const Bytes& model, uint32_t start, int32_t limit) {
  const uint64_t length = model.size();
  if (start > length) return start;
  if (limit < 0) return static_cast<uint32_t>(length);
  return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{start} + static_cast<uint32_t>(limit), length));
}

uint32_t NaiveFindBytes(const Bytes& model, uint32_t start, const std::string& needle, uint64_t needle_length,
                        int32_t limit) {
  const uint32_t end = RangeEnd(model, start, limit);
  if (uint64_t{start} + needle_length + 1 > end) return kNotFound;
  for (uint64_t p = start; p + needle_length < end; ++p) {
    if (std::memcmp(needle.data(), model.data() + p, needle_length) == 0) {
      return static_cast<uint32_t>(p);
    }
  }
  return kNotFound;
}

uint32_t NaiveLineLength(const Bytes& model, int with_break, uint32_t start, int32_t limit) {
  const uint32_t end = RangeEnd(model, start, limit);
  auto is_break = [&](uint32_t p) { return model[p] == '\r' || model[p] == '\n' || model[p] == 0; };
  uint32_t p = start;
  while (p < end && !is_break(p)) ++p;
  if (p >= end) return kNotFound;
  if (!with_break) return p;
  while (p < end && (model[p] == '\r' || model[p] == 0)) ++p;
  if (p >= end) return end - start;
  return model[p] == '\n' ? p - start + 1 : p - start;
}

std::vector<std::string> NaiveTokens(const Bytes& model, uint32_t start, const std::string& delimiters,
                                     int32_t limit) {
  auto is_delimiter = [&](uint8_t byte) {
    return byte != 0 && std::memchr(delimiters.c_str(), byte, std::strlen(delimiters.c_str())) != nullptr;
  };
  const uint32_t end = RangeEnd(model, start, limit);
  std::vector<std::string> tokens;
  uint32_t p = start;
  while (tokens.size() < pelka::kMaxTokens) {
    while (p < end && is_delimiter(model[p])) ++p;
    if (p >= end) break;
    const uint32_t token_start = p;
    while (p < end && !is_delimiter(model[p])) ++p;
    tokens.emplace_back(model.begin() + token_start, model.begin() + p);
    if (p < end) ++p;
  }
  return tokens;
}

// The model's bytes of a range, as the copy operations return them.
std::string RangeBytes(const Bytes& model, uint32_t start, int32_t limit) {
  const uint32_t end = RangeEnd(model, start, limit);
  return start < end ? std::string(model.begin() + start, model.begin() + end) : std::string();
}

class Program {
 public:
  Program(const uint8_t* data, size_t size) : input_(data, size) {
    store_ = pelka::RefPtr<CEmailFlowDataImpl>::Adopt(new CEmailFlowDataImpl);
  }

  void Run() {
    while (input_.remaining_bytes() > 0) Step(input_.ConsumeIntegralInRange<int>(0, 15));
    EXPECT_MODEL(store_->GetLength() == model_.size());
  }

 private:
  uint32_t Position() {
    // Mostly inside or just past the bytes; sometimes anywhere.
    if (input_.ConsumeBool()) return input_.ConsumeIntegral<uint32_t>();
    return input_.ConsumeIntegralInRange<uint32_t>(0, static_cast<uint32_t>(model_.size()) + 2);
  }
  int32_t Limit() {
    switch (input_.ConsumeIntegralInRange<int>(0, 3)) {
      case 0: return -1;
      case 1: return input_.ConsumeIntegral<int32_t>();
      default: return input_.ConsumeIntegralInRange<int32_t>(0, static_cast<int32_t>(model_.size()) + 2);
    }
  }
  std::string Text() { return input_.ConsumeRandomLengthString(16); }

  void Step(int op) {
    CEmailFlowDataImpl& store = *store_;
    switch (op) {
      case 0: Append(); break;
      case 1:
        store.Commit();
        staged_.reset();
        break;
      case 2: {
        const uint32_t count = Position();
        store.Consume(count);
        model_.erase(model_.begin(), model_.begin() + std::min<size_t>(count, model_.size()));
        break;
      }
      case 3:
        if (input_.ConsumeBool()) store.ClearData(); else store.ResetData();
        model_.clear();
        break;
      case 4: {
        const uint32_t capacity = input_.ConsumeIntegralInRange<uint32_t>(0, 1 << 16);
        const uint32_t before = store.GetCapacity();
        store.Reserve(capacity);
        EXPECT_MODEL(store.GetCapacity() == std::max(before, capacity));
        break;
      }
      case 5: CheckBytes(); break;
      case 6: CheckBuffer(); break;
      case 7: CheckCopies(); break;
      case 8: CheckFind(); break;
      case 9: CheckScans(); break;
      case 10: {
        const int with_break = input_.ConsumeBool();
        const uint32_t start = Position();
        const int32_t limit = Limit();
        EXPECT_MODEL(store.GetLineLength(with_break, start, limit) == NaiveLineLength(model_, with_break, start, limit));
        break;
      }
      case 11: CheckCompare(); break;
      case 12: {
        const uint32_t start = Position();
        const int32_t limit = Limit();
        const std::string expected = RangeBytes(model_, start, limit);
        std::vector<uint8_t> destination(expected.size());
        store.CopyOut(start, destination.data(), limit);
        EXPECT_MODEL(std::string(destination.begin(), destination.end()) == expected);
        break;
      }
      case 13: CheckTokens(); break;
      case 14: CheckHeaderIndex(); break;
      default:
        EXPECT_MODEL(store.GetLength() == model_.size() && store.GetSize() == model_.size());
        break;
    }
  }

  void Append() {
    const size_t length = input_.ConsumeIntegralInRange<size_t>(0, 300);
    auto block = std::make_unique<Bytes>(input_.ConsumeBytes<uint8_t>(length));
    const bool null_bytes = block->empty() || input_.ConsumeProbability<float>() < 0.05f;
    store_->Append(null_bytes ? nullptr : block->data(), static_cast<uint32_t>(block->size()));
    if (null_bytes) return;  // ignored by the store: the staged block stays
    model_.insert(model_.end(), block->begin(), block->end());
    staged_ = std::move(block);  // the block before it was committed by this Append
  }

  void CheckBytes() {
    if (model_.empty()) return;
    const uint32_t index = input_.ConsumeIntegralInRange<uint32_t>(0, static_cast<uint32_t>(model_.size()) - 1);
    EXPECT_MODEL(store_->GetByte(index) == model_[index]);
  }

  void CheckBuffer() {
    const uint32_t start = Position();
    const uint32_t count = input_.ConsumeIntegralInRange<uint32_t>(0, static_cast<uint32_t>(model_.size()) + 2);
    const uint8_t* bytes = store_->GetBuffer(start, count);
    const bool fits = count > 0 && uint64_t{start} + count <= model_.size();
    EXPECT_MODEL((bytes != nullptr) == fits);
    if (fits) EXPECT_MODEL(std::memcmp(bytes, model_.data() + start, count) == 0);
  }

  void CheckCopies() {
    const uint32_t start = Position();
    const int32_t limit = Limit();
    const std::string expected = RangeBytes(model_, start, limit);
    const auto* copy = store_->GetCopy(start, limit);
    EXPECT_MODEL(copy && std::memcmp(copy, expected.data(), expected.size()) == 0);
    const char* text = store_->GetStringA(start, limit);
    EXPECT_MODEL(text && std::memcmp(text, expected.data(), expected.size()) == 0 && text[expected.size()] == 0);
    const auto* wide = reinterpret_cast<const uint8_t*>(store_->GetStringW(start, limit));
    EXPECT_MODEL(wide && std::memcmp(wide, expected.data(), expected.size()) == 0);
    for (size_t i = 0; i < sizeof(wchar_t); ++i) EXPECT_MODEL(wide[expected.size() + i] == 0);
  }

  void CheckFind() {
    const uint32_t start = Position();
    const int32_t limit = Limit();
    const std::string needle = Text();
    switch (input_.ConsumeIntegralInRange<int>(0, 2)) {
      case 0: {
        const int32_t length = input_.ConsumeIntegralInRange<int32_t>(-1, static_cast<int32_t>(needle.size()));
        const uint64_t used = length < 0 ? std::strlen(needle.c_str()) : static_cast<uint64_t>(length);
        const uint32_t found =
            store_->FindBytes(start, reinterpret_cast<const uint8_t*>(needle.c_str()), length, limit);
        EXPECT_MODEL(found == NaiveFindBytes(model_, start, needle, used, limit));
        break;
      }
      case 1:
        EXPECT_MODEL(store_->FindText(needle.c_str(), start, limit) ==
                     NaiveFindBytes(model_, start, needle, std::strlen(needle.c_str()), limit));
        break;
      default: {
        const uint8_t byte = input_.ConsumeIntegral<uint8_t>();
        EXPECT_MODEL(store_->FindByte(byte, start, limit) ==
                     NaiveFindBytes(model_, start, std::string(1, static_cast<char>(byte)), 1, limit));
        break;
      }
    }
  }

  void CheckScans() {
    const uint32_t start = Position();
    const int32_t limit = Limit();
    const uint32_t end = RangeEnd(model_, start, limit);
    const uint8_t byte = input_.ConsumeIntegral<uint8_t>();
    uint32_t expected = kNotFound;
    for (uint32_t p = start; p < end && expected == kNotFound; ++p) {
      if (model_[p] == byte) expected = p;
    }
    EXPECT_MODEL(store_->ScanForByte(start, byte, limit) == expected);

    const std::string set = Text();
    expected = kNotFound;
    for (uint32_t p = start; p < end && expected == kNotFound; ++p) {
      if (model_[p] != 0 && std::strchr(set.c_str(), model_[p])) expected = p;
    }
    EXPECT_MODEL(store_->FindAnyOf(start, set.c_str(), limit) == expected);
  }

  void CheckCompare() {
    const uint32_t start = Position();
    const std::string text = Text();
    const int32_t length = input_.ConsumeIntegralInRange<int32_t>(-1, static_cast<int32_t>(text.size()));
    const uint64_t used = length < 0 ? std::strlen(text.c_str()) : static_cast<uint64_t>(length);
    const bool inside = uint64_t{start} + used <= model_.size();
    bool exact = inside, folded = inside;
    for (uint64_t i = 0; inside && i < used; ++i) {
      const uint8_t stored = model_[start + i];
      const uint8_t wanted = static_cast<uint8_t>(text[i]);
      exact = exact && stored == wanted;
      folded = folded && std::tolower(stored) == std::tolower(wanted);
    }
    EXPECT_MODEL(store_->CompareNoCase(text.c_str(), length, start) == (folded ? 0 : 1));
    // Compare takes no length from the text: below 1 it compares nothing.
    EXPECT_MODEL(store_->Compare(text.c_str(), length, start) == (length < 1 || exact ? 0 : 1));
  }

  void CheckTokens() {
    const uint32_t start = Position();
    const int32_t limit = Limit();
    const std::string delimiters = Text();
    const std::vector<std::string> expected = NaiveTokens(model_, start, delimiters, limit);
    EXPECT_MODEL(store_->Tokenize(start, delimiters.c_str(), limit) == expected.size());
    EXPECT_MODEL(store_->GetTokenCount() == expected.size());
    for (uint32_t i = 0; i < expected.size(); ++i) {
      const char* token = store_->GetToken(i);
      EXPECT_MODEL(std::memcmp(token, expected[i].data(), expected[i].size()) == 0 && token[expected[i].size()] == 0);
    }
    EXPECT_MODEL(*store_->GetToken(static_cast<uint32_t>(expected.size())) == 0);
  }

  // The header index has no simpler model; its answers must stay inside the
  // range and its entries must read back as the bytes they cover.
  void CheckHeaderIndex() {
    const uint32_t start = Position();
    const int32_t limit = Limit();
    const uint32_t end = RangeEnd(model_, start, limit);
    uint32_t reached = kNotFound;
    const uint32_t result = store_->IndexHeader(start, limit, &reached);
    EXPECT_MODEL(result <= end);  // an absolute end or an offset from start
    EXPECT_MODEL(reached == kNotFound || reached <= end);
    const uint32_t count = store_->GetHeaderCount();
    EXPECT_MODEL(count <= pelka::kMaxIndexedHeaders);
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_MODEL(store_->GetHeaderName(i) != nullptr && store_->GetHeaderValue(i) != nullptr);
    }
    EXPECT_MODEL(store_->GetHeaderName(count) == nullptr && store_->GetHeaderValue(count) == nullptr);
    const std::string name = Text();
    store_->FindHeaderValue(name.c_str());
  }

  FuzzedDataProvider input_;
  pelka::RefPtr<CEmailFlowDataImpl> store_;
  Bytes model_;
  std::unique_ptr<Bytes> staged_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Program(data, size).Run();
  return 0;
}
