#include "capture/CommandLine.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "capture/CaptureFilter.h"
#include "capture/ConditionOptions.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr const char* kProgramVersion = "0.1.0";

constexpr const char* kDescription =
    "Finds the e-mail messages carried by SMTP (port 25), POP3 (port 110) and IMAP4\n"
    "(port 143) in packet captures, and writes what it finds to an output folder:\n"
    "emails.jsonl, email_log.csv, email_log.txt, entries.jsonl, diagnosis.jsonl,\n"
    "statistics.json, all of them as one database emails.sqlite and, with --copies,\n"
    "the messages themselves as .eml files.";

constexpr const char* kFooter =
    "Conditions:\n"
    "  All conditions given must hold (they are joined with \"and\"). A message that\n"
    "  does not meet them leaves no record, no export line, no summary entry and no\n"
    "  copy. Sizes are in KB, separated by \";\", each one number or a range\n"
    "  \"low-high\", at most 99999: \"120;0-1024\". Domains are separated by \";\":\n"
    "  \"example.com;example.org\"; a domain also covers its subdomains.\n"
    "\n"
    "Exit status:\n"
    "  0  the run finished (also after Ctrl-C, SIGTERM or SIGHUP, which end it cleanly)\n"
    "  1  an input could not be opened (the output folder is left untouched), could\n"
    "     not be read or is damaged (what was found before is kept), its link type\n"
    "     is not supported, the output folder is used by another run or could not be\n"
    "     used, a message copy could not be written, or the module library could\n"
    "     not be used\n"
    "  2  the command line is wrong; nothing was read\n"
    "\n"
    "Examples:\n"
    "  pelka-email -o out mail.pcap\n"
    "  sudo pelka-email -i eth0 --user nobody -o /tmp/mail-out\n"
    "  pelka-email --copies --attachment yes --size-included 0-1024 a.pcap b.pcapng\n"
    "  tcpdump -U -w - 'tcp port 25 or tcp port 110 or tcp port 143' | pelka-email -o out -";

// Option values that are turned into ProgramOptions after parsing.
struct RawChoices {
  std::string language = "en";
  bool no_diagnosis = false;
  ConditionTexts conditions;
};

// Options of live capture, which files do not take.
void AddLiveOptions(CLI::App& app, ProgramOptions& options, const std::string& group) {
  app.add_option("-f,--filter", options.filter,
                 "with -i: the packets the kernel hands up, as a tcpdump filter expression; \"\" takes every packet")
      ->type_name("EXPR")
      ->capture_default_str()
      ->group(group);
  app.add_option("-B,--buffer-size", options.buffer_size_mib,
                 "with -i: the kernel's capture buffer, in MiB (1 to 2047); a larger one drops fewer packets "
                 "in bursts")
      ->type_name("MIB")
      ->capture_default_str()
      ->check(CLI::Range(1u, kMaxBufferSizeMib).description(""))
      ->group(group);
}

void AddInputOutputOptions(CLI::App& app, ProgramOptions& options) {
  const std::string input = "Input";
  app.add_option("CAPTURE", options.inputs, "capture files (pcap or pcapng), read in order as one capture; - reads standard input")
      ->type_name("")
      ->group(input);
  app.add_option("-i,--interface", options.interface_name, "capture live from this network interface (needs privilege)")
      ->type_name("IFACE")
      ->group(input);
  AddLiveOptions(app, options, input);
  app.add_option("--user", options.user,
                 "once the inputs are open, continue as this user (the program must start as root); "
                 "an output folder the run creates is given to the user")
      ->type_name("NAME")
      ->group(input);
  app.add_option("-c,--count", options.max_packets, "end the run after this many packets (any packets, mail or not)")
      ->type_name("N")
      ->check(CLI::PositiveNumber.description(""))
      ->group(input);
  app.add_option("--duration", options.max_seconds, "end the run after this many seconds")
      ->type_name("SECONDS")
      ->check(CLI::Range(1u, 100u * 365 * 24 * 3600).description(""))
      ->group(input);

  const std::string output = "Output";
  app.add_option("-o,--out", options.out_dir, "folder for the output files (created if missing)")
      ->type_name("DIR")
      ->capture_default_str()
      ->group(output);
  app.add_flag("--copies", options.copies,
               "also save every message as an .eml file under DIR/email_copy/ (0600; a taken name gets -2, -3, ...)")
      ->group(output);
  app.add_option("--rotate", options.rotate_seconds,
                 "start a new output folder every this many seconds of capture time: DIR is then the parent of "
                 "folders named by their start time (local, e.g. \"2026-11-26 01.00.00\"); not with --threads")
      ->type_name("SECONDS")
      ->check(CLI::Range(1u, 100u * 365 * 24 * 3600).description(""))
      ->group(output);
  app.add_flag("--no-db", [&options](int64_t) { options.database = false; },
               "do not write DIR/emails.sqlite, the database of the run's records")
      ->group(output);
  app.add_flag("--attachments", options.attachments,
               "take every recorded message's attachments out of it: DIR/attachments.jsonl (names, types, sizes, "
               "MD5, SHA-1, SHA-256) and the files under DIR/attachments/, named by their SHA-256; not with --rotate")
      ->group(output);
  app.add_option("--ioc-hashes", options.ioc_hashes_path,
                 "with --attachments: a file of MD5, SHA-1 or SHA-256 hashes, one a line ('#' starts a comment); "
                 "attachments with one of them are marked and counted")
      ->type_name("FILE")
      ->group(output);
  app.add_flag("-q,--quiet", options.quiet, "no progress and no summary; only errors are printed")->group(output);
}

std::string CheckCodePage(const std::string& text) {
  unsigned long value = 0;
  try {
    value = std::stoul(text);
  } catch (const std::exception&) {
    return "code page \"" + text + "\" is not a number";
  }
  return IsCodePageSupported(static_cast<unsigned>(value)) ? "" : "code page " + text + " is not supported";
}

void AddAnalysisOptions(CLI::App& app, ProgramOptions& options, RawChoices& raw) {
  const std::string group = "Analysis";
  app.add_option("--max-flow-length", options.max_flow_length_mib,
                 "largest message collected on one connection, in MiB (0 to 4095); longer ones are cut")
      ->type_name("MIB")
      ->capture_default_str()
      ->check(CLI::Range(0u, 4095u).description(""))
      ->group(group);
  app.add_flag("--pipelined", options.pipelined,
               "split an SMTP client segment where a DATA or BDAT command line starts inside it, so that messages "
               "sent with pipelining are recorded (changes nothing else the module reports)")
      ->group(group);
  app.add_option("--lang", raw.language, "language of the module's texts: en, zh, or none for its built-in texts")
      ->type_name("en|zh|none")
      ->capture_default_str()
      ->check(CLI::IsMember({"en", "zh", "none"}).description(""))
      ->group(group);
  app.add_option("--codepage", options.code_page,
                 "code page of message bytes that declare no character set (936 = GBK, 65001 = UTF-8)")
      ->type_name("N")
      ->capture_default_str()
      ->check(CheckCodePage)
      ->group(group);
  app.add_option("--threads", options.threads,
                 "workers that analyse the connections, 1 to 64; each connection stays with one worker. "
                 "No more start than cores are free when the run starts")
      ->type_name("N")
      ->capture_default_str()
      ->check(CLI::Range(1u, kMaxThreads).description(""))
      ->group(group);
  app.add_flag("--exact-threads", options.exact_threads,
               "start all the --threads workers, however busy the cores are")
      ->group(group);
}

// Time and memory the flow tracking may take.
void AddBoundOptions(CLI::App& app, ProgramOptions& options) {
  const std::string group = "Bounds";
  app.add_option("--idle-timeout", options.idle_timeout_seconds,
                 "a connection silent for longer than this many seconds (capture time) ends, and a message "
                 "still open in it is lost (1 to 604800)")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(1u, kMaxIdleTimeoutSeconds).description(""))
      ->group(group);
  app.add_option("--hold-limit", options.hold_limit_mib,
                 "out-of-order data held back over all connections, in MiB (1 to 1048576); beyond it the data "
                 "held longest goes on with its gap skipped")
      ->type_name("MIB")
      ->capture_default_str()
      ->check(CLI::Range(1u, kMaxHoldLimitMiB).description(""))
      ->group(group);
}

void AddDiagnosisOptions(CLI::App& app, ProgramOptions& options, RawChoices& raw) {
  const std::string group = "Diagnosis";
  app.add_option("--smtp-threshold", options.smtp_threshold_ms,
                 "report an SMTP server slower than this to answer, in milliseconds (1 to 100000)")
      ->type_name("MS")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000).description(""))
      ->group(group);
  app.add_option("--pop3-threshold", options.pop3_threshold_ms,
                 "report a POP3 server slower than this to answer, in milliseconds (1 to 100000)")
      ->type_name("MS")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000).description(""))
      ->group(group);
  app.add_flag("--no-diagnosis", raw.no_diagnosis, "switch every diagnosis event off")->group(group);
}

std::string UsageError(const std::string& message) {
  return std::string(kProgramName) + ": " + message + "\nRun '" + kProgramName + " --help' for the options.\n";
}

CommandLineOutcome Failure(const std::string& message) {
  CommandLineOutcome outcome;
  outcome.exit_status = kExitUsage;
  outcome.text = UsageError(message);
  return outcome;
}

TextLanguage LanguageFromName(const std::string& name) {
  if (name == "zh") return TextLanguage::kChinese;
  if (name == "none") return TextLanguage::kNone;
  return TextLanguage::kEnglish;
}

// Checks what CLI11 cannot check option by option.
std::string CheckInputs(const CLI::App& app, const ProgramOptions& options) {
  if (options.inputs.empty() && options.interface_name.empty())
    return "no capture given: name one or more capture files, \"-\" for standard input, or -i INTERFACE";
  if (!options.inputs.empty() && !options.interface_name.empty())
    return "give either capture files or -i INTERFACE, not both";
  if (options.interface_name.empty() && (app.count("--filter") || app.count("--buffer-size")))
    return "--filter and --buffer-size apply to live capture (-i) only; filter a capture file with "
           "tcpdump -r FILE -w - EXPR | pelka-email -";
  // The folders switch between two packets, which workers reading ahead of
  // each other have no common point for.
  if (options.rotate_seconds && options.threads > 1) return "--rotate works with one thread only: leave out --threads";
  if (options.attachments && options.rotate_seconds) return "--attachments works without --rotate only";
  if (!options.ioc_hashes_path.empty() && !options.attachments) return "--ioc-hashes needs --attachments";
  return CheckFilterExpression(options.filter);
}

}  // namespace

const char* LanguageFolder(TextLanguage language) {
  switch (language) {
    case TextLanguage::kEnglish:
      return "en";
    case TextLanguage::kChinese:
      return "zh";
    case TextLanguage::kNone:
      break;
  }
  return "";
}

CommandLineOutcome ParseCommandLine(int argc, const char* const* argv) {
  ProgramOptions options;
  RawChoices raw;

  CLI::App app(kDescription, kProgramName);
  app.footer(kFooter);
  app.get_formatter()->column_width(30);
  app.set_version_flag("--version", std::string(kProgramName) + " " + kProgramVersion);
  AddInputOutputOptions(app, options);
  AddAnalysisOptions(app, options, raw);
  AddBoundOptions(app, options);
  AddDiagnosisOptions(app, options, raw);
  AddConditionOptions(app, raw.conditions);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return {std::nullopt, kExitDone, app.help()};
  } catch (const CLI::CallForVersion&) {
    return {std::nullopt, kExitDone, std::string(kProgramName) + " " + kProgramVersion + "\n"};
  } catch (const CLI::ParseError& error) {
    return Failure(error.what());
  }

  if (std::string problem = CheckInputs(app, options); !problem.empty()) return Failure(problem);
  options.language = LanguageFromName(raw.language);
  options.arguments.assign(argv, argv + argc);
  options.diagnosis = !raw.no_diagnosis;

  if (std::string problem = ReadConditions(raw.conditions, options.conditions); !problem.empty())
    return Failure(problem);
  if (!options.ioc_hashes_path.empty()) {
    auto hashes = std::make_shared<IocHashes>();
    if (std::string problem; !hashes->ReadFile(options.ioc_hashes_path, &problem)) return Failure(problem);
    options.ioc_hashes = std::move(hashes);
  }
  return {std::move(options), kExitDone, {}};
}

}  // namespace pelka
