// Runs the built pelka-email program the way a user does, on captures the
// tests build from bytes, and reads back what it wrote.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "FrameBuilder.h"
#include "support/TempFile.h"

namespace pelka::test {

namespace fs = std::filesystem;

// The program under test: PELKA_EMAIL_PROGRAM when set, else the build's own.
inline fs::path ProgramPath() {
  if (const char* path = std::getenv("PELKA_EMAIL_PROGRAM")) return path;
  return fs::path(PELKA_BINARY_DIR) / "capture" / "pelka-email";
}

#define REQUIRE_PROGRAM()                                                                         \
  if (!std::filesystem::exists(::pelka::test::ProgramPath())) {                                   \
    GTEST_SKIP() << "pelka-email is not built at " << ::pelka::test::ProgramPath() << "; skipping"; \
  }

inline size_t LineCount(const fs::path& file) {
  const std::string text = ReadWholeFile(file);
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// The bundled sample: one SMTP, one POP3 and one IMAP4 message.
inline const fs::path kSample = fs::path(PELKA_SOURCE_DIR) / "samples" / "mail-sample.pcap";

struct ProgramResult {
  bool exited = false;  // false: killed by a signal or never finished
  int status = -1;      // the exit status when it exited
  int signal = 0;       // the signal that ended it otherwise
  std::string out;
  std::string err;
};

// The crash-free checks every run must pass: it exited on its own, and no
// sanitizer spoke up (sanitizers exit with 1, like a damaged input).
inline void ExpectNoCrash(const ProgramResult& result) {
  EXPECT_TRUE(result.exited) << "ended by signal " << result.signal << "\nstderr:\n" << result.err;
  EXPECT_EQ(result.err.find("Sanitizer"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find("runtime error"), std::string::npos) << result.err;
}

// pelka-email as a child process. Standard output and error go to files, so
// that a talkative run never blocks on a full pipe; standard input is a pipe
// the test may write to, or /dev/null.
class ProgramProcess {
 public:
  // `program` defaults to pelka-email; tests may wrap it in another command.
  explicit ProgramProcess(std::vector<std::string> args, bool stdin_pipe = false,
                          const std::string& program = ProgramPath().string()) {
    int ends[2] = {-1, -1};
    if (stdin_pipe && ::pipe(ends) != 0) return;
    if (stdin_pipe) ::signal(SIGPIPE, SIG_IGN);  // a program that ends early must fail a write, not kill the test
    const std::string out_path = (io_ / "stdout").string(), err_path = (io_ / "stderr").string();
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(stdin_pipe ? ends[0] : ::open("/dev/null", O_RDONLY), 0);
      ::dup2(::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      ::dup2(::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      if (stdin_pipe) ::close(ends[1]);
      ::signal(SIGPIPE, SIG_DFL);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    if (stdin_pipe) ::close(ends[0]);
    stdin_ = ends[1];
  }
  ~ProgramProcess() {
    CloseStdin();
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  ProgramProcess(const ProgramProcess&) = delete;
  ProgramProcess& operator=(const ProgramProcess&) = delete;

  // Writes to the program's standard input; false when it stopped reading.
  bool WriteStdin(const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
      const ssize_t n = ::write(stdin_, bytes.data() + done, bytes.size() - done);
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  void CloseStdin() {
    if (stdin_ >= 0) ::close(stdin_);
    stdin_ = -1;
  }
  void Signal(int number) {
    if (pid_ > 0) ::kill(pid_, number);
  }

  // Waits for the end; a program still running after `limit` is killed and
  // reported as not exited.
  ProgramResult Wait(std::chrono::seconds limit = std::chrono::seconds(120)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    bool finished = false;
    while (pid_ > 0 && !(finished = ::waitpid(pid_, &status, WNOHANG) != 0) &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (pid_ > 0 && !finished) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    ProgramResult result;
    result.exited = finished && WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = finished && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.out = ReadWholeFile(io_ / "stdout");
    result.err = ReadWholeFile(io_ / "stderr");
    return result;
  }

 private:
  TempDir io_;
  pid_t pid_ = -1;
  int stdin_ = -1;
};

inline ProgramResult RunProgram(const std::vector<std::string>& args,
                                const std::string& program = ProgramPath().string()) {
  ProgramProcess process(args, false, program);
  return process.Wait();
}

// The lines of a JSON Lines file. Every line must be a whole JSON object and
// the file must end with a line end: a run that stops for any reason leaves
// only whole lines behind.
inline std::vector<nlohmann::json> ReadJsonLines(const fs::path& path) {
  std::vector<nlohmann::json> objects;
  const std::string text = ReadWholeFile(path);
  EXPECT_TRUE(text.empty() || text.back() == '\n') << path << " ends inside a line";
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    objects.push_back(nlohmann::json::parse(line, nullptr, false));
    EXPECT_TRUE(objects.back().is_object()) << path << ": not a JSON object: " << line;
  }
  return objects;
}

// The subjects of the records in <out>/emails.jsonl, in order.
inline std::vector<std::string> RecordedSubjects(const fs::path& out_dir) {
  std::vector<std::string> subjects;
  for (const nlohmann::json& record : ReadJsonLines(out_dir / "emails.jsonl"))
    subjects.push_back(record.value("email_subject", std::string()));
  return subjects;
}

// Waits until the file has at least `count` line ends or the time is up.
inline bool WaitForLines(const fs::path& path, size_t count, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (LineCount(path) < count && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return LineCount(path) >= count;
}

// Every output file the run left ends in whole lines: JSON Lines files parse
// line by line, statistics.json parses when present. Files that are not
// regular (a link to /dev/full) are passed over.
inline void ExpectWholeLines(const fs::path& out_dir) {
  for (const char* name : {"emails.jsonl", "entries.jsonl", "diagnosis.jsonl", "email_log.csv", "email_log.txt"}) {
    if (!fs::is_regular_file(out_dir / name)) continue;
    const std::string text = ReadWholeFile(out_dir / name);
    EXPECT_TRUE(text.empty() || text.back() == '\n') << name << " ends inside a line";
    if (std::string(name).ends_with(".jsonl")) ReadJsonLines(out_dir / name);
  }
  if (fs::is_regular_file(out_dir / "statistics.json")) {
    const std::string statistics = ReadWholeFile(out_dir / "statistics.json");
    EXPECT_TRUE(statistics.empty() || nlohmann::json::parse(statistics, nullptr, false).is_object()) << statistics;
  }
}

// --- Captures built from bytes -------------------------------------------

constexpr uint64_t kCaptureStartUs = 1700000000ull * 1000000;

// Appends a 32-bit field, least significant byte first unless `big_endian`.
inline void Put32(std::string& out, uint32_t value, bool big_endian = false) {
  for (int i = 0; i < 4; ++i) out += static_cast<char>((value >> (big_endian ? 24 - 8 * i : 8 * i)) & 0xFF);
}

// The layout of a classic pcap file of Ethernet frames.
struct PcapLayout {
  bool big_endian = false;
  bool nanosecond = false;
  uint32_t snap_length = 65535;
};

inline std::string PcapFileHeader(const PcapLayout& layout = {}) {
  std::string out;
  Put32(out, layout.nanosecond ? 0xA1B23C4D : 0xA1B2C3D4, layout.big_endian);
  out += layout.big_endian ? std::string("\x00\x02\x00\x04", 4) : std::string("\x02\x00\x04\x00", 4);
  for (uint32_t field : {0u, 0u, layout.snap_length, 1u}) Put32(out, field, layout.big_endian);
  return out;
}

// One frame as the capture holds it.
struct Frame {
  Bytes bytes;
  uint32_t wire_length = 0;  // 0: the frame's own length
};

// One pcap record. `snap` cuts the captured bytes as a capture with that
// snap length would.
inline std::string PcapRecord(const Frame& frame, uint64_t time_us, uint32_t snap = UINT32_MAX) {
  const uint32_t captured = std::min<uint32_t>(static_cast<uint32_t>(frame.bytes.size()), snap);
  const uint32_t wire = frame.wire_length ? frame.wire_length : static_cast<uint32_t>(frame.bytes.size());
  std::string out;
  for (uint64_t field : {time_us / 1000000, time_us % 1000000, uint64_t{captured}, uint64_t{wire}})
    Put32(out, static_cast<uint32_t>(field));
  return out.append(frame.bytes.begin(), frame.bytes.begin() + captured);
}

// Frames in order, 100 microseconds apart.
inline std::string PcapRecords(const std::vector<Frame>& frames, uint64_t first_index = 0, uint32_t snap = UINT32_MAX) {
  std::string out;
  for (size_t i = 0; i < frames.size(); ++i) {
    out += PcapRecord(frames[i], kCaptureStartUs + (first_index + i) * 100, snap);
  }
  return out;
}

inline Frame EthernetFrame(const Segment& segment) { return {Ethernet(Ipv4Packet(segment)), 0}; }

// A whole SMTP session between 10.0.0.1:client_port and 192.0.2.25:25 that
// sends one message with this subject and a body of about `body_bytes`, then
// quits and closes the connection.
inline std::vector<Frame> SmtpSession(uint16_t client_port, const std::string& subject, size_t body_bytes = 200) {
  std::vector<std::string> message = {"From: Alice <alice@example.org>\r\nTo: Bob <bob@example.net>\r\nSubject: " +
                                      subject + "\r\nDate: Tue, 14 Nov 2023 22:13:20 +0000\r\n\r\n"};
  const std::string line(70, 'b');
  for (size_t sent = 0; sent < body_bytes; sent += 1400) {
    message.emplace_back();
    while (message.back().size() + line.size() + 2 <= 1400 && sent + message.back().size() < body_bytes)
      message.back() += line + "\r\n";
  }
  Segment client = Between(V4(10, 0, 0, 1), client_port, V4(192, 0, 2, 25), 25);
  client.sequence = 1000u + client_port;
  TcpConnection tcp(client, 90000u + client_port);
  std::vector<Frame> frames;
  const auto send = [&](bool from_client, uint8_t flags, const std::string& payload = "") {
    frames.push_back({tcp.Send(from_client, flags, payload), 0});
  };
  send(true, kTcpSyn);
  send(false, kTcpSyn | kTcpAck);
  send(true, kTcpAck);
  // Server and client take turns.
  const auto turns = [&](bool client_first, std::vector<std::string> texts) {
    for (size_t i = 0; i < texts.size(); ++i) send((i % 2 == 0) == client_first, kTcpAck | kTcpPsh, texts[i]);
  };
  turns(false, {"220 mx.example.net ESMTP\r\n", "EHLO client.example.org\r\n", "250 mx.example.net\r\n",
                "MAIL FROM:<alice@example.org>\r\n", "250 OK\r\n", "RCPT TO:<bob@example.net>\r\n", "250 OK\r\n",
                "DATA\r\n", "354 go ahead\r\n"});
  for (const std::string& packet : message) send(true, kTcpAck | kTcpPsh, packet);
  turns(true, {".\r\n", "250 queued\r\n", "QUIT\r\n", "221 bye\r\n"});
  send(true, kTcpFin | kTcpAck);
  send(false, kTcpFin | kTcpAck);
  send(true, kTcpAck);
  return frames;
}

// Sessions made by `session(i)`, `concurrent` of them open at a time, their
// frames interleaved one by one.
inline std::vector<Frame> Interleaved(size_t sessions, size_t concurrent,
                                      const std::function<std::vector<Frame>(size_t)>& session) {
  std::vector<std::vector<Frame>> open;
  std::vector<Frame> frames;
  for (size_t started = 0; started < sessions || !open.empty();) {
    while (open.size() < concurrent && started < sessions) {
      open.push_back(session(started++));
      std::reverse(open.back().begin(), open.back().end());
    }
    for (size_t i = 0; i < open.size();) {
      frames.push_back(std::move(open[i].back()));
      open[i].pop_back();
      if (open[i].empty()) {
        open.erase(open.begin() + static_cast<std::ptrdiff_t>(i));
      } else {
        ++i;
      }
    }
  }
  return frames;
}

}  // namespace pelka::test
