#include "capture/MergeCommand.h"

#include <CLI/CLI.hpp>
#include <cstring>
#include <string>
#include <vector>

#include "capture/CommandLine.h"
#include "capture/HtmlReport.h"
#include "capture/OutputMerge.h"

namespace pelka {

bool IsMergeCommand(int argc, const char* const* argv) { return argc > 1 && std::strcmp(argv[1], "merge") == 0; }

int RunMergeCommand(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app("Combines the output folders of separate runs (for example one run per capture file, run side by\n"
               "side) into one folder, as one run over all their captures would have written it: records in time\n"
               "order and numbered again, entries, diagnosis and notices merged, statistics added up, the\n"
               "databases merged into one emails.sqlite, copies linked (or moved) into the merged email_copy/.",
               std::string(kProgramName) + " merge");
  std::vector<std::string> folders;
  std::string merged;
  bool quiet = false;
  std::string language = "en";
  app.add_option("FOLDER", folders, "output folders of earlier runs, in the order their captures were made")
      ->required()
      ->check(CLI::ExistingDirectory);
  app.add_option("-o,--out", merged, "the merged folder (new, or empty)")->required()->type_name("DIR");
  app.add_flag("-q,--quiet", quiet, "no summary; only problems are printed");
  app.add_option("--lang", language, "language of report.html's own texts")->check(CLI::IsMember({"en", "zh"}));
  try {
    app.parse(argc - 1, argv + 1);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error, out, err);
    return status == 0 ? kExitDone : kExitUsage;
  }
  MergeReport report;
  const std::string problem = MergeOutputFolders(folders, merged, &report);
  for (const std::string& warning : report.warnings) err << kProgramName << " merge: " << warning << "\n";
  if (!problem.empty()) {
    err << kProgramName << " merge: " << problem << "\n";
    return kExitInputProblem;
  }
  ReportRun run;
  run.captures = std::to_string(folders.size()) + " merged output folders";
  run.chinese = language == "zh";
  std::string report_problem;
  if (!WriteHtmlReport(merged, run, &report_problem)) {
    err << kProgramName << " merge: " << report_problem << "\n";
    return kExitInputProblem;
  }
  if (!quiet) {
    out << "Merged " << folders.size() << " folders: " << report.records << " records, " << report.entries
        << " entries, " << report.diagnosis_reports << " diagnosis reports";
    if (report.notices) out << ", " << report.notices << " notices";
    out << "\n";
    if (report.copies_linked + report.copies_moved + report.copies_missing) {
      out << "Copies: " << report.copies_linked << " linked, " << report.copies_moved << " moved, "
          << report.copies_missing << " not carried over\n";
    }
    if (report.databases) out << "Database: emails.sqlite from " << report.databases << " folders\n";
    out << "Output: " << merged << "\n";
  }
  return report.copies_missing ? kExitInputProblem : kExitDone;
}

}  // namespace pelka
