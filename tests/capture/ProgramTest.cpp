// Runs pelka-email as a user would, through its command line, and checks exit
// statuses, messages and output files.
//
// Expected values come from the bundled sample (samples/make_sample.py says
// what it holds); the public captures are CaptureCorpusTest's and ThreadsTest's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ProgramHarness.h"
#include "capture/CommandLine.h"
#include "capture/EmailConditions.h"
#include "capture/Progress.h"
#include "capture/RunSummary.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using test::ProgramResult;
using test::kSample;
using test::LineCount;
using test::ReadWholeFile;

std::vector<nlohmann::json> Records(const fs::path& out) { return test::ReadJsonLines(out / "emails.jsonl"); }

// Regular files below the folder; 0 when there is none.
size_t FileCount(const fs::path& folder) {
  if (!fs::exists(folder)) return 0;
  size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) files += entry.is_regular_file();
  return files;
}

// A fresh folder per test, removed afterwards; the run writes to out/ in it.
class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_PROGRAM(); }

  ProgramResult Run(const std::vector<std::string>& arguments) { return test::RunProgram(arguments); }
  // A quiet run into a fresh out/ with these options over the inputs.
  ProgramResult RunQuiet(std::vector<std::string> options, const std::vector<std::string>& inputs = {kSample}) {
    fs::remove_all(Out());
    options.insert(options.end(), {"-q", "-o", Out()});
    options.insert(options.end(), inputs.begin(), inputs.end());
    return Run(options);
  }
  std::string Out() const { return (dir_ / "out").string(); }
  fs::path Out(const char* name) const { return dir_ / "out" / name; }

  test::TempDir dir_;
};

std::vector<std::string> Field(const std::vector<nlohmann::json>& records, const char* key) {
  std::vector<std::string> values;
  for (const nlohmann::json& record : records) values.push_back(record.value(key, ""));
  return values;
}

// ---------------------------------------------------------------------------
// Usage errors: status 2, a message naming the problem, nothing written.

struct UsageCase {
  const char* name;
  std::vector<std::string> arguments;
  const char* message;
};

TEST_F(ProgramTest, UsageErrorsGiveStatusTwoAndSayWhy) {
  const std::string sample = kSample.string();
  const std::string iocs = (dir_ / "iocs.txt").string();
  test::WriteWholeFile(iocs, "# list\n\nd41d8cd98f00b204e9800998ecf8427e\nd41d8cd98f00b204e9800998ecf8427\n");
  const std::vector<UsageCase> cases = {
      {"hash list line", {"--attachments", "--ioc-hashes", iocs, sample}, "iocs.txt, line 4: \"d41d8"},
      {"hash list missing", {"--attachments", "--ioc-hashes", iocs + ".none", sample}, "cannot read"},
      {"hash list alone", {"--ioc-hashes", iocs, sample}, "needs --attachments"},
      {"attachments with rotate", {"--attachments", "--rotate", "60", sample}, "without --rotate"},
      {"no input", {}, "no capture given"},
      {"unknown option", {"--colour", sample}, "--colour"},
      {"files and interface", {"-i", "lo", sample}, "not both"},
      {"language", {"--lang", "fr", sample}, "fr"},
      {"threshold below 1", {"--smtp-threshold", "0", sample}, "--smtp-threshold"},
      {"threshold not a number", {"--pop3-threshold", "fast", sample}, "fast"},
      {"flow length too large", {"--max-flow-length", "4096", sample}, "--max-flow-length"},
      {"code page", {"--codepage", "12345", sample}, "code page 12345 is not supported"},
      {"size entry", {"--size-included", "120;12x", sample}, "\"12x\""},
      {"condition twice", {"--attachment", "yes", "--where", "attachment=no", sample}, "more than once"},
      {"bad condition repeats the syntax", {"--size-included", "1-x", sample}, "\"120;0-1024\""},
      {"filter with files", {"-f", "tcp", sample}, "live capture (-i) only"},
      {"buffer size with files", {"-B", "16", sample}, "live capture (-i) only"},
      {"filter that does not compile", {"-i", "lo", "-f", "tcp port nosuchport"}, "nosuchport"},
      {"buffer size 0", {"-i", "lo", "-B", "0"}, "--buffer-size"},
  };
  for (const UsageCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> arguments = {"-o", Out()};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const ProgramResult result = Run(arguments);
    EXPECT_EQ(result.status, kExitUsage);
    EXPECT_THAT(result.err, HasSubstr(c.message));
    EXPECT_THAT(result.err, HasSubstr("--help"));
    EXPECT_TRUE(result.out.empty());
    EXPECT_FALSE(fs::exists(Out()));
  }
}

TEST_F(ProgramTest, HelpAndVersionGoToStandardOutput) {
  for (const char* option : {"--help", "--version"}) {
    const ProgramResult result = Run({option});
    EXPECT_EQ(result.status, kExitDone) << option;
    EXPECT_THAT(result.out, HasSubstr(option == std::string("--help") ? "Exit status" : "pelka-email ")) << option;
  }
  // Without -U, tcpdump holds the packets back until it exits.
  EXPECT_THAT(Run({"--help"}).out, HasSubstr("tcpdump -U -w - "));
}

// A live capture takes only the mail ports unless told otherwise.
TEST(CommandLineDefaults, LiveCaptureFiltersTheMailPorts) {
  const char* const argv[] = {"pelka-email", "-i", "lo"};
  const CommandLineOutcome outcome = ParseCommandLine(3, argv);
  ASSERT_TRUE(outcome.options);
  EXPECT_EQ(outcome.options->filter, "tcp port 25 or tcp port 110 or tcp port 143");
}

// ---------------------------------------------------------------------------
// The bundled sample: one SMTP, one POP3 and one IMAP4 message.

TEST_F(ProgramTest, SampleGivesOneRecordPerProtocolAndASummary) {
  const ProgramResult result = Run({"-o", Out(), kSample.string()});
  ASSERT_EQ(result.status, kExitDone) << result.err;
  const auto records = Records(Out());
  ASSERT_EQ(records.size(), 3u);
  const std::pair<const char*, std::vector<std::string>> fields[] = {
      {"protocol", {"SMTP", "POP3", "IMAPv4"}},
      {"email_sender_email", {"alice@example.org", "dave@example.net", "frank@example.com"}},
      {"email_receive_email", {"bob@example.com", "carol@example.com", "erin@example.org"}},
      {"email_subject", {"Quarterly report", "下周五开会", "Lunch on Thursday?"}},
      {"email_account", {"", "carol", "erin"}}};
  for (const auto& [key, values] : fields) EXPECT_EQ(Field(records, key), values) << key;
  EXPECT_THAT(Field(records, "email_attachment")[0], HasSubstr("report.txt"));

  EXPECT_THAT(result.out, HasSubstr("Messages: 3 (SMTP 1, POP3 1, IMAPv4 1)"));
  EXPECT_THAT(result.out, HasSubstr("Quarterly report"));
  EXPECT_THAT(result.out, HasSubstr("Connections: SMTP 1, POP3 1, IMAP4 1"));
  EXPECT_THAT(result.out, HasSubstr("POP3ServerSlowResponseTime"));
  for (const char* file : {"emails.jsonl", "email_log.csv", "email_log.txt", "entries.jsonl", "diagnosis.jsonl",
                           "statistics.json"}) {
    EXPECT_TRUE(fs::exists(Out(file))) << file;
  }
  EXPECT_FALSE(fs::exists(Out("email_copy")));
}

// The POP3 server of the sample answers RETR after 350 ms. The language picks
// the string table beside the library; "none" loads none, so the module's
// built-in default texts show, and a text with values that no table translated
// is marked with a leading "#".
TEST_F(ProgramTest, ThresholdsSwitchAndLanguageDecideTheSlowReplyReport) {
  struct Case {
    std::vector<std::string> options;
    size_t reports;
    const char* header_start = "";
    const char* diagnosis_text = "";
  };
  const std::vector<Case> cases = {
      {{"--lang", "en"}, 1, "Date and Time, Client Address", "\"POP3 Server Slow Response ("},
      {{"--lang", "zh"}, 1, "日期时间, 客户端地址", "\"POP3 服务器慢响应("},
      {{"--lang", "none"}, 1, "日期时间, 客户端地址", "\"POP3 服务器慢响应#("},
      {{"--pop3-threshold", "400"}, 0},
      {{"--no-diagnosis"}, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.options));
    ASSERT_EQ(RunQuiet(c.options).status, kExitDone);
    size_t slow = 0;
    for (const auto& report : test::ReadJsonLines(Out("diagnosis.jsonl")))
      slow += report.value("event", "") == "POP3ServerSlowResponseTime";
    EXPECT_EQ(slow, c.reports);
    EXPECT_EQ(ReadWholeFile(Out("email_log.csv")).rfind(c.header_start, 0), 0u);
    EXPECT_THAT(ReadWholeFile(Out("diagnosis.jsonl")), HasSubstr(c.diagnosis_text));
  }
}

TEST_F(ProgramTest, MissingOrForeignModuleLibraryIsReportedClearly) {
  const fs::path not_a_library = dir_ / "libPelkaEmail.so";
  std::ofstream(not_a_library) << "not a library";
  // The module without the resources/ folder the build puts beside it.
  const fs::path bare = dir_ / "bare" / "libPelkaEmail.so";
  fs::create_directories(bare.parent_path());
  fs::copy_file(fs::path(PELKA_BINARY_DIR) / "libPelkaEmail.so", bare);
  struct Case {
    std::string module;
    int status;
    const char* message;
  };
  std::vector<Case> cases = {{not_a_library.string(), kExitInputProblem, "cannot load the e-mail module"},
                             {(dir_ / "nothing").string(), kExitInputProblem, "PELKA_MODULE names"},
                             {bare.string(), kExitDone, "string table"}};
  // Any shared library of the system that is not the module.
  for (const char* path : {"/usr/lib/x86_64-linux-gnu/libpcap.so", "/usr/lib/aarch64-linux-gnu/libpcap.so"}) {
    if (fs::exists(path)) cases.push_back({path, kExitInputProblem, "it has no RegisterDomObjects"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.module);
    ::setenv("PELKA_MODULE", c.module.c_str(), 1);
    const ProgramResult result = Run({"-o", Out(), kSample.string()});
    ::unsetenv("PELKA_MODULE");
    EXPECT_EQ(result.status, c.status);
    EXPECT_THAT(result.err, HasSubstr(c.message));
  }
}

// Conditions: only messages that meet all of them leave anything behind, one
// copy file per message among them.
TEST_F(ProgramTest, ConditionsKeepOnlyTheMessagesThatMeetThemAll) {
  struct Case {
    std::vector<std::string> options;
    std::vector<std::string> senders;
  };
  const std::vector<Case> cases = {
      {{"--attachment", "yes"}, {"alice@example.org"}},
      {{"--attachment", "no"}, {"dave@example.net", "frank@example.com"}},
      {{"--sender-domain-excluded", "example.org"}, {"dave@example.net", "frank@example.com"}},
      {{"--receiver-domain-included", "example.com"}, {"alice@example.org", "dave@example.net"}},
      {{"--where", "receiver-domain-included=example.com and attachment=no"}, {"dave@example.net"}},
      // Every message of the sample is below 1 KB.
      {{"--size-included", "0"}, {"alice@example.org", "dave@example.net", "frank@example.com"}},
      {{"--size-excluded", "0", "--attachment", "no"}, {}},
      {{"--sender-domain-included", "example.edu"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.options));
    std::vector<std::string> options = c.options;
    options.push_back("--copies");
    const ProgramResult result = RunQuiet(options);
    ASSERT_EQ(result.status, kExitDone) << result.err;
    EXPECT_EQ(result.out + result.err, "") << "--quiet prints nothing";
    const auto records = Records(Out());
    EXPECT_EQ(Field(records, "email_sender_email"), c.senders);
    EXPECT_EQ(LineCount(Out("entries.jsonl")), c.senders.size());
    EXPECT_EQ(FileCount(Out("email_copy")), c.senders.size());
    // The export files hold a header line and one line per kept record.
    EXPECT_EQ(LineCount(Out("email_log.csv")), 1 + c.senders.size());
  }
}

// A subject that would retitle the window and clear the screen, and a file
// name with an escape in it: the terminal sees the control characters escaped
// in the summary and in the error; emails.jsonl keeps its own JSON escaping.
TEST_F(ProgramTest, ControlCharactersReachTheTerminalEscaped) {
  const std::string subject = "\x1b]0;owned\x07Hi\x1b[2J";
  test::WriteWholeFile(dir_ / "mail.pcap",
                       test::PcapFileHeader() + test::PcapRecords(test::SmtpSession(40000, subject)));
  test::WriteWholeFile(dir_ / "x\x1b[2J.pcap", "not a capture");
  const ProgramResult result = Run({"-o", Out(), (dir_ / "mail.pcap").string(), (dir_ / "x\x1b[2J.pcap").string()});
  EXPECT_EQ(result.status, kExitInputProblem);
  EXPECT_THAT(result.out, HasSubstr("\\x1b]0;owned\\x07Hi\\x1b[2J"));
  EXPECT_THAT(result.err, HasSubstr("x\\x1b[2J.pcap"));
  for (const std::string& text : {result.out, result.err}) EXPECT_EQ(text.find_first_of("\x1b\x07"), std::string::npos);
  EXPECT_EQ(Field(Records(Out()), "email_subject"), std::vector<std::string>{subject});
}

// ---------------------------------------------------------------------------
// Input problems: status 1 and a message; an input that does not open stops
// the run before anything is written.

// A capture file that does not open is OutputSafetyTest's "a mistyped input".
TEST_F(ProgramTest, UnknownInterfaceGivesOneAndSaysWhich) {
  const ProgramResult interface = Run({"-q", "-i", "nosuchiface0", "-o", Out()});
  EXPECT_EQ(interface.status, kExitInputProblem);
  EXPECT_THAT(interface.err, ::testing::AnyOf(HasSubstr("no such interface: nosuchiface0"),
                                              HasSubstr("no permission to capture on nosuchiface0")));
  EXPECT_FALSE(fs::exists(Out()));
}

// The kernel's drop count of a live capture reaches the summary and
// statistics.json (kept current while the run goes on).
TEST_F(ProgramTest, LiveCaptureReportsTheKernelsDropCount) {
  test::ProgramProcess process({"-i", "lo", "-o", Out()});
  const bool started = test::WaitForLines(Out("statistics.json"), 1, std::chrono::seconds(10));
  process.Signal(SIGTERM);
  const ProgramResult result = process.Wait(std::chrono::seconds(30));
  if (!started && result.err.find("ermi") != std::string::npos) GTEST_SKIP() << "no privilege: " << result.err;
  ASSERT_EQ(result.status, kExitDone) << result.err;
  EXPECT_THAT(result.out, HasSubstr("dropped by the kernel: 0"));
  const auto statistics = nlohmann::json::parse(ReadWholeFile(Out("statistics.json")), nullptr, false);
  EXPECT_EQ(statistics.value("/Capture/Kernel/Dropped"_json_pointer, -1), 0) << statistics;
}

// ---------------------------------------------------------------------------
// A capture split in two files, the cut inside a message: the flow goes on
// across the files and the records are those of the whole capture.
TEST_F(ProgramTest, ACaptureSplitInTwoFilesGivesTheSameRecords) {
  const std::vector<test::Frame> frames = test::SmtpSession(40000, "Split", 20000);
  const size_t half = frames.size() / 2;  // the body's 15 packets fill the middle of the session
  test::WriteWholeFile(dir_ / "whole.pcap", test::PcapFileHeader() + test::PcapRecords(frames));
  test::WriteWholeFile(dir_ / "first.pcap",
                       test::PcapFileHeader() + test::PcapRecords({frames.begin(), frames.begin() + half}));
  test::WriteWholeFile(dir_ / "second.pcap",
                       test::PcapFileHeader() + test::PcapRecords({frames.begin() + half, frames.end()}, half));
  ASSERT_EQ(RunQuiet({}, {dir_ / "whole.pcap"}).status, kExitDone);
  const std::string whole = ReadWholeFile(Out("emails.jsonl"));
  EXPECT_EQ(test::RecordedSubjects(Out()), std::vector<std::string>{"Split"});
  ASSERT_EQ(RunQuiet({}, {dir_ / "first.pcap", dir_ / "second.pcap"}).status, kExitDone);
  EXPECT_EQ(ReadWholeFile(Out("emails.jsonl")), whole);
}

// ---------------------------------------------------------------------------
// Pieces of the summary that need no run; the summary's counts and first rows
// are in SampleGivesOneRecordPerProtocolAndASummary.

TEST(RunSummaryText, FitsTextToColumnsCountingWideCharacters) {
  struct Case {
    const char* text;
    size_t width;
    const char* fitted;
  };
  const std::vector<Case> cases = {
      {"abc", 5, "abc  "},
      {"abcdef", 4, "abc\u2026"},
      {"下周五开会", 6, "下周\u2026 "},
      {"a\r\nb", 4, "a  b"},
      {"\x1b[2Jx", 10, "\\x1b[2Jx  "},
      {"\xc2\x9b" "1m\xff", 13, "\\u009b1m\\xff "},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FitToWidth(c.text, c.width), c.fitted) << c.text;
  }
  EXPECT_EQ(DisplayWidth("下周"), 4u);
}

// The plain cases are in ConditionsKeepOnlyTheMessagesThatMeetThemAll.
TEST(MessageFilterFacts, ReadTheRecordFieldsTheConditionsLookAt) {
  struct Case {
    const wchar_t* attachments;
    const wchar_t* receivers;
    bool has_attachments;
    std::vector<std::wstring> receiver_addresses;
  };
  const std::vector<Case> cases = {
      {L"report.txt;", L"a@example.com; b@example.org", true, {L"a@example.com", L"b@example.org"}},
      {L" ; ", L"a@example.com,b@example.org", false, {L"a@example.com", L"b@example.org"}},
      {L"x.zip", L"", true, {}},
  };
  for (const Case& c : cases) {
    const EmailFacts facts = FactsFromRecord(c.attachments, 2048, L"alice@example.org", c.receivers);
    EXPECT_EQ(facts.has_attachments, c.has_attachments) << c.attachments;
    EXPECT_EQ(facts.receiver_addresses, c.receiver_addresses) << c.receivers;
  }
}

TEST(ProgressText, ShowsBytesOfTheTotalPacketsMessagesAndRate) {
  struct Case {
    ProgressFigures figures;
    double seconds;
    const char* line;
  };
  const std::vector<Case> cases = {
      {{512 * 1024, 1024 * 1024, 10, 2}, 2.0, "512.0 KiB of 1.0 MiB (50%), 10 packets, 2 messages, 256.0 KiB/s"},
      {{5, 0, 1, 0}, 0.0, "5 B, 1 packets, 0 messages"},
      {{3ull << 30, 2ull << 30, 7, 1}, 0.0, "3.0 GiB of 2.0 GiB (100%), 7 packets, 1 messages"},
      {{5, 0, 1, 0, 3}, 0.0, "5 B, 1 packets, 0 messages, 3 dropped by the kernel"},
  };
  for (const Case& c : cases) EXPECT_EQ(FormatProgress(c.figures, c.seconds), c.line);
  EXPECT_EQ(FormatBytes(1023), "1023 B");
  EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
}

}  // namespace
}  // namespace pelka
