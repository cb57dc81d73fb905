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
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "FrameBuilder.h"

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

// A fresh directory under the system's temporary directory, removed at the end.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "pelka-tough-XXXXXX").string();
    if (::mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const fs::path& path() const { return path_; }
  fs::path operator/(const std::string& name) const { return path_ / name; }

 private:
  fs::path path_;
};

inline std::string ReadWholeFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void WriteWholeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

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

// pelka-email as a child process. Standard output and error go to files in a
// private directory, so that a talkative run never blocks on a full pipe;
// standard input is a pipe the test may write to, or /dev/null.
class ProgramProcess {
 public:
  // `program` defaults to pelka-email; tests may wrap it in another command.
  explicit ProgramProcess(const std::vector<std::string>& args, bool stdin_pipe = false,
                          const std::string& program = ProgramPath().string()) {
    Start(program, args, stdin_pipe);
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
    size_t done = 0;
    while (done < bytes.size()) {
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
  bool Running() {
    if (pid_ <= 0) return false;
    if (::waitpid(pid_, &wait_status_, WNOHANG) == 0) return true;
    pid_ = -1;
    finished_ = true;
    return false;
  }

  // Waits for the end; a program still running after `limit` is killed and
  // reported as not exited.
  ProgramResult Wait(std::chrono::seconds limit = std::chrono::seconds(120)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (Running() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &wait_status_, 0);
      pid_ = -1;
      finished_ = false;
    }
    ProgramResult result;
    result.exited = finished_ && WIFEXITED(wait_status_);
    result.status = result.exited ? WEXITSTATUS(wait_status_) : -1;
    result.signal = finished_ && WIFSIGNALED(wait_status_) ? WTERMSIG(wait_status_) : 0;
    result.out = ReadWholeFile(io_ / "stdout");
    result.err = ReadWholeFile(io_ / "stderr");
    return result;
  }

 private:
  void Start(const std::string& program, const std::vector<std::string>& args, bool stdin_pipe) {
    int pipe_ends[2] = {-1, -1};
    if (stdin_pipe && ::pipe(pipe_ends) != 0) return;
    // A program that ends early must fail a write, not kill the test.
    if (stdin_pipe) ::signal(SIGPIPE, SIG_IGN);
    const std::string out_path = (io_ / "stdout").string();
    const std::string err_path = (io_ / "stderr").string();
    std::vector<std::string> argv_text = {program};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argv_text) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      const int in = stdin_pipe ? pipe_ends[0] : ::open("/dev/null", O_RDONLY);
      ::dup2(in, 0);
      ::dup2(::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      ::dup2(::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      if (stdin_pipe) ::close(pipe_ends[1]);
      ::signal(SIGPIPE, SIG_DFL);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    if (stdin_pipe) {
      ::close(pipe_ends[0]);
      stdin_ = pipe_ends[1];
    }
  }

  TempDir io_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  int wait_status_ = 0;
  bool finished_ = false;
};

inline ProgramResult RunProgram(const std::vector<std::string>& args, const std::string& program = ProgramPath().string()) {
  ProgramProcess process(args, false, program);
  return process.Wait();
}

// The lines of a JSON Lines file. Every line must be a whole JSON object and
// the file must end with a line end: a run that stops for any reason leaves
// only whole lines behind.
inline std::vector<nlohmann::json> ReadJsonLines(const fs::path& path) {
  std::vector<nlohmann::json> objects;
  const std::string text = ReadWholeFile(path);
  if (!text.empty()) {
    EXPECT_EQ(text.back(), '\n') << path << " ends inside a line";
  }
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
    EXPECT_TRUE(object.is_object()) << path << ": not a JSON object: " << line;
    objects.push_back(std::move(object));
  }
  return objects;
}

// The subjects of the records in <out>/emails.jsonl, in order.
inline std::vector<std::string> RecordedSubjects(const fs::path& out_dir) {
  std::vector<std::string> subjects;
  for (const nlohmann::json& record : ReadJsonLines(out_dir / "emails.jsonl")) {
    subjects.push_back(record.value("email_subject", std::string()));
  }
  return subjects;
}

// Waits until the file has at least `count` line ends or the time is up.
inline bool WaitForLines(const fs::path& path, size_t count, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string text = ReadWholeFile(path);
    if (static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) >= count) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// --- Captures built from bytes -------------------------------------------

constexpr uint32_t kPcapMagic = 0xA1B2C3D4;
constexpr uint64_t kCaptureStartUs = 1700000000ull * 1000000;

inline void PutLe32(std::string& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out += static_cast<char>((value >> shift) & 0xFF);
}

// A classic pcap file header (little-endian, microseconds).
inline std::string PcapFileHeader(uint32_t snap_length = 65535, uint32_t link_type = 1, uint32_t magic = kPcapMagic) {
  std::string out;
  PutLe32(out, magic);
  out += std::string("\x02\x00\x04\x00", 4);
  PutLe32(out, 0);
  PutLe32(out, 0);
  PutLe32(out, snap_length);
  PutLe32(out, link_type);
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
  std::string out;
  PutLe32(out, static_cast<uint32_t>(time_us / 1000000));
  PutLe32(out, static_cast<uint32_t>(time_us % 1000000));
  PutLe32(out, captured);
  PutLe32(out, frame.wire_length ? frame.wire_length : static_cast<uint32_t>(frame.bytes.size()));
  out.append(frame.bytes.begin(), frame.bytes.begin() + captured);
  return out;
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

// A TCP connection between a client and a server on port 25, as frames.
class TcpConversation {
 public:
  TcpConversation(uint16_t client_port, uint8_t client_host = 1) {
    client_.source = V4(10, 0, 0, client_host);
    client_.destination = V4(192, 0, 2, 25);
    client_.source_port = client_port;
    client_.destination_port = 25;
    client_.sequence = 1000u + client_port;
    server_.source = client_.destination;
    server_.destination = client_.source;
    server_.source_port = 25;
    server_.destination_port = client_port;
    server_.sequence = 90000u + client_port;
  }

  void Handshake() {
    Send(client_, server_, kTcpSyn, "");
    Send(server_, client_, kTcpSyn | kTcpAck, "");
    Send(client_, server_, kTcpAck, "");
  }
  void Client(const std::string& text) { Send(client_, server_, kTcpAck | kTcpPsh, text); }
  void Server(const std::string& text) { Send(server_, client_, kTcpAck | kTcpPsh, text); }
  void Close() {
    Send(client_, server_, kTcpFin | kTcpAck, "");
    Send(server_, client_, kTcpFin | kTcpAck, "");
    Send(client_, server_, kTcpAck, "");
  }

  std::vector<Frame>& frames() { return frames_; }

 private:
  void Send(Segment& from, Segment& to, uint8_t flags, const std::string& payload) {
    Segment segment = from;
    segment.flags = flags;
    segment.acknowledgement = (flags & kTcpAck) ? to.sequence : 0;
    segment.payload = payload;
    frames_.push_back(EthernetFrame(segment));
    from.sequence += static_cast<uint32_t>(payload.size()) + ((flags & (kTcpSyn | kTcpFin)) ? 1 : 0);
  }

  Segment client_;
  Segment server_;
  std::vector<Frame> frames_;
};

// A whole SMTP session that sends one message with this subject and a body of
// about `body_bytes`, then closes the connection.
inline std::vector<Frame> SmtpSession(uint16_t client_port, const std::string& subject, size_t body_bytes = 200,
                                      bool close = true) {
  TcpConversation c(client_port);
  c.Handshake();
  c.Server("220 mx.example.net ESMTP\r\n");
  c.Client("EHLO client.example.org\r\n");
  c.Server("250 mx.example.net\r\n");
  c.Client("MAIL FROM:<alice@example.org>\r\n");
  c.Server("250 OK\r\n");
  c.Client("RCPT TO:<bob@example.net>\r\n");
  c.Server("250 OK\r\n");
  c.Client("DATA\r\n");
  c.Server("354 go ahead\r\n");
  c.Client("From: Alice <alice@example.org>\r\nTo: Bob <bob@example.net>\r\nSubject: " + subject +
           "\r\nDate: Tue, 14 Nov 2023 22:13:20 +0000\r\n\r\n");
  const std::string line(70, 'b');
  for (size_t sent = 0; sent < body_bytes; sent += 1400) {
    std::string chunk;
    while (chunk.size() + line.size() + 2 <= 1400 && sent + chunk.size() < body_bytes) chunk += line + "\r\n";
    c.Client(chunk);
  }
  c.Client(".\r\n");
  c.Server("250 queued\r\n");
  c.Client("QUIT\r\n");
  c.Server("221 bye\r\n");
  if (close) c.Close();
  return std::move(c.frames());
}

}  // namespace pelka::test
