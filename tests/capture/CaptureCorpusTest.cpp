// End to end over public captures of real traffic (tests/data): file reading,
// decoding and flow tracking together. Damaged captures are checked through
// the program (MalformedCaptureTest).
#include <gtest/gtest.h>

#include <filesystem>

#include "TrackerHarness.h"
#include "capture/CaptureSource.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

fs::path Corpus(const std::string& name) { return fs::path(PELKA_TEST_DATA_DIR) / name; }

// Reads the inputs to their end (or first error) through decoder and tracker.
struct CorpusRun {
  explicit CorpusRun(std::vector<std::string> paths) : tracker(&sink) {
    sink.with_time = true;
    source.OpenFiles(std::move(paths));
    CapturedFrame frame;
    while ((status = source.Next(&frame)) == ReadStatus::kFrame) {
      last_number = frame.number;
      DecodedPacket packet;
      if (decoder.Decode(frame.link_type, frame.data, frame.captured_length, &packet) == DecodeStatus::kTcp) {
        tracker.OnPacket(packet, frame.data, frame.number, frame.time_us);
      }
    }
    tracker.Finish();
  }

  std::vector<std::string> PacketEvents() const {
    std::vector<std::string> packets;
    for (const std::string& event : sink.events) {
      if (event[0] == '#') packets.push_back(event);
    }
    return packets;
  }

  test::RecordingSink sink;
  FlowTracker tracker;
  PacketDecoder decoder;
  CaptureSource source;
  ReadStatus status = ReadStatus::kEnd;
  uint64_t last_number = 0;
};

struct CorpusCase {
  const char* file;
  uint64_t smtp, pop3, imap;
};

// Flow counts are the connections on ports 25, 110 and 143 that
// tests/data/README.md lists, except where noted. Each file stands for a link
// type, file format or kind of traffic of its own.
const std::vector<CorpusCase> kCases = {
    {"smtp-3msgs-one-session.pcap", 1, 0, 0},
    {"smtp-auth-login-vlan100.pcap", 2, 0, 0},
    {"smtp-bdat-invalid.pcapng", 3, 0, 0},
    {"smtp-ipv6-ehlo-only.pcap", 1, 0, 0},
    {"smtp-pipelining-loopback.pcap", 1, 0, 0},
    {"smtp-port587-winmail.pcap", 0, 0, 0},
    {"smtp-snaplen-54.pcap", 1, 0, 0},
    {"mixed-ntlm-auth.pcap", 1, 1, 1},
    // Seven connections by address and port; four of the attempts are refused
    // with an RST and retried with a new SYN, and each retry is a flow of its own.
    {"pop3-7conns-retr.pcap", 0, 11, 0},
    {"pop3-7conns-sll.pcap", 0, 11, 0},
    {"pop3-gb2312-retr-nsec.pcap", 0, 3, 0},
    {"imap-login-fetch-ipv6.pcap", 0, 0, 1},
};

TEST(CaptureCorpusTest, CountsFlowsAndDeliversEveryMailPacketOnce) {
  for (const CorpusCase& c : kCases) {
    SCOPED_TRACE(c.file);
    CorpusRun run({Corpus(c.file).string()});
    EXPECT_EQ(run.status, ReadStatus::kEnd) << run.source.error();
    const FlowTrackerCounters& counters = run.tracker.counters();
    EXPECT_EQ(counters.flows_smtp, c.smtp);
    EXPECT_EQ(counters.flows_pop3, c.pop3);
    EXPECT_EQ(counters.flows_imap, c.imap);
    EXPECT_EQ(counters.packets - counters.not_mail, counters.packets_delivered + counters.packets_after_end);
    EXPECT_EQ(run.source.bytes_read(), fs::file_size(Corpus(c.file)));
    EXPECT_EQ(run.last_number, run.decoder.counters().frames);
    size_t starts = 0, ends = 0;
    for (const std::string& event : run.sink.events) {
      starts += event.rfind("start", 0) == 0;
      ends += event.rfind("end", 0) == 0;
      EXPECT_EQ(event.find("(no ports)"), std::string::npos);
    }
    EXPECT_EQ(starts, c.smtp + c.pop3 + c.imap);
    EXPECT_EQ(ends, starts);
  }
}

TEST(CaptureCorpusTest, TwinCapturesDeliverTheSamePackets) {
  const std::vector<std::pair<const char*, const char*>> twins = {
      {"pop3-gb2312-retr.pcap", "pop3-gb2312-retr-nsec.pcap"},  // nanosecond times round down to the same
      {"pop3-7conns-retr.pcap", "pop3-7conns-sll.pcap"},
      {"imap-login-fetch-26.pcap", "imap-login-fetch-ipv6.pcap"},
  };
  for (const auto& [a, b] : twins) {
    SCOPED_TRACE(b);
    CorpusRun first({Corpus(a).string()});
    CorpusRun second({Corpus(b).string()});
    EXPECT_FALSE(first.PacketEvents().empty());
    EXPECT_EQ(first.PacketEvents(), second.PacketEvents());
  }
}

}  // namespace
}  // namespace pelka
