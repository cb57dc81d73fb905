// The command line of pelka-email: what a run is asked to do.
//
// Parsing never prints and never exits: it answers with the options of a run,
// or with the text to show (help, version, a usage error) and the exit status
// that goes with it, so that main decides where the text goes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/EmailConditions.h"
#include "capture/IocHashes.h"

namespace pelka {

// The program's name, as its messages begin.
inline constexpr const char* kProgramName = "pelka-email";

// Bounds of --threads.
constexpr unsigned kMaxThreads = 64;

// Defaults and bounds of --idle-timeout and --hold-limit (the flow tracker's
// own defaults are the same).
constexpr uint32_t kDefaultIdleTimeoutSeconds = 1800;
constexpr uint32_t kMaxIdleTimeoutSeconds = 7 * 24 * 3600;
constexpr uint32_t kDefaultHoldLimitMiB = 256;
constexpr uint32_t kMaxHoldLimitMiB = 1024 * 1024;
// Live capture (-i): the packets the kernel hands up unless --filter says
// otherwise, and the size of its ring buffer.
inline constexpr const char* kDefaultLiveFilter = "tcp port 25 or tcp port 110 or tcp port 143";
constexpr uint32_t kDefaultBufferSizeMib = 8;
constexpr uint32_t kMaxBufferSizeMib = 2047;  // libpcap takes the size in bytes as an int

// Exit statuses of the program, also listed in --help and the README.
enum ExitStatus : int {
  kExitDone = 0,          // the run finished (also --help and --version)
  kExitInputProblem = 1,  // an input is unreadable, damaged (outputs kept) or of a link type
                          // not supported, or the output folder or the module library cannot
                          // be used
  kExitUsage = 2,         // the command line is wrong; nothing was read
};

// Where the module's texts come from: its English or Chinese string table, or
// none, so that every text is the module's built-in default.
enum class TextLanguage { kEnglish, kChinese, kNone };

struct ProgramOptions {
  std::vector<std::string> inputs;  // capture files in order; "-" is standard input
  std::string interface_name;       // live capture instead of files
  std::string user;                 // continue as this user once the inputs are open (see PrivilegeDrop.h)
  uint64_t max_packets = 0;         // --count: end after this many packets (0: no limit)
  uint32_t max_seconds = 0;         // --duration: end after this many seconds (0: no limit)
  // Live capture only: the kernel's packet filter ("" passes every packet)
  // and its ring buffer.
  std::string filter = kDefaultLiveFilter;
  uint32_t buffer_size_mib = kDefaultBufferSizeMib;
  std::string out_dir = "pelka-out";
  bool copies = false;
  // --rotate: a new output folder below out_dir every this many seconds of
  // capture time (0: one folder, out_dir itself).
  uint32_t rotate_seconds = 0;
  uint32_t max_flow_length_mib = 2;
  // Split SMTP client segments at a pipelined DATA or BDAT command line.
  bool pipelined = false;
  TextLanguage language = TextLanguage::kEnglish;
  unsigned code_page = 936;
  int32_t smtp_threshold_ms = 200;
  int32_t pop3_threshold_ms = 200;
  bool diagnosis = true;
  bool quiet = false;
  // Workers that handle the flows; 1 handles them on the reading thread.
  // At most as many as cores are free at the start, unless exact_threads.
  unsigned threads = 1;
  bool exact_threads = false;
  // A connection silent for longer ends; its later packets start afresh.
  uint32_t idle_timeout_seconds = kDefaultIdleTimeoutSeconds;
  // Out-of-order data held back over all connections, in MiB.
  uint32_t hold_limit_mib = kDefaultHoldLimitMiB;
  // Empty when no condition was given; otherwise every message must meet all.
  std::optional<EmailConditions> conditions;
  // Write emails.sqlite (--no-db: not).
  bool database = true;
  // --attachments: every recorded message's attachments taken out, hashed,
  // typed and stored; marked when a hash is on --ioc-hashes (read at parse).
  bool attachments = false;
  std::string ioc_hashes_path;
  std::shared_ptr<const IocHashes> ioc_hashes;
  // The command line as given, argv[0] first, for the database's run table.
  std::vector<std::string> arguments;
};

struct CommandLineOutcome {
  std::optional<ProgramOptions> options;  // set: run with these
  int exit_status = kExitDone;            // when there is nothing to run
  std::string text;                       // help or version (stdout), or the error (stderr)
};

// Reads the arguments (argv[0] is the program's name).
CommandLineOutcome ParseCommandLine(int argc, const char* const* argv);

// The language's folder name under resources/ ("en", "zh"), or "" for none.
const char* LanguageFolder(TextLanguage language);

}  // namespace pelka
