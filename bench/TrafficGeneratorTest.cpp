// Sanity of the benchmark's traffic: messages of the asked size and shape,
// and captures that read back with libpcap as valid TCP conversations that
// hold the flows and messages the generator reports.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "bench/TrafficGenerator.h"
#include "bench/TrafficGeneratorMessage.h"
#include "bench/TrafficGeneratorSessions.h"

namespace pelka {
namespace {

size_t CountOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
  return count;
}

TEST(TrafficMessage, HasTheAskedSizeAndMailShape) {
  const size_t sizes[] = {100, 2048, 5000, 30000, 300001, 2 * 1024 * 1024};
  for (size_t size : sizes) {
    for (bool stored : {false, true}) {
      SCOPED_TRACE("size " + std::to_string(size) + (stored ? " stored" : ""));
      TrafficRandom random(size + stored);
      const MessageEnvelope envelope = RandomEnvelope(random);
      const std::string message = BuildMessage(random, envelope, size, stored);
      EXPECT_EQ(message.size(), std::max(size, kMinimumMessageSize));
      EXPECT_EQ(message.substr(message.size() - 2), "\r\n");
      EXPECT_EQ(message.find("\r\n."), std::string::npos) << "a line begins with a dot";
      EXPECT_EQ(message.find('\0'), std::string::npos);
      EXPECT_EQ(CountOf(message, "\n"), CountOf(message, "\r\n")) << "bare line feed";
      EXPECT_NE(message.find("\r\nFrom: "), std::string::npos);
      EXPECT_NE(message.find(envelope.from.address), std::string::npos);
      EXPECT_NE(message.find("\r\nTo: "), std::string::npos);
      EXPECT_EQ(message.find("Return-Path: <" + envelope.from.address + ">\r\n") == 0, stored);
      // Every attachment part names its file in a quoted parameter.
      EXPECT_EQ(CountOf(message, "Content-Disposition: attachment;\r\n\tfilename=\""),
                CountOf(message, "Content-Disposition: attachment"));
      if (size >= 30000) {
        EXPECT_GE(CountOf(message, "Content-Disposition: attachment"), 1u);
      }
    }
  }
}

// The sessions' own account of what the module will record, for plans at
// and past the flow limit.
TEST(TrafficSession, CountsWhatTheModuleRecords) {
  constexpr uint64_t kLimit = 2u << 20;
  struct Case {
    const char* name;
    MailProtocol protocol;
    std::vector<size_t> sizes;
    bool bdat;
    uint32_t messages, bdat_messages, records;
  };
  const Case cases[] = {
      {"SMTP message past the limit ends the session", MailProtocol::kSmtp, {3000000, 10000}, false, 1, 0, 1},
      {"SMTP messages within the limit", MailProtocol::kSmtp, {kLimit - 4096, 10000, 2048}, false, 3, 0, 3},
      {"POP3 message past the limit ends the session", MailProtocol::kPop3, {10000, 3000000, 10000}, false, 2, 0, 2},
      {"BDAT messages are never completed", MailProtocol::kSmtp, {10000, 20000}, true, 2, 2, 0},
      {"BDAT past the limit falls back to DATA", MailProtocol::kSmtp, {1500000, 1000000}, true, 2, 0, 2},
      {"IMAP messages are shortened to fit a response", MailProtocol::kImap, {1500000, 1500000, 3000000}, false, 3,
       0, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TrafficRandom random(17);
    const Session session = BuildSession(random, {c.protocol, c.sizes, c.bdat, kLimit});
    EXPECT_EQ(session.counts.messages, c.messages);
    EXPECT_EQ(session.counts.bdat_messages, c.bdat_messages);
    EXPECT_EQ(session.counts.expected_records, c.records);
    for (const Turn& turn : session.turns) {
      if (turn.side == Side::kServer && turn.bytes.find(" BODY[] {") != std::string::npos) {
        EXPECT_TRUE(EndsWithinLimit(turn.bytes.size(), kLimit)) << "a FETCH response passes the limit";
      }
    }
  }
}

// What a capture holds, found by decoding it independently of the generator.
struct CaptureContents {
  std::map<uint16_t, uint64_t> flows_by_port;  // SYNs without ACK, by destination port
  uint64_t smtp_messages = 0;                  // DATA commands and BDAT ... LAST commands
  uint64_t pop3_messages = 0;                  // RETR commands
  uint64_t imap_messages = 0;                  // BODY[] literals
  uint64_t packets = 0;
  uint64_t bad_checksums = 0;
  uint64_t sequence_breaks = 0;   // a segment that does not follow the previous one
  uint64_t time_reversals = 0;
  uint64_t unfinished_flows = 0;  // without a FIN each way
};

uint16_t Be16(const u_char* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t Be32(const u_char* p) { return uint32_t{Be16(p)} << 16 | Be16(p + 2); }

uint16_t Checksum(const u_char* p, size_t n, uint64_t sum = 0) {
  for (size_t i = 0; i + 1 < n; i += 2) sum += Be16(p + i);
  if (n % 2) sum += uint32_t{p[n - 1]} << 8;
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(sum);
}

struct Direction {
  bool started = false;
  bool fin = false;
  uint32_t next_seq = 0;
  std::string stream;
};

CaptureContents ReadCapture(std::FILE* file) {
  char error[PCAP_ERRBUF_SIZE];
  pcap_t* pcap = pcap_fopen_offline(file, error);
  EXPECT_NE(pcap, nullptr) << error;
  CaptureContents contents;
  if (!pcap) return contents;
  EXPECT_EQ(pcap_datalink(pcap), DLT_EN10MB);
  std::map<std::tuple<uint32_t, uint16_t, uint32_t, uint16_t>, Direction> directions;
  pcap_pkthdr* header;
  const u_char* frame;
  uint64_t last_time = 0;
  while (pcap_next_ex(pcap, &header, &frame) == 1) {
    ++contents.packets;
    const uint64_t time = uint64_t(header->ts.tv_sec) * 1000000 + header->ts.tv_usec;
    contents.time_reversals += time < last_time;
    last_time = time;
    EXPECT_EQ(header->caplen, header->len);
    EXPECT_EQ(Be16(frame + 12), 0x0800);
    const u_char* ip = frame + 14;
    const size_t ip_length = Be16(ip + 2);
    EXPECT_EQ(ip_length + 14, header->caplen);
    const u_char* tcp = ip + 20;
    const size_t tcp_length = ip_length - 20;
    contents.bad_checksums += Checksum(ip, 20) != 0xFFFF;
    contents.bad_checksums += Checksum(tcp, tcp_length, Checksum(ip + 12, 8) + 6 + tcp_length) != 0xFFFF;
    const uint8_t flags = tcp[13];
    const size_t data_offset = (tcp[12] >> 4) * 4;
    const std::string payload(reinterpret_cast<const char*>(tcp + data_offset), tcp_length - data_offset);
    const uint16_t source_port = Be16(tcp), destination_port = Be16(tcp + 2);
    Direction& direction = directions[{Be32(ip + 12), source_port, Be32(ip + 16), destination_port}];
    const uint32_t seq = Be32(tcp + 4);
    if (flags & 0x02) {
      if (!(flags & 0x10)) ++contents.flows_by_port[destination_port];
      direction.started = true;
      direction.next_seq = seq + 1;
      continue;
    }
    if (!payload.empty() || (flags & 0x01)) {
      contents.sequence_breaks += !direction.started || seq != direction.next_seq;
      direction.next_seq = seq + static_cast<uint32_t>(payload.size()) + ((flags & 0x01) ? 1 : 0);
    }
    direction.fin |= (flags & 0x01) != 0;
    if (destination_port == 25 && (payload == "DATA\r\n" || (payload.starts_with("BDAT ") &&
                                                              payload.ends_with(" LAST\r\n")))) {
      ++contents.smtp_messages;
    }
    if (destination_port == 110 && payload.starts_with("RETR ")) ++contents.pop3_messages;
    if (source_port == 143) direction.stream += payload;
  }
  pcap_close(pcap);
  for (const auto& [key, direction] : directions) {
    contents.unfinished_flows += !direction.fin;
    contents.imap_messages += CountOf(direction.stream, " BODY[] {");
  }
  return contents;
}

struct CaptureCase {
  const char* name;
  TrafficOptions options;
};

void PrintTo(const CaptureCase& param, std::ostream* out) { *out << param.name; }

class TrafficCapture : public testing::TestWithParam<CaptureCase> {};

TEST_P(TrafficCapture, ReadsBackWithTheReportedFlowsAndMessages) {
  const TrafficOptions& options = GetParam().options;
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  const TrafficSummary summary = GenerateTraffic(options, file);
  ASSERT_TRUE(summary.write_ok);
  std::rewind(file);
  const CaptureContents contents = ReadCapture(file);  // closes the file

  EXPECT_EQ(contents.packets, summary.packets);
  EXPECT_EQ(contents.bad_checksums, 0u);
  EXPECT_EQ(contents.sequence_breaks, 0u);
  EXPECT_EQ(contents.time_reversals, 0u);
  EXPECT_EQ(contents.unfinished_flows, 0u);
  for (size_t protocol = 0; protocol < 3; ++protocol) {
    const uint16_t port = kServicePort[protocol];
    EXPECT_EQ(contents.flows_by_port.count(port) ? contents.flows_by_port.at(port) : 0, summary.flows[protocol])
        << "port " << port;
  }
  EXPECT_EQ(contents.smtp_messages, summary.messages[0]);
  EXPECT_EQ(contents.pop3_messages, summary.messages[1]);
  EXPECT_EQ(contents.imap_messages, summary.messages[2]);
  EXPECT_EQ(summary.expected_records, summary.messages[0] + summary.messages[1] + summary.messages[2] -
                                          summary.bdat_messages);
  if (options.message_count) {
    EXPECT_EQ(summary.messages[0] + summary.messages[1] + summary.messages[2], options.message_count);
  } else {
    EXPECT_EQ(contents.flows_by_port.size(), 3u) << "every service has flows";
    EXPECT_GE(summary.file_bytes, options.target_bytes * 9 / 10);
    EXPECT_LE(summary.file_bytes, options.target_bytes * 3 / 2);
  }
}

TrafficOptions BySize(uint64_t bytes, uint64_t seed) {
  TrafficOptions options;
  options.target_bytes = bytes;
  options.seed = seed;
  return options;
}

TrafficOptions ByMessages(uint32_t count, uint64_t size, uint64_t seed, uint64_t flow_limit = 2u << 20) {
  TrafficOptions options;
  options.message_count = count;
  options.message_size = size;
  options.seed = seed;
  options.flow_limit = flow_limit;
  return options;
}

INSTANTIATE_TEST_SUITE_P(Cases, TrafficCapture,
                         testing::Values(CaptureCase{"BySize", BySize(6u << 20, 7)},
                                         CaptureCase{"SmallMessages", ByMessages(40, 3000, 3)},
                                         CaptureCase{"AtTheFlowLimit", ByMessages(6, 2u << 20, 5)},
                                         CaptureCase{"PastTheFlowLimit", ByMessages(8, 900u << 10, 11, 512u << 10)}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TrafficCapture, SameSeedSameBytes) {
  auto generate = [](uint64_t seed) {
    char* data = nullptr;
    size_t size = 0;
    std::FILE* memory = open_memstream(&data, &size);
    GenerateTraffic(BySize(1u << 20, seed), memory);
    std::fclose(memory);
    std::string bytes(data, size);
    std::free(data);
    return bytes;
  };
  const std::string first = generate(42);
  EXPECT_EQ(first, generate(42));
  EXPECT_NE(first, generate(43));
}

}  // namespace
}  // namespace pelka
