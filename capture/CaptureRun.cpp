#include "capture/CaptureRun.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "capture/CapturePipeline.h"
#include "capture/CaptureReading.h"
#include "capture/FolderRotation.h"
#include "capture/FreeCores.h"
#include "capture/HostServices.h"
#include "capture/HtmlReport.h"
#include "capture/ModuleLoader.h"
#include "capture/OutputFiles.h"
#include "capture/PrivilegeDrop.h"
#include "capture/RunDescription.h"
#include "capture/RunSummary.h"
#include "capture/StopSignal.h"

namespace pelka {
namespace {

std::string AbsolutePath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The string table of the chosen language lives in resources/<lang>/ beside
// the library; "none" gives a folder without one.
std::string ResourceDirectory(const std::string& library_path, TextLanguage language) {
  const std::filesystem::path library_dir = std::filesystem::path(library_path).parent_path();
  const std::filesystem::path resources = library_dir / "resources";
  if (language == TextLanguage::kNone) return (resources / "none").string() + "/";
  return (resources / LanguageFolder(language)).string() + "/";
}

std::string LocateModule(std::ostream& err) {
  const char* env = std::getenv("PELKA_MODULE");
  const std::vector<std::string> candidates = ModuleCandidates(ExecutableDirectory(), env ? env : "");
  // A variable set on purpose must not be passed over for another library.
  if (env && *env && FindModuleLibrary({candidates.front()}).empty()) {
    err << kProgramName << ": PELKA_MODULE names " << candidates.front()
        << ", which is no file; set it to the module library " << kModuleLibraryName
        << " or its folder, or unset it to use the one beside the program\n";
    return {};
  }
  std::string found = FindModuleLibrary(candidates);
  if (found.empty()) {
    err << kProgramName << ": cannot find the e-mail module " << kModuleLibraryName << "; looked for:\n";
    for (const std::string& candidate : candidates) err << "  " << candidate << "\n";
    err << "Set PELKA_MODULE to the library's path.\n";
  }
  return found;
}

// What the inputs were, for messages: the files, or the interface.
std::string InputsLabel(const ProgramOptions& options) {
  if (!options.interface_name.empty()) return options.interface_name;
  std::string label;
  for (const std::string& input : options.inputs)
    label += (label.empty() ? "" : ", ") + (input == "-" ? std::string("standard input") : input);
  return label;
}

// Without its string table the module shows its built-in texts, mostly
// Chinese, whatever --lang asked for: worth saying, not worth stopping.
void WarnAboutMissingTexts(const std::string& resource_dir, TextLanguage language, std::ostream& err) {
  if (language == TextLanguage::kNone) return;
  const std::string table = resource_dir + kModuleStringTable;
  if (std::filesystem::is_regular_file(table)) return;
  err << kProgramName << ": warning: the module's string table " << table
      << " is missing, so its texts are its built-in ones whatever --lang says; "
      << "copy the resources/ folder of the build beside the library\n";
}

HostOptions MakeHostOptions(const ProgramOptions& options, const std::string& library_path) {
  HostOptions host;
  host.out_dir = options.out_dir;
  host.copies = options.copies;
  host.resource_dir = ResourceDirectory(library_path, options.language);
  host.diagnosis_enabled = options.diagnosis;
  host.smtp_threshold_ms = options.smtp_threshold_ms;
  host.pop3_threshold_ms = options.pop3_threshold_ms;
  host.max_flow_length = uint64_t{options.max_flow_length_mib} << 20;
  host.pipelined = options.pipelined;
  // Someone watching an interface or a pipe expects each message's lines as
  // it is found; files are read too fast for that to matter.
  host.lines_at_once = ReadsSlowInput(options);
  // The workers of --threads gain most: a worker that formats lines under the
  // export's lock and loses its core to another process holds up the others.
  host.write_behind = !host.lines_at_once;
  host.conditions = options.conditions;
  host.database = options.database;
  host.rotate = options.rotate_seconds > 0;
  host.attachments = options.attachments;
  host.ioc_hashes = options.ioc_hashes;
  if (host.database) host.run = DescribeRun(options);
  return host;
}

RunFacts CollectFacts(const ProgramOptions& options, const Pipeline& pipeline, const HostServices& services,
                      double elapsed_seconds) {
  RunFacts facts;
  facts.out_dir = WithoutTrailingSlash(AbsolutePath(options.out_dir));
  facts.copies = options.copies;
  facts.database = options.database && services.database_error().empty();
  facts.interrupted = StopRequested();
  facts.packets = pipeline.frames_read();
  facts.bytes = pipeline.bytes_read();
  facts.elapsed_seconds = elapsed_seconds;
  facts.kernel_drops = pipeline.kernel_drops();
  const FlowTrackerCounters flows = pipeline.flow_counters();
  facts.connections_smtp = flows.flows_smtp;
  facts.connections_pop3 = flows.flows_pop3;
  facts.connections_imap = flows.flows_imap;
  const HostRunCounts counts = services.counts();
  facts.reports_by_event = counts.reports_by_event;
  facts.messages_found = counts.records;
  facts.found_by_protocol = counts.records_by_protocol;
  facts.lines_lost = counts.lines_lost;
  facts.notices = counts.notices;
  facts.pipelined = options.pipelined;
  facts.hold_limit_gaps = flows.hold_limit_gaps;
  facts.hold_limit_mib = options.hold_limit_mib;
  facts.attachments = options.attachments;
  facts.attachment_tally = counts.attachments;
  return facts;
}

// --user: what the run made so far is given to the user, then the run
// becomes that user; the copy folder must then still take the copies.
bool SwitchUser(PrivilegeDrop& drop, HostServices& services, std::ostream& err) {
  const std::optional<UserAccount>& account = drop.account();
  std::string problem;
  if ((!account || services.GiveTo(account->uid, account->gid)) && drop.Apply(&problem) && services.CheckWritable())
    return true;
  err << kProgramName << ": " << (problem.empty() ? services.error() : problem) << "\n";
  return false;
}

// Says what the database lost, unless that was said when it failed at the
// start. False when it failed.
bool ReportDatabase(const HostServices& services, const std::string& said, std::ostream& err) {
  const std::string problem = services.database_error();
  if (problem.empty()) return true;
  if (problem != said) err << kProgramName << ": " << problem << "\n";
  if (const uint64_t lost = services.database_rows_lost())
    err << kProgramName << ": " << lost << " rows of emails.sqlite were lost: they could not be written\n";
  return false;
}

// report.html over what the run wrote into `folder`, which read `packets`
// and `bytes`; a page that cannot be written is said.
bool WriteReport(const ProgramOptions& options, const Pipeline& pipeline, const std::string& folder,
                 uint64_t packets, uint64_t bytes, std::chrono::steady_clock::time_point started,
                 std::ostream& err) {
  ReportRun run;
  run.captures = InputsLabel(options);
  run.packets = packets;
  run.bytes = bytes;
  run.elapsed_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  run.kernel_drops = pipeline.kernel_drops();
  run.interrupted = StopRequested();
  run.chinese = options.language == TextLanguage::kChinese;
  std::string problem;
  if (WriteHtmlReport(folder, run, &problem)) return true;
  err << kProgramName << ": " << problem << "\n";
  return false;
}

// The summary's messages over every folder of a rotating run, in order.
MessageDigest ReadFoldersDigest(const std::vector<std::string>& folders) {
  MessageDigest all;
  for (const std::string& folder : folders) {
    MessageDigest one = ReadMessageDigest(folder + "emails.jsonl", kSummaryRows);
    all.total += one.total;
    for (const auto& [protocol, count] : one.by_protocol) all.by_protocol[protocol] += count;
    for (MessageRow& row : one.first)
      if (all.first.size() < kSummaryRows) all.first.push_back(std::move(row));
  }
  return all;
}

// --threads starts no more workers than cores are free, and says so when
// that is fewer than asked: the run's figures are read with it.
ProgramOptions WithFreeCores(const ProgramOptions& requested, std::ostream& err) {
  ProgramOptions options = requested;
  if (options.threads <= 1 || options.exact_threads) return options;
  const unsigned free = FreeCores();
  if (free >= options.threads) return options;
  options.threads = free;
  err << kProgramName << ": --threads " << requested.threads << ": only " << free
      << (free == 1 ? " core is" : " cores are") << " free (other processes keep the others busy), so "
      << free << (free == 1 ? " thread analyses" : " threads analyse") << "; --exact-threads starts all "
      << requested.threads << "\n";
  return options;
}

}  // namespace

int RunCapture(const ProgramOptions& requested, std::ostream& out, std::ostream& err) {
  const auto started = std::chrono::steady_clock::now();
  // Before any thread of this run exists, which the count would take for another process's.
  const ProgramOptions options = WithFreeCores(requested, err);
  PrivilegeDrop drop(options.user, options.out_dir);
  if (std::string problem; !drop.Check(&problem)) {
    err << kProgramName << ": " << problem << "\n";
    return kExitUsage;
  }
  SetModuleAnsiCodePage(options.code_page);

  const std::string library_path = LocateModule(err);
  if (library_path.empty()) return kExitInputProblem;

  // Declared in this order so that the pipeline's workers end before the
  // module object goes, and the module before the host services it holds.
  HostServices services(MakeHostOptions(options, library_path));
  WarnAboutMissingTexts(ResourceDirectory(library_path, options.language), options.language, err);
  std::unique_ptr<LoadedModule> module;
  Pipeline pipeline(options, services.flow_sink());
  // Installed before the inputs open: opening an interface with a large
  // buffer takes seconds, and a stop signal meanwhile must end the run
  // cleanly too.
  StopSignalScope signals(&pipeline.source, pipeline.blocks.get());
  // An input that cannot be opened leaves the output folder as it was.
  if (!OpenInputs(options, pipeline, err)) return kExitInputProblem;
  if (!services.Open()) {
    err << kProgramName << ": " << services.error() << "\n";
    return kExitInputProblem;
  }
  std::string database_problem = services.database_error();
  if (!database_problem.empty()) err << kProgramName << ": " << database_problem << "; the other outputs go on\n";
  std::string error;
  module = LoadedModule::Load(library_path, &error);
  if (!module) {
    err << kProgramName << ": " << error << "\n";
    services.FinishRun(nullptr);
    return kExitInputProblem;
  }
  services.StartModule(module->main_table());
  if (!module->ApplyOptions(options.max_flow_length_mib, &error)) err << kProgramName << ": " << error << "\n";

  if (!options.interface_name.empty()) services.SetKernelDrops([&pipeline] { return pipeline.kernel_drops(); });
  if (!SwitchUser(drop, services, err)) {
    services.FinishRun(module->main_table());
    return kExitInputProblem;
  }
  std::unique_ptr<FolderRotation> rotation;
  if (options.rotate_seconds) {
    rotation = std::make_unique<FolderRotation>(
        AbsoluteDirectory(options.out_dir), options.rotate_seconds, services,
        [&](const std::string& folder, uint64_t packets, uint64_t bytes) {
          return WriteReport(options, pipeline, folder, packets, bytes, started, err);
        });
  }
  const bool inputs_ok = ReadCaptures(options, pipeline, services, err, rotation.get());
  if (rotation) rotation->EnsureFolder(pipeline.frames_read(), pipeline.bytes_read());
  pipeline.Finish();
  WarnAboutSkippedParts(InputsLabel(options), pipeline, err);
  if (const uint64_t gaps = pipeline.flow_counters().hold_limit_gaps) services.AddStatistic("HoldLimit", "Reached", gaps);
  services.SetReadTotals(pipeline.frames_read(), pipeline.bytes_read(), StopRequested());
  const bool outputs_ok = services.FinishRun(module->main_table());
  if (!outputs_ok) err << kProgramName << ": " << services.error() << "\n";
  const HostRunCounts counts = services.counts();
  for (const auto& [file, lines] : counts.lines_lost)
    err << kProgramName << ": " << lines << " lines of " << file << " were lost: they could not be written\n";
  if (counts.copy_failures)
    err << kProgramName << ": " << counts.copy_failures << " message cop" << (counts.copy_failures == 1 ? "y" : "ies")
        << " could not be written, their records name no file (first: " << counts.first_copy_failure << ")\n";
  const AttachmentTally& attachments = counts.attachments;
  if (attachments.store_failures)
    err << kProgramName << ": " << attachments.store_failures << " attachment file"
        << (attachments.store_failures == 1 ? "" : "s") << " could not be stored (first: "
        << attachments.first_store_failure << ")\n";
  if (attachments.unreadable)
    err << kProgramName << ": " << attachments.unreadable << " message cop"
        << (attachments.unreadable == 1 ? "y" : "ies") << " could not be read back for their attachments\n";
  const uint64_t period_packets = rotation ? rotation->period_packets() : 0;
  const uint64_t period_bytes = rotation ? rotation->period_bytes() : 0;
  const bool report_ok =
      WriteReport(options, pipeline, rotation ? services.folder() : options.out_dir,
                  pipeline.frames_read() - period_packets, pipeline.bytes_read() - period_bytes, started, err) &&
      (!rotation || rotation->reports_ok());
  services.FinishDatabase();
  const bool database_ok = ReportDatabase(services, database_problem, err);

  if (!options.quiet) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
    RunFacts facts = CollectFacts(options, pipeline, services, elapsed.count());
    facts.copy_failures = counts.copy_failures;
    if (!rotation) {
      PrintSummary(out, facts, ReadMessageDigest(facts.out_dir + "/emails.jsonl", kSummaryRows));
    } else {
      facts.folders = rotation->folders().size();
      PrintSummary(out, facts, ReadFoldersDigest(rotation->folders()));
    }
  }
  const bool attachments_ok = !attachments.store_failures && !attachments.unreadable;
  return inputs_ok && outputs_ok && database_ok && report_ok && attachments_ok && !counts.copy_failures
             ? kExitDone
             : kExitInputProblem;
}

}  // namespace pelka
