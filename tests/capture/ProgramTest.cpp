// Runs pelka-email as a user would, through its command line, and checks exit
// statuses, messages and output files.
//
// Expected counts come from the captures themselves: the bundled sample
// (samples/make_sample.py says what it holds) and the corpus files, whose
// README counts the messages of each conversation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "capture/CommandLine.h"
#include "capture/ModuleLoader.h"
#include "capture/RunSummary.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

const fs::path kProgram = fs::path(PELKA_BINARY_DIR) / "capture" / "pelka-email";
const fs::path kSample = fs::path(PELKA_SOURCE_DIR) / "samples" / "mail-sample.pcap";
const fs::path kCorpus = PELKA_CORPUS_DIR;

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Quote(const std::string& argument) {
  std::string quoted = "'";
  for (char c : argument) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// A fresh folder per test, removed afterwards.
class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::exists(kProgram)) GTEST_SKIP() << "pelka-email is not built at " << kProgram;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::temp_directory_path() / ("pelka-program-" + std::to_string(::getpid()) + "-" + test->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    std::error_code ignored;
    if (!dir_.empty()) fs::remove_all(dir_, ignored);
  }

  RunResult Run(const std::vector<std::string>& arguments) {
    std::string command = Quote(kProgram.string());
    for (const std::string& argument : arguments) command += " " + Quote(argument);
    command += " >" + Quote((dir_ / "stdout").string()) + " 2>" + Quote((dir_ / "stderr").string()) + " </dev/null";
    const int raw = std::system(command.c_str());
    RunResult result;
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = ReadAll(dir_ / "stdout");
    result.err = ReadAll(dir_ / "stderr");
    return result;
  }

  std::vector<nlohmann::json> Records(const fs::path& out) {
    std::vector<nlohmann::json> records;
    std::ifstream in(out / "emails.jsonl");
    for (std::string line; std::getline(in, line);) records.push_back(nlohmann::json::parse(line));
    return records;
  }

  std::string Out() const { return (dir_ / "out").string(); }

  fs::path dir_;
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
  const std::vector<UsageCase> cases = {
      {"no input", {}, "no capture given"},
      {"unknown option", {"--colour", sample}, "--colour"},
      {"files and interface", {"-i", "lo", sample}, "not both"},
      {"language", {"--lang", "fr", sample}, "fr"},
      {"threshold below 1", {"--smtp-threshold", "0", sample}, "--smtp-threshold"},
      {"threshold not a number", {"--pop3-threshold", "fast", sample}, "fast"},
      {"flow length too large", {"--max-flow-length", "4096", sample}, "--max-flow-length"},
      {"code page", {"--codepage", "12345", sample}, "code page 12345 is not supported"},
      {"attachment answer", {"--attachment", "maybe", sample}, "\"maybe\""},
      {"size entry", {"--size-included", "120;12x", sample}, "\"12x\""},
      {"size above maximum", {"--size-excluded", "100000", sample}, "\"100000\""},
      {"domain", {"--sender-domain-included", "example.com;not_a_domain", sample}, "\"not_a_domain\""},
      {"condition twice", {"--attachment", "yes", "--where", "attachment=no", sample}, "more than once"},
      {"condition name", {"--where", "colour=red", sample}, "\"colour\""},
  };
  for (const UsageCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> arguments = {"-o", Out()};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const RunResult result = Run(arguments);
    EXPECT_EQ(result.status, kExitUsage);
    EXPECT_THAT(result.err, HasSubstr(c.message));
    EXPECT_THAT(result.err, HasSubstr("--help"));
    EXPECT_TRUE(result.out.empty());
    EXPECT_FALSE(fs::exists(Out()));
  }
}

TEST_F(ProgramTest, BadConditionRepeatsTheSyntax) {
  const RunResult result = Run({"--size-included", "1-x", kSample.string()});
  EXPECT_EQ(result.status, kExitUsage);
  EXPECT_THAT(result.err, HasSubstr("bad condition"));
  EXPECT_THAT(result.err, HasSubstr("\"120;0-1024\""));
}

TEST_F(ProgramTest, HelpIsGroupedAndListsTheExitStatuses) {
  const RunResult result = Run({"--help"});
  EXPECT_EQ(result.status, kExitDone);
  for (const char* part : {"Input", "Output", "Analysis", "Diagnosis", "Conditions (Email General Settings",
                           "--copies", "--max-flow-length", "--lang", "--codepage", "--smtp-threshold",
                           "--pop3-threshold", "--no-diagnosis", "--quiet", "--version", "Exit status",
                           "2  the command line is wrong"}) {
    EXPECT_THAT(result.out, HasSubstr(part));
  }
  const RunResult version = Run({"--version"});
  EXPECT_EQ(version.status, kExitDone);
  EXPECT_THAT(version.out, HasSubstr("pelka-email "));
}

// ---------------------------------------------------------------------------
// The bundled sample: one SMTP, one POP3 and one IMAP4 message.

TEST_F(ProgramTest, SampleGivesOneRecordPerProtocolAndASummary) {
  const RunResult result = Run({"-o", Out(), kSample.string()});
  ASSERT_EQ(result.status, kExitDone) << result.err;
  const auto records = Records(Out());
  ASSERT_EQ(records.size(), 3u);
  EXPECT_THAT(Field(records, "protocol"), ::testing::ElementsAre("SMTP", "POP3", "IMAPv4"));
  EXPECT_THAT(Field(records, "email_sender_email"),
              ::testing::ElementsAre("alice@example.org", "dave@example.net", "frank@example.com"));
  EXPECT_THAT(Field(records, "email_receive_email"),
              ::testing::ElementsAre("bob@example.com", "carol@example.com", "erin@example.org"));
  EXPECT_THAT(Field(records, "email_subject"),
              ::testing::ElementsAre("Quarterly report", "下周五开会", "Lunch on Thursday?"));
  EXPECT_THAT(Field(records, "email_attachment")[0], HasSubstr("report.txt"));
  EXPECT_THAT(Field(records, "email_account"), ::testing::ElementsAre("", "carol", "erin"));

  EXPECT_THAT(result.out, HasSubstr("Messages: 3 (SMTP 1, POP3 1, IMAPv4 1)"));
  EXPECT_THAT(result.out, HasSubstr("Quarterly report"));
  EXPECT_THAT(result.out, HasSubstr("Connections: SMTP 1, POP3 1, IMAP4 1"));
  EXPECT_THAT(result.out, HasSubstr("POP3ServerSlowResponseTime"));
  for (const char* file : {"emails.jsonl", "email_log.csv", "email_log.txt", "entries.jsonl", "diagnosis.jsonl",
                           "statistics.json"}) {
    EXPECT_TRUE(fs::exists(fs::path(Out()) / file)) << file;
  }
  EXPECT_FALSE(fs::exists(fs::path(Out()) / "email_copy"));
}

TEST_F(ProgramTest, QuietPrintsNothingAndCopiesWriteOneFilePerMessage) {
  const RunResult result = Run({"-q", "--copies", "-o", Out(), kSample.string()});
  ASSERT_EQ(result.status, kExitDone) << result.err;
  EXPECT_TRUE(result.out.empty());
  EXPECT_TRUE(result.err.empty());
  size_t copies = 0;
  for (const auto& entry : fs::recursive_directory_iterator(fs::path(Out()) / "email_copy"))
    copies += entry.is_regular_file() && entry.path().extension() == ".eml";
  EXPECT_EQ(copies, 3u);
}

TEST_F(ProgramTest, NoDiagnosisAndThresholdsDecideTheSlowReplyReport) {
  struct Case {
    std::vector<std::string> options;
    size_t reports;
  };
  // The POP3 server of the sample answers RETR after 350 ms.
  const std::vector<Case> cases = {
      {{}, 1}, {{"--pop3-threshold", "400"}, 0}, {{"--no-diagnosis"}, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.options));
    fs::remove_all(Out());
    std::vector<std::string> arguments = {"-q", "-o", Out(), kSample.string()};
    arguments.insert(arguments.begin(), c.options.begin(), c.options.end());
    ASSERT_EQ(Run(arguments).status, kExitDone);
    std::ifstream in(fs::path(Out()) / "diagnosis.jsonl");
    size_t slow = 0;
    for (std::string line; std::getline(in, line);) slow += line.find("POP3ServerSlowResponseTime") != std::string::npos;
    EXPECT_EQ(slow, c.reports);
  }
}

// The language picks the string table beside the library; "none" loads none,
// so the module's built-in texts (and their quirks) show.
TEST_F(ProgramTest, LanguageChoosesTheModulesTexts) {
  struct Case {
    const char* language;
    const char* header_start;
    const char* diagnosis_text;
  };
  const std::vector<Case> cases = {
      {"en", "Date and Time, Client Address", "\"POP3 Server Slow Response ("},
      {"zh", "日期时间, 客户端地址", "\"POP3 服务器慢响应("},
      {"none", "日期时间, 客户端地址", "\"POP3 服务器慢响应#("},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.language);
    fs::remove_all(Out());
    ASSERT_EQ(Run({"-q", "--lang", c.language, "-o", Out(), kSample.string()}).status, kExitDone);
    EXPECT_EQ(ReadAll(fs::path(Out()) / "email_log.csv").rfind(c.header_start, 0), 0u);
    EXPECT_THAT(ReadAll(fs::path(Out()) / "diagnosis.jsonl"), HasSubstr(c.diagnosis_text));
  }
}

TEST_F(ProgramTest, MissingOrForeignModuleLibraryIsReportedClearly) {
  const fs::path not_a_library = dir_ / "libPelkaEmail.so";
  std::ofstream(not_a_library) << "not a library";
  struct Case {
    std::string module;
    const char* message;
  };
  std::vector<Case> cases = {{not_a_library.string(), "cannot load the e-mail module"}};
  // Any shared library of the system that is not the module.
  for (const char* path : {"/usr/lib/x86_64-linux-gnu/libpcap.so", "/usr/lib/aarch64-linux-gnu/libpcap.so"}) {
    if (fs::exists(path)) cases.push_back({path, "it has no RegisterDomObjects"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.module);
    ::setenv("PELKA_MODULE", c.module.c_str(), 1);
    const RunResult result = Run({"-o", Out(), kSample.string()});
    ::unsetenv("PELKA_MODULE");
    EXPECT_EQ(result.status, kExitInputProblem);
    EXPECT_THAT(result.err, HasSubstr(c.message));
  }
}

TEST(ModuleSearch, LooksInTheNamedPlaceThenBesideAndAboveTheProgram) {
  EXPECT_THAT(ModuleCandidates("/opt/pelka/bin", ""),
              ::testing::ElementsAre("/opt/pelka/bin/libPelkaEmail.so", "/opt/pelka/libPelkaEmail.so",
                                     "/opt/pelka/lib/pelka/libPelkaEmail.so"));
  EXPECT_THAT(ModuleCandidates("/opt/pelka/bin", "/tmp/mine.so").front(), "/tmp/mine.so");
  // A folder in $PELKA_MODULE means the library inside it.
  EXPECT_EQ(ModuleCandidates("/x", fs::temp_directory_path().string()).front(),
            (fs::temp_directory_path() / "libPelkaEmail.so").string());
  EXPECT_EQ(FindModuleLibrary({"/nonexistent/libPelkaEmail.so", kSample.string()}), kSample.string());
  EXPECT_EQ(FindModuleLibrary({"/nonexistent/libPelkaEmail.so"}), "");
}

// Conditions: only messages that meet all of them leave anything behind.
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
      {{"--size-included", "1-99999"}, {}},
      {{"--sender-domain-included", "example.edu"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.options));
    fs::remove_all(Out());
    std::vector<std::string> arguments = {"-q", "--copies", "-o", Out(), kSample.string()};
    arguments.insert(arguments.begin(), c.options.begin(), c.options.end());
    ASSERT_EQ(Run(arguments).status, kExitDone);
    const auto records = Records(Out());
    EXPECT_EQ(Field(records, "email_sender_email"), c.senders);
    const std::string entries = ReadAll(fs::path(Out()) / "entries.jsonl");
    EXPECT_EQ(static_cast<size_t>(std::count(entries.begin(), entries.end(), '\n')), c.senders.size());
    size_t copies = 0;
    if (fs::exists(fs::path(Out()) / "email_copy")) {
      for (const auto& entry : fs::recursive_directory_iterator(fs::path(Out()) / "email_copy"))
        copies += entry.is_regular_file();
    }
    EXPECT_EQ(copies, c.senders.size());
    // The export files hold a header line and one line per kept record.
    const std::string csv = ReadAll(fs::path(Out()) / "email_log.csv");
    EXPECT_EQ(static_cast<size_t>(std::count(csv.begin(), csv.end(), '\n')), 1 + c.senders.size());
  }
}

// ---------------------------------------------------------------------------
// Input problems: status 1, a message, and the outputs found so far kept.

TEST_F(ProgramTest, UnreadableInputGivesOneAndKeepsTheOtherInputsOutputs) {
  const RunResult result = Run({"-o", Out(), (dir_ / "missing.pcap").string(), kSample.string()});
  EXPECT_EQ(result.status, kExitInputProblem);
  EXPECT_THAT(result.err, HasSubstr("missing.pcap"));
  EXPECT_EQ(Records(Out()).size(), 3u);
}

TEST_F(ProgramTest, DamagedCaptureGivesOneAndKeepsItsOutputs) {
  const fs::path damaged = kCorpus / "smtp-corrupt-record.pcap";
  if (!fs::exists(damaged)) GTEST_SKIP() << "corpus not present at " << kCorpus;
  const RunResult result = Run({"-o", Out(), damaged.string()});
  EXPECT_EQ(result.status, kExitInputProblem);
  EXPECT_THAT(result.err, HasSubstr("smtp-corrupt-record.pcap"));
  EXPECT_TRUE(fs::exists(fs::path(Out()) / "emails.jsonl"));
  EXPECT_TRUE(fs::exists(fs::path(Out()) / "statistics.json"));
}

TEST_F(ProgramTest, UnwritableOutputFolderGivesOne) {
  const fs::path blocker = dir_ / "file";
  std::ofstream(blocker) << "x";
  const RunResult result = Run({"-o", (blocker / "out").string(), kSample.string()});
  EXPECT_EQ(result.status, kExitInputProblem);
  EXPECT_FALSE(result.err.empty());
}

// Ctrl-C while the input is still open: the run ends cleanly, with status 0
// and complete files holding everything found until then.
TEST_F(ProgramTest, InterruptEndsTheRunCleanlyAndKeepsTheOutputs) {
  int input[2];
  ASSERT_EQ(::pipe(input), 0);
  const std::string out = Out();
  const std::string stdout_path = (dir_ / "stdout").string();
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(input[0], STDIN_FILENO);
    ::close(input[0]);
    ::close(input[1]);
    const int log = ::open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(log, STDOUT_FILENO);
    ::execl(kProgram.c_str(), "pelka-email", "-o", out.c_str(), "-", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(input[0]);
  const std::string sample = ReadAll(kSample);
  ASSERT_EQ(::write(input[1], sample.data(), sample.size()), static_cast<ssize_t>(sample.size()));

  // The three records are posted while the input is still open.
  for (int i = 0; i < 100 && Records(out).size() < 3; ++i) ::usleep(50 * 1000);
  ::kill(child, SIGINT);
  int raw = 0;
  ASSERT_EQ(::waitpid(child, &raw, 0), child);
  ::close(input[1]);

  ASSERT_TRUE(WIFEXITED(raw));
  EXPECT_EQ(WEXITSTATUS(raw), kExitDone);
  EXPECT_THAT(ReadAll(dir_ / "stdout"), HasSubstr("Stopped before the end of the input"));
  EXPECT_EQ(Records(out).size(), 3u);
  const std::string csv = ReadAll(fs::path(out) / "email_log.csv");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 4);
  EXPECT_THAT(ReadAll(fs::path(out) / "statistics.json"), HasSubstr("\"Count\": 1"));
}

// ---------------------------------------------------------------------------
// Corpus captures, with the message counts of the corpus README.

TEST_F(ProgramTest, CorpusCapturesGiveTheirMessages) {
  if (!fs::exists(kCorpus)) GTEST_SKIP() << "corpus not present at " << kCorpus;
  struct Case {
    std::vector<const char*> files;
    size_t records;
  };
  const std::vector<Case> cases = {
      {{"smtp-3msgs-one-session.pcap"}, 3},
      {{"pop3-7conns-retr.pcap"}, 3},
      {{"pop3-7conns-sll.pcap"}, 3},
      {{"pop3-gb2312-retr.pcap"}, 1},
      {{"pop3-gb2312-retr-nsec.pcap"}, 1},
      {{"smtp-3msgs-one-session.pcap", "pop3-gb2312-retr.pcap"}, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.files.front());
    fs::remove_all(Out());
    std::vector<std::string> arguments = {"-q", "-o", Out()};
    for (const char* file : c.files) arguments.push_back((kCorpus / file).string());
    ASSERT_EQ(Run(arguments).status, kExitDone);
    EXPECT_EQ(Records(Out()).size(), c.records);
  }
}

TEST_F(ProgramTest, SameTrafficGivesTheSameRecordsWhateverTheFileForm) {
  if (!fs::exists(kCorpus)) GTEST_SKIP() << "corpus not present at " << kCorpus;
  const auto records_of = [this](const char* file) {
    fs::remove_all(Out());
    EXPECT_EQ(Run({"-q", "-o", Out(), (kCorpus / file).string()}).status, kExitDone);
    auto records = Records(Out());
    // The link layer shows in the protocol path and the MAC fields only.
    for (auto& record : records) {
      for (const char* key : {"protocol_path", "src_mac", "dst_mac"}) record.erase(key);
    }
    return records;
  };
  EXPECT_EQ(records_of("pop3-gb2312-retr.pcap"), records_of("pop3-gb2312-retr-nsec.pcap"));
  EXPECT_EQ(records_of("pop3-7conns-retr.pcap"), records_of("pop3-7conns-sll.pcap"));
}

// ---------------------------------------------------------------------------
// Pieces of the summary that need no run.

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
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FitToWidth(c.text, c.width), c.fitted) << c.text;
  }
  EXPECT_EQ(DisplayWidth("下周"), 4u);
}

}  // namespace
}  // namespace pelka
