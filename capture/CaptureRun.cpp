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
#include "capture/HostServices.h"
#include "capture/ModuleLoader.h"
#include "capture/PrivilegeDrop.h"
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
  for (const std::string& input : options.inputs) label += (label.empty() ? "" : ", ") + input;
  return label;
}

HostOptions MakeHostOptions(const ProgramOptions& options, const std::string& library_path) {
  HostOptions host;
  host.out_dir = options.out_dir;
  host.copies = options.copies;
  host.resource_dir = ResourceDirectory(library_path, options.language);
  host.diagnosis_enabled = options.diagnosis;
  host.smtp_threshold_ms = options.smtp_threshold_ms;
  host.pop3_threshold_ms = options.pop3_threshold_ms;
  // Someone watching an interface or a pipe expects each message's lines as
  // it is found; files are read too fast for that to matter.
  host.lines_at_once = !options.interface_name.empty() ||
                       std::find(options.inputs.begin(), options.inputs.end(), "-") != options.inputs.end();
  host.conditions = options.conditions;
  return host;
}

RunFacts CollectFacts(const ProgramOptions& options, const Pipeline& pipeline, const HostServices& services,
                      double elapsed_seconds) {
  RunFacts facts;
  facts.out_dir = WithoutTrailingSlash(AbsolutePath(options.out_dir));
  facts.copies = options.copies;
  facts.interrupted = StopRequested();
  facts.packets = pipeline.frames_read();
  facts.bytes = pipeline.bytes_read();
  facts.elapsed_seconds = elapsed_seconds;
  const FlowTrackerCounters flows = pipeline.flow_counters();
  facts.connections_smtp = flows.flows_smtp;
  facts.connections_pop3 = flows.flows_pop3;
  facts.connections_imap = flows.flows_imap;
  facts.reports_by_event = services.counts().reports_by_event;
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

}  // namespace

int RunCapture(const ProgramOptions& options, std::ostream& out, std::ostream& err) {
  const auto started = std::chrono::steady_clock::now();
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
  std::unique_ptr<LoadedModule> module;
  Pipeline pipeline(options, services.flow_sink());
  // An input that cannot be opened leaves the output folder as it was.
  if (!OpenInputs(options, pipeline, err)) return kExitInputProblem;
  if (!services.Open()) {
    err << kProgramName << ": " << services.error() << "\n";
    return kExitInputProblem;
  }
  std::string error;
  module = LoadedModule::Load(library_path, &error);
  if (!module) {
    err << kProgramName << ": " << error << "\n";
    services.FinishRun(nullptr);
    return kExitInputProblem;
  }
  services.StartModule(module->main_table());
  if (!module->ApplyOptions(options.max_flow_length_mib, &error)) err << kProgramName << ": " << error << "\n";

  if (!SwitchUser(drop, services, err)) {
    services.FinishRun(module->main_table());
    return kExitInputProblem;
  }
  const bool inputs_ok = ReadCaptures(options, pipeline, services, err);
  pipeline.Finish();
  WarnAboutSkippedParts(InputsLabel(options), pipeline, err);
  const bool outputs_ok = services.FinishRun(module->main_table());
  if (!outputs_ok) err << kProgramName << ": " << services.error() << "\n";
  const HostRunCounts counts = services.counts();
  if (counts.copy_failures)
    err << kProgramName << ": " << counts.copy_failures << " message cop" << (counts.copy_failures == 1 ? "y" : "ies")
        << " could not be written, their records name no file (first: " << counts.first_copy_failure << ")\n";

  if (!options.quiet) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
    RunFacts facts = CollectFacts(options, pipeline, services, elapsed.count());
    facts.copy_failures = counts.copy_failures;
    PrintSummary(out, facts, ReadMessageDigest(facts.out_dir + "/emails.jsonl", kSummaryRows));
  }
  return inputs_ok && outputs_ok && !counts.copy_failures ? kExitDone : kExitInputProblem;
}

}  // namespace pelka
