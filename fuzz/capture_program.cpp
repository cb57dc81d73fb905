// The whole program on a random small capture file: the command line
// "pelka-email -q --copies -o OUT IN" (with "--threads 2" for a third of the
// inputs) goes through ParseCommandLine and
// RunCapture, which load the real module library (the sanitizer-built one of
// this build tree) and write the real output files and copies. The input is
// written to IN and OUT is removed again after each input, so every run
// starts from nothing.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "capture/CaptureRun.h"
#include "capture/CommandLine.h"
#include "support/TempFile.h"

namespace {

namespace fs = std::filesystem;

// A private folder for the input and the outputs, removed at exit.
const pelka::test::TempDir* g_scratch = nullptr;

constexpr const char* kOutputFiles[] = {"emails.jsonl",    "entries.jsonl",   "diagnosis.jsonl", "notices.jsonl",
                                        "email_log.csv",   "email_log.txt",   "statistics.json", "report.html"};
// Present too, but not made of lines.
constexpr const char* kDatabase = "emails.sqlite";

// Present, and empty or ending with a line end.
bool IsWholeLines(const fs::path& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) return false;
  const std::streamoff size = file.tellg();
  if (size <= 0) return size == 0;
  file.seekg(size - 1);
  return file.get() == '\n';
}

// What every run leaves, whatever its input: the fixed files with whole
// lines in each, the database, and nothing else but copies under
// email_copy/.
bool OutputsAreWhole(const fs::path& out) {
  for (const char* name : kOutputFiles)
    if (!IsWholeLines(out / name)) return false;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(out, error)) {
    const std::string name = entry.path().filename().string();
    const bool known = std::find_if(std::begin(kOutputFiles), std::end(kOutputFiles),
                                    [&name](const char* file) { return name == file; }) != std::end(kOutputFiles);
    if (!known && name != "email_copy" && name != kDatabase) return false;
  }
  if (error || !fs::is_regular_file(out / kDatabase)) return false;
  if (!fs::exists(out / "email_copy")) return true;
  for (const auto& entry : fs::directory_iterator(out / "email_copy", error))
    if (!entry.is_regular_file() || entry.path().extension() != ".eml") return false;
  return !error;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The library the build made for this target, unless one is named.
  ::setenv("PELKA_MODULE", PELKA_FUZZ_MODULE, 0);
  // One reference held for the whole process keeps the library mapped between
  // runs: each run's own load and close then cost little, and a leak found in
  // it can still be symbolised when it is reported at exit.
  const char* library = ::getenv("PELKA_MODULE");
  if (!::dlopen(library, RTLD_NOW | RTLD_LOCAL)) {
    std::fprintf(stderr, "fuzz_capture_program: cannot load %s: %s\n", library, ::dlerror());
    ::_exit(2);
  }
  static const pelka::test::TempDir scratch;
  g_scratch = &scratch;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string out = (*g_scratch / "out").string();
  const std::string in = (*g_scratch / "in.pcap").string();
  {
    std::ofstream input(in, std::ios::binary | std::ios::trunc);
    input.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  // A third of the inputs, chosen by their length, run with two workers.
  const bool two_workers = size % 3 == 0;
  const char* const argv[] = {"pelka-email", "-q", "--copies", "-o", out.c_str(), in.c_str(), "--threads", "2"};
  const int argc = static_cast<int>(std::size(argv)) - (two_workers ? 0 : 2);
  const pelka::CommandLineOutcome outcome = pelka::ParseCommandLine(argc, argv);
  if (!outcome.options) __builtin_trap();  // the command line is fixed and valid

  std::ostringstream summary;
  std::ostringstream problems;
  const int status = pelka::RunCapture(*outcome.options, summary, problems);
  if ((status != pelka::kExitDone && status != pelka::kExitInputProblem) || !OutputsAreWhole(out)) {
    std::fprintf(stderr, "status %d\n%s", status, problems.str().c_str());
    __builtin_trap();
  }
  std::error_code ignored;
  fs::remove_all(out, ignored);
  return 0;
}
