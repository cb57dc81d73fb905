// End to end over public captures of real traffic (tests/data): file reading,
// decoding and flow tracking together. Damaged captures are checked through
// the program (MalformedCaptureTest).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "ProgramHarness.h"
#include "TrackerHarness.h"
#include "capture/CaptureSource.h"
#include "capture/Notices.h"

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

// --- The program over the shared corpus ----------------------------------------------

// The corpus the developers share, beside the repository; its README lists
// the messages each capture carries ("messages: N" in the file's row).
const fs::path kSharedCorpus = fs::path(PELKA_SOURCE_DIR) / ".." / "shared" / "corpus";

std::map<std::string, uint64_t> ListedMessages() {
  std::map<std::string, uint64_t> listed;
  std::ifstream readme(kSharedCorpus / "README.md");
  const std::regex row(R"(^\| `([^`]+)` \|.*messages: (\d+))");
  std::smatch match;
  for (std::string line; std::getline(readme, line);)
    if (std::regex_search(line, match, row)) listed[match[1]] = std::stoull(match[2]);
  return listed;
}

struct CorpusOutputs {
  CorpusOutputs(const fs::path& capture, const fs::path& out, std::vector<std::string> options) {
    options.insert(options.end(), {"-q", "-o", out.string(), capture.string()});
    test::ExpectNoCrash(test::RunProgram(options));
    records = test::LineCount(out / "emails.jsonl");
    for (const nlohmann::json& notice : test::ReadJsonLines(out / "notices.jsonl"))
      ++notices[notice.value("kind", std::string())];
    auto statistics = nlohmann::json::parse(test::ReadWholeFile(out / "statistics.json"), nullptr, false);
    for (const auto& [kind, count] : statistics["Capture"]["Notices"].items())
      if (count.get<uint64_t>() > 0) counted[kind] = count.get<uint64_t>();
    for (const char* name : {"emails.jsonl", "entries.jsonl", "diagnosis.jsonl", "notices.jsonl", "email_log.csv",
                             "email_log.txt", "statistics.json"})
      files[name] = test::ReadWholeFile(out / name);
  }
  uint64_t MessageNotices() const {
    uint64_t total = 0;
    for (size_t kind = 0; kind < kNoticeKindCount; ++kind) {
      const auto found = notices.find(std::string(NoticeKey(static_cast<NoticeKind>(kind))));
      if (found != notices.end() && CountsMessage(static_cast<NoticeKind>(kind))) total += found->second;
    }
    return total;
  }
  uint64_t records = 0;
  std::map<std::string, uint64_t> notices, counted;
  std::map<std::string, std::string> files;
};

// Every message a capture carries is recorded or noticed, unless a notice
// says the connection could not be read at all; --pipelined changes nothing
// where nothing was pipelined, and records what was.
TEST(CaptureCorpusTest, RecordsAndNoticesAccountForEveryListedMessage) {
  REQUIRE_PROGRAM();
  const std::map<std::string, uint64_t> listed = ListedMessages();
  if (listed.empty()) GTEST_SKIP() << "no shared corpus at " << kSharedCorpus;
  test::TempDir out;
  for (const auto& [file, messages] : listed) {
    SCOPED_TRACE(file);
    const fs::path capture = kSharedCorpus / "pcap" / file;
    const CorpusOutputs plain(capture, out.path() / file, {});
    const CorpusOutputs split(capture, out.path() / (file + ".pipelined"), {"--pipelined"});
    EXPECT_EQ(plain.counted, plain.notices);
    const bool unreadable = plain.notices.count("starttls") || plain.notices.count("tls-port");
    if (!unreadable) {
      EXPECT_GE(plain.records + plain.MessageNotices(), messages);
    }
    if (!plain.notices.count("smtp-pipelined")) {
      EXPECT_EQ(split.files, plain.files);
      continue;
    }
    EXPECT_GE(split.records, plain.records);
    EXPECT_LT(split.notices.count("smtp-pipelined") ? split.notices.at("smtp-pipelined") : 0,
              plain.notices.at("smtp-pipelined"));
  }
}

// A SYN on a mail port that is not followed counts once, however often it is
// sent again.
TEST(CaptureCorpusTest, OpeningsOnOtherMailPortsCountOncePerConnection) {
  REQUIRE_PROGRAM();
  test::TempDir out;
  test::Segment submission = test::Between(test::V4(10, 0, 0, 1), 40001, test::V4(192, 0, 2, 25), 587);
  submission.flags = kTcpSyn;
  test::Segment imaps = test::Between(test::V4(10, 0, 0, 1), 40002, test::V4(192, 0, 2, 25), 993);
  imaps.flags = kTcpSyn;
  const std::vector<test::Frame> frames = {test::EthernetFrame(submission), test::EthernetFrame(submission),
                                           test::EthernetFrame(imaps)};
  test::WriteWholeFile(out.path() / "syns.pcap", test::PcapFileHeader() + test::PcapRecords(frames));
  const CorpusOutputs outputs(out.path() / "syns.pcap", out.path() / "run", {});
  EXPECT_EQ(outputs.notices, (std::map<std::string, uint64_t>{{"tls-port", 2}}));
}

struct NoticedCapture {
  const char* file;
  std::map<std::string, uint64_t> notices;
  std::vector<std::string> options = {};
  uint64_t records = 0;
};

// Captures that stand for one notice kind each, with exactly what they give.
TEST(CaptureCorpusTest, CapturesGiveTheirNotices) {
  REQUIRE_PROGRAM();
  if (!fs::exists(kSharedCorpus / "pcap")) GTEST_SKIP() << "no shared corpus at " << kSharedCorpus;
  const std::vector<NoticedCapture> cases = {
      {"smtp-3msgs-one-session.pcap", {}, {}, 3},
      {"smtp-pipelining-loopback.pcap", {{"smtp-pipelined", 1}}},
      // The split hands the body (it has no header lines) to the module.
      {"smtp-pipelining-loopback.pcap", {{"no-receiver-address", 1}}, {"--pipelined"}},
      {"smtp-multi-addr.pcap", {}, {"--pipelined"}, 1},
      {"smtp-starttls.pcap", {{"starttls", 1}}},
      {"smtp-port587-winmail.pcap", {{"tls-port", 1}}},
      {"smtp-helo-fallback-30rcpt.pcap", {{"no-receiver-address", 1}}},
      {"pop3-49-top.pcap", {{"pop3-top", 49}}},
      {"imap-login-fetch-26.pcap", {{"imap-fetch-form", 1}}},
      {"mixed-ntlm-auth.pcap", {{"login-not-taken", 3}}},
      {"smtp-spambot-port25.pcap", {{"cut-at-limit", 4}, {"login-not-taken", 1}}, {"--max-flow-length", "0"}},
      {"smtp-bdat-multipart-chunked.pcap", {{"unfinished", 1}}},
      {"pop3-gb2312-retr.pcap", {{"midstream-start", 1}}, {}, 1},
      {"smtp-bdat-gap.pcap", {{"tcp-gap", 1}}, {}, 1},
  };
  test::TempDir out;
  for (const NoticedCapture& c : cases) {
    SCOPED_TRACE(c.file);
    const CorpusOutputs outputs(kSharedCorpus / "pcap" / c.file, out.path() / c.file, c.options);
    EXPECT_EQ(outputs.notices, c.notices);
    EXPECT_EQ(outputs.records, c.records);
  }
}

// --- Attachments ----------------------------------------------------------------------

// Each leaf part of the .eml copies as a second decoder (Python's email
// package) reads it: "file name<TAB>sha256 of the decoded bytes".
std::set<std::string> PartsDecodedByPython(const fs::path& copies) {
  std::vector<std::string> args = {"-c",
                                   "import email, email.policy, hashlib, sys\n"
                                   "for path in sys.argv[1:]:\n"
                                   "  message = email.message_from_binary_file(open(path, 'rb'), policy=email.policy.default)\n"
                                   "  for part in message.walk():\n"
                                   "    data = None if part.is_multipart() else part.get_payload(decode=True)\n"
                                   "    if data is not None:\n"
                                   "      print((part.get_filename() or '') + '\\t' + hashlib.sha256(data).hexdigest())\n"};
  for (const auto& entry : fs::directory_iterator(copies)) args.push_back(entry.path().string());
  const test::ProgramResult decoded = test::RunProgram(args, "/usr/bin/python3");
  EXPECT_EQ(decoded.status, 0) << decoded.err;
  std::set<std::string> parts;
  std::istringstream lines(decoded.out);
  for (std::string line; std::getline(lines, line);) parts.insert(line);
  return parts;
}

// What a coreutils hash program says of a file.
std::string HashBy(const char* program, const fs::path& file) {
  const test::ProgramResult result = test::RunProgram({file.string()}, std::string("/usr/bin/") + program);
  return result.out.substr(0, result.out.find(' '));
}

struct AttachmentCase {
  const char* file;
  std::multiset<std::string> names;  // file names of the attachments taken out
  std::set<std::string> listed = {};  // those whose hash is on the --ioc-hashes list
};

// --attachments over the corpus captures that carry attachments: each stored
// file is the part as a second decoder decodes it from the message, its
// hashes are what md5sum, sha1sum and sha256sum say, the hash list marks the
// listed one, and without --copies the other outputs are a plain run's and no
// email_copy/ is left.
TEST(CaptureCorpusTest, AttachmentsAreTheDecodedPartsStoredByHash) {
  REQUIRE_PROGRAM();
  if (!fs::exists(kSharedCorpus / "pcap")) GTEST_SKIP() << "no shared corpus at " << kSharedCorpus;
  if (!fs::exists("/usr/bin/python3")) GTEST_SKIP() << "python3 is not installed";
  const std::vector<AttachmentCase> cases = {
      {"smtp-eicar-attachment.pcap", {"EICAR-Test-File"}, {"EICAR-Test-File"}},
      // Three messages with the same document: one file.
      {"smtp-spambot-port25.pcap", {"DOC_18092019-004927.doc", "DOC_18092019-004927.doc", "DOC_18092019-004927.doc"}},
      {"smtp-attachment-txt.pcap", {"J.txt"}},
      {"smtp-jpg-attachment.pcapng", {"newguy.jpg"}},
  };
  test::TempDir out;
  // The EICAR test file's MD5, in upper case, among comments and blanks.
  test::WriteWholeFile(out / "iocs.txt", "# known bad\n\n  44D88612FEA8A8F36DE82E1278ABB02F \n");
  for (const AttachmentCase& c : cases) {
    SCOPED_TRACE(c.file);
    const fs::path capture = kSharedCorpus / "pcap" / c.file, run = out / c.file;
    CorpusOutputs taken(capture, run / "taken", {"--attachments", "--ioc-hashes", (out / "iocs.txt").string()});
    CorpusOutputs plain(capture, run / "plain", {});
    const auto counted = nlohmann::json::parse(taken.files["statistics.json"])["Capture"]["Attachments"];
    taken.files.erase("statistics.json");
    plain.files.erase("statistics.json");
    EXPECT_EQ(taken.files, plain.files);
    EXPECT_FALSE(fs::exists(run / "taken" / "email_copy"));
    const CorpusOutputs copied(capture, run / "copied",
                               {"--attachments", "--copies", "--ioc-hashes", (out / "iocs.txt").string()});
    const std::set<std::string> decoded = PartsDecodedByPython(run / "copied" / "email_copy");

    std::multiset<std::string> names;
    std::set<std::string> listed, files;
    for (const nlohmann::json& row : test::ReadJsonLines(run / "taken" / "attachments.jsonl")) {
      const std::string name = row["file_name"], sha256 = row["sha256"];
      names.insert(name);
      files.insert(sha256);
      if (row["ioc_match"] == true) listed.insert(name);
      EXPECT_TRUE(decoded.count(name + "\t" + sha256)) << name;
      const fs::path stored = run / "taken" / row["stored_path"].get<std::string>();
      EXPECT_EQ(stored.filename(), sha256);
      EXPECT_EQ(fs::status(stored).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
      EXPECT_EQ(HashBy("sha256sum", stored), sha256);
      EXPECT_EQ(HashBy("sha1sum", stored), row["sha1"]);
      EXPECT_EQ(HashBy("md5sum", stored), row["md5"]);
      EXPECT_EQ(fs::file_size(stored), row["size"]);
    }
    EXPECT_EQ(names, c.names);
    EXPECT_EQ(listed, c.listed);
    EXPECT_EQ(counted["Found"], names.size());
    EXPECT_EQ(counted["Stored"], files.size());
    EXPECT_EQ(counted["Duplicates"], names.size() - files.size());
    EXPECT_EQ(counted["IocMatches"], listed.size());
    EXPECT_EQ(test::ReadWholeFile(run / "copied" / "attachments.jsonl"),
              test::ReadWholeFile(run / "taken" / "attachments.jsonl"));
  }
}

}  // namespace
}  // namespace pelka
