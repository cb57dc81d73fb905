// End to end over the shared corpus of real captures: file reading, decoding
// and flow tracking together.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "TrackerHarness.h"
#include "capture/CaptureSource.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

fs::path Corpus(const std::string& name) { return fs::path(PELKA_CORPUS_DIR) / name; }

#define REQUIRE_CORPUS()                                                                   \
  if (!fs::is_directory(PELKA_CORPUS_DIR)) {                                               \
    GTEST_SKIP() << "capture corpus not found at " << PELKA_CORPUS_DIR << "; skipping"; \
  }

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

// Flow counts as the corpus README gives its connections on ports 25, 110 and
// 143, except where noted.
const std::vector<CorpusCase> kCases = {
    {"smtp-3msgs-one-session.pcap", 1, 0, 0},
    {"smtp-auth-login-2msgs.pcap", 2, 0, 0},
    {"smtp-auth-login-vlan100.pcap", 2, 0, 0},
    {"smtp-bdat-invalid.pcapng", 3, 0, 0},
    {"smtp-errors-3conns.pcap", 3, 0, 0},
    {"smtp-imap-starttls.pcapng", 1, 0, 1},
    {"smtp-ipv6-ehlo-only.pcap", 1, 0, 0},
    {"smtp-jpg-attachment.pcapng", 1, 0, 0},
    {"smtp-long-filename-loopback.pcap", 1, 0, 0},
    {"smtp-pipelining-loopback.pcap", 1, 0, 0},
    {"smtp-port587-winmail.pcap", 0, 0, 0},
    {"smtp-snaplen-54.pcap", 1, 0, 0},
    {"smtp-spambot-port25.pcap", 1, 0, 0},
    {"smtp-starttls-not-encrypted.pcap", 2, 0, 0},  // the two sessions on port 2525 are not mail flows
    {"smtp-exe-attachment-1358pkts.pcap", 1, 0, 0},
    {"mixed-ntlm-auth.pcap", 1, 1, 1},
    {"mixed-smtp-imap-synthetic.pcap", 2, 0, 2},
    // Seven connections by address and port; four of the attempts are refused
    // with an RST and retried with a new SYN, and each retry is a flow of its own.
    {"pop3-7conns-retr.pcap", 0, 11, 0},
    {"pop3-7conns-sll.pcap", 0, 11, 0},
    {"pop3-gb2312-retr.pcap", 0, 3, 0},
    {"pop3-gb2312-retr-nsec.pcap", 0, 3, 0},
    {"pop3-retr-pcapng-named-pcap.pcap", 0, 6, 0},
    {"pop3-starttls.pcap", 0, 1, 0},
    {"imap-login-fetch-26.pcap", 0, 0, 1},
    {"imap-login-fetch-ipv6.pcap", 0, 0, 1},
    {"imap-server-side-only.pcap", 0, 0, 1},
};

TEST(CaptureCorpusTest, CountsFlowsAndDeliversEveryMailPacketOnce) {
  REQUIRE_CORPUS();
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
  REQUIRE_CORPUS();
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

TEST(CaptureCorpusTest, ADamagedRecordStopsTheFileWithAMessage) {
  REQUIRE_CORPUS();
  CorpusRun run({Corpus("smtp-corrupt-record.pcap").string()});
  EXPECT_EQ(run.status, ReadStatus::kError);
  EXPECT_EQ(run.last_number, 18u);
  EXPECT_THAT(run.source.error(), ::testing::HasSubstr("smtp-corrupt-record.pcap"));
  EXPECT_EQ(run.tracker.counters().packets_delivered, 18u);
}

TEST(CaptureCorpusTest, ATruncatedFileKeepsItsWholeFramesAndSaysSo) {
  REQUIRE_CORPUS();
  const fs::path whole = Corpus("smtp-3msgs-one-session.pcap");
  const fs::path cut = fs::temp_directory_path() / ("pelka-capture-cut-" + std::to_string(::getpid()) + ".pcap");
  fs::copy_file(whole, cut, fs::copy_options::overwrite_existing);
  fs::resize_file(cut, fs::file_size(whole) / 2);
  CorpusRun run({cut.string()});
  EXPECT_EQ(run.status, ReadStatus::kError);
  EXPECT_THAT(run.source.error(), ::testing::HasSubstr("truncated"));
  EXPECT_GT(run.last_number, 5u);
  EXPECT_EQ(run.tracker.counters().packets_delivered, run.last_number);
  fs::remove(cut);
}

// Writes frames [first, last] of a capture to a new classic pcap file.
void WriteSlice(const fs::path& from, const fs::path& to, uint64_t first, uint64_t last) {
  char message[PCAP_ERRBUF_SIZE];
  pcap_t* in = pcap_open_offline_with_tstamp_precision(from.c_str(), PCAP_TSTAMP_PRECISION_NANO, message);
  ASSERT_NE(in, nullptr) << message;
  pcap_t* dead = pcap_open_dead_with_tstamp_precision(pcap_datalink(in), 262144, PCAP_TSTAMP_PRECISION_NANO);
  pcap_dumper_t* out = pcap_dump_open(dead, to.c_str());
  ASSERT_NE(out, nullptr);
  pcap_pkthdr* header;
  const u_char* data;
  for (uint64_t n = 1; pcap_next_ex(in, &header, &data) == 1; ++n) {
    if (n >= first && n <= last) pcap_dump(reinterpret_cast<u_char*>(out), header, data);
  }
  pcap_dump_close(out);
  pcap_close(dead);
  pcap_close(in);
}

TEST(CaptureCorpusTest, ACaptureSplitInTwoFilesReadsAsOne) {
  REQUIRE_CORPUS();
  const fs::path whole = Corpus("smtp-auth-login-2msgs.pcap");
  const fs::path dir = fs::temp_directory_path() / ("pelka-capture-split-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  WriteSlice(whole, dir / "a.pcap", 1, 40);
  WriteSlice(whole, dir / "b.pcap", 41, 1000000);
  CorpusRun at_once({whole.string()});
  CorpusRun split({(dir / "a.pcap").string(), (dir / "b.pcap").string()});
  EXPECT_EQ(split.status, ReadStatus::kEnd);
  EXPECT_EQ(split.sink.events, at_once.sink.events);
  EXPECT_EQ(split.source.bytes_read(), fs::file_size(dir / "a.pcap") + fs::file_size(dir / "b.pcap"));
  fs::remove_all(dir);
}

TEST(CaptureCorpusTest, ReadsStandardInput) {
  REQUIRE_CORPUS();
  const fs::path file = Corpus("smtp-pipelining-loopback.pcap");
  CorpusRun from_file({file.string()});
  ASSERT_NE(std::freopen(file.c_str(), "rb", stdin), nullptr);
  CorpusRun from_stdin({"-"});
  EXPECT_EQ(from_stdin.status, ReadStatus::kEnd);
  EXPECT_EQ(from_stdin.sink.events, from_file.sink.events);
}

TEST(CaptureSourceTest, UnreadableInputsSayWhichAndTheRunGoesOn) {
  const fs::path dir = fs::temp_directory_path() / ("pelka-capture-bad-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "garbage.pcap") << "this is not a capture file at all";
  std::ofstream(dir / "empty.pcap");
  CaptureSource source;
  source.OpenFiles({(dir / "missing.pcap").string(), (dir / "garbage.pcap").string(), (dir / "empty.pcap").string()});
  CapturedFrame frame;
  EXPECT_EQ(source.Next(&frame), ReadStatus::kError);
  EXPECT_THAT(source.error(), ::testing::HasSubstr("missing.pcap"));
  EXPECT_EQ(source.Next(&frame), ReadStatus::kError);
  EXPECT_THAT(source.error(), ::testing::HasSubstr("garbage.pcap"));
  EXPECT_EQ(source.Next(&frame), ReadStatus::kError);
  EXPECT_THAT(source.error(), ::testing::HasSubstr("empty.pcap"));
  EXPECT_EQ(source.Next(&frame), ReadStatus::kEnd);
  fs::remove_all(dir);
}

TEST(CaptureSourceTest, LiveCaptureOnAMissingInterfaceFailsClearly) {
  CaptureSource source;
  EXPECT_FALSE(source.OpenLive("pelka-no-such0"));
  EXPECT_THAT(source.error(), ::testing::AnyOf(::testing::HasSubstr("no such interface: pelka-no-such0"),
                                               ::testing::HasSubstr("no permission to capture on pelka-no-such0")));
}

}  // namespace
}  // namespace pelka
