// The byte store: staged and retained parts read as one sequence, and the
// search, line, token and header operations over it.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "flow/EmailFlowData.h"

namespace pelka {
namespace {

const uint8_t* Bytes(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

// A store holding `committed` copied and `staged` still referenced.
class Store {
 public:
  Store(const std::string& committed, const std::string& staged) : staged_(staged) {
    data_.Append(Bytes(committed), static_cast<uint32_t>(committed.size()));
    data_.Commit();
    data_.Append(Bytes(staged_), static_cast<uint32_t>(staged_.size()));
  }
  CEmailFlowDataImpl* operator->() { return &data_; }

 private:
  std::string staged_;
  CEmailFlowDataImpl data_;
};

std::string Text(const uint8_t* bytes, uint32_t length) {
  return bytes ? std::string(reinterpret_cast<const char*>(bytes), length) : "<null>";
}

TEST(FlowDataStorage, StagedBytesReadInOrderAndConsumeDropsFromTheFront) {
  Store store("hello ", "world");
  EXPECT_EQ(Text(store->GetBuffer(0, 11), 11), "hello world") << "spanning both parts gives a copy";
  EXPECT_EQ(Text(store->GetBuffer(6, 5), 5), "world");
  EXPECT_EQ(store->GetBuffer(6, 6), nullptr) << "a range cut short by the end";
  EXPECT_EQ(store->GetBuffer(0, 0), nullptr);
  EXPECT_EQ(store->GetByte(6), 'w');
  store->Append(nullptr, 5);
  EXPECT_EQ(store->GetLength(), 11u);
  const std::pair<uint32_t, std::string> cases[] = {{0, "abcdef"}, {2, "cdef"}, {5, "f"}, {6, ""}, {100, ""}};
  for (const auto& [count, rest] : cases) {
    Store consumed("abc", "def");
    consumed->Consume(count);
    const uint32_t length = consumed->GetLength();
    EXPECT_EQ(length, rest.size()) << count;
    EXPECT_EQ(length ? Text(consumed->GetBuffer(0, length), length) : "", rest) << count;
  }
}

// Growing past the mapped size, from a buffer whose front was consumed and
// from a mapped one, keeps every byte in order.
TEST(FlowDataStorage, GrowingALargeMessageKeepsItsBytes) {
  CEmailFlowDataImpl store;
  std::string expected;
  for (uint32_t i = 0; expected.size() < 5 * MessageBytes::kMappedSize; ++i) {
    const std::string packet(1000 + i % 7, static_cast<char>('a' + i % 26));
    store.Append(Bytes(packet), static_cast<uint32_t>(packet.size()));
    store.Commit();
    expected += packet;
    if (i == 3) {
      store.Consume(1500);
      expected.erase(0, 1500);
    }
  }
  const auto length = static_cast<uint32_t>(expected.size());
  ASSERT_EQ(store.GetLength(), length);
  EXPECT_TRUE(Text(store.GetBuffer(0, length), length) == expected);
}

MessageBytes BufferOfSize(uint32_t size) {
  MessageBytes buffer;
  EXPECT_TRUE(buffer.Grow(size, 0));
  return buffer;
}

TEST(MessageBufferPoolTest, KeepsTheLargestBuffersAndHandsOutTheLargestFirst) {
  MessageBufferPool pool;
  for (uint32_t size = 1; size <= MessageBufferPool::kKept + 2; ++size) pool.Give(BufferOfSize(size * 100));
  pool.Give({});  // an empty buffer is not kept, nor one above the largest size kept
  pool.Give(BufferOfSize(MessageBufferPool::kLargestKept + 1));
  std::vector<uint32_t> taken;
  for (MessageBytes buffer = pool.Take(); buffer; buffer = pool.Take()) taken.push_back(buffer.size());
  ASSERT_EQ(taken.size(), MessageBufferPool::kKept);
  EXPECT_EQ(taken.front(), (MessageBufferPool::kKept + 2) * 100);
  EXPECT_EQ(taken.back(), 300u) << "the two smallest were dropped";
  EXPECT_TRUE(std::is_sorted(taken.rbegin(), taken.rend()));
}

TEST(MessageBufferPoolTest, AStoreStartsInTheBufferAnEndedStoreLeft) {
  MessageBufferPool pool;
  const std::string packet(1000, 'x');
  const uint8_t* first_buffer = nullptr;
  {
    CEmailFlowDataImpl first;
    first.set_buffer_pool(&pool);
    for (int i = 0; i < 100; ++i) {
      first.Append(Bytes(packet), static_cast<uint32_t>(packet.size()));
      first.Commit();
    }
    first_buffer = first.GetOwnedBuffer();
  }
  const std::string hello = "hello";
  CEmailFlowDataImpl second;
  second.set_buffer_pool(&pool);
  second.Append(Bytes(hello), 5);
  second.Commit();
  EXPECT_EQ(second.GetOwnedBuffer(), first_buffer);
  EXPECT_EQ(Text(second.GetBuffer(0, 5), 5), "hello");
  EXPECT_FALSE(pool.Take()) << "the pool's only buffer is in use";
}

TEST(FlowDataSearch, FindBytesNeverTestsANeedleEndingAtTheRangeEnd) {
  // Committed and staged bytes, needle, start, limit, expected.
  const std::tuple<std::string, std::string, std::string, uint32_t, int32_t, uint32_t> cases[] = {
      {"xxAB", "", "AB", 0, -1, kNotFound}, {"xxABy", "", "AB", 0, -1, 2},        {"xxA", "By", "AB", 0, -1, 2},
      {"ABxAB", "y", "AB", 1, -1, 3},       {"xxABy", "", "AB", 0, 4, kNotFound}, {"xxABy", "", "AB", 9, -1, kNotFound},
      {"", "", "AB", 0, -1, kNotFound},
  };
  for (const auto& [committed, staged, needle, start, limit, expected] : cases) {
    Store store(committed, staged);
    EXPECT_EQ(store->FindBytes(start, Bytes(needle), static_cast<int32_t>(needle.size()), limit), expected)
        << committed << "|" << staged << " start " << start;
  }
}

TEST(FlowDataSearch, LineLengthWithAndWithoutLineBreak) {
  const std::tuple<std::string, int, uint32_t> cases[] = {  // bytes, with line break, expected
      {"abc\r\nd", 1, 5},  {"abc\r\nd", 0, 3},   {"abc", 1, kNotFound}, {std::string("abc\r\r\0\nd", 8), 1, 7},
      {"abc\rd", 1, 4},    {"abc\r", 1, 4},      {"\nabc", 1, 1},       {std::string("ab\0cd", 5), 0, 2},
  };
  for (const auto& [bytes, with_break, expected] : cases) {
    EXPECT_EQ(Store(bytes, "")->GetLineLength(with_break, 0, -1), expected) << bytes;
  }
}

// The header walk stepped byte by byte: the reference the store's faster walk
// must agree with. Fields are {name, name length, value, value length}.
struct WalkedHeaders {
  uint32_t result = 0;
  uint32_t reached = 0;
  std::vector<std::array<uint32_t, 4>> fields;
};

uint32_t PastContinuation(const std::string& m, uint32_t p) {
  for (; p + 1 < m.size(); ++p) {
    if (m[p] == '\r' && m[p + 1] == '\n' && (p + 2 >= m.size() || m[p + 2] != '\t')) return p + 2;
  }
  return static_cast<uint32_t>(m.size());
}

WalkedHeaders WalkHeadersByteByByte(const std::string& m) {
  const auto end = static_cast<uint32_t>(m.size());
  const auto blank = [&](uint32_t i) { return m[i] == ' ' || m[i] == '\t'; };
  WalkedHeaders walked{end, 0, {}};
  uint32_t p = 0;
  for (;;) {
    while (p < end && blank(p)) ++p;
    if (p >= end) break;
    const uint32_t name = p;
    while (p < end && m[p] != ':' && m[p] != '\n') ++p;
    if (p >= end) break;
    if (m[p] == '\n') {
      if (++p < end && m[p] == '\t') p = PastContinuation(m, p);
      continue;
    }
    const uint32_t name_length = p++ - name;
    while (p < end && blank(p)) ++p;
    if (p >= end) break;
    const uint32_t value = p;
    while (p < end && m[p] != '\n') ++p;
    if (p++ >= end) break;
    if (end - p >= 3 && blank(p)) p = PastContinuation(m, p);
    if (p >= end) break;
    if (walked.fields.size() < 32) walked.fields.push_back({name, name_length, value, p - value});
    if ((m[p] == '\r' || m[p] == '\n') && end - p < 5) break;
    if (m.compare(p, 4, "\r\n\r\n") == 0) {
      walked.result = p + 1;
      break;
    }
  }
  walked.reached = std::min(p, end);
  return walked;
}

TEST(FlowDataHeaders, AgreesWithAByteByByteWalk) {
  // A continuation, a line without colon and a blank before a colon; one blank
  // line does not end the walk; a last field without a line end is not
  // recorded. Then few kinds of bytes, so that colons, tabs, blank lines and
  // continuations meet in every order. The header extractor's tests read the
  // fields by name.
  std::vector<std::string> messages = {
      "From: Alice <a@x>\r\nSubject: one\r\n\ttwo\r\nNoColonLine\r\nTo :  b@y\r\n\r\n\r\nbody",
      "From: a@x\r\n\r\nBody: text\r\nmore\r\n", "From: a@x\r\nTo: b@y"};
  const std::string alphabet = "ab:: \t\r\n\n\r\n";
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    std::string message(random() % 120, 'x');
    for (char& c : message) c = alphabet[random() % alphabet.size()];
    messages.push_back(message);
  }
  for (const std::string& message : messages) {
    SCOPED_TRACE(testing::PrintToString(message));
    Store store(message, "");
    uint32_t reached = 0;
    const WalkedHeaders expected = WalkHeadersByteByByte(message);
    ASSERT_EQ(store->IndexHeader(0, -1, &reached), expected.result);
    ASSERT_EQ(reached, expected.reached);
    ASSERT_EQ(store->GetHeaderCount(), expected.fields.size());
    for (uint32_t i = 0; i < expected.fields.size(); ++i) {
      const auto& [name, name_length, value, value_length] = expected.fields[i];
      ASSERT_EQ(store->GetHeaderName(i), message.substr(name, name_length));
      ASSERT_EQ(store->GetHeaderValue(i), message.substr(value, value_length));
    }
  }
}

}  // namespace
}  // namespace pelka
