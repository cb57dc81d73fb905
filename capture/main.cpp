// pelka-email: finds the e-mail messages in packet captures.
#include <malloc.h>

#include <iostream>

#include "capture/CaptureRun.h"
#include "capture/CommandLine.h"
#include "capture/MergeCommand.h"
#include "capture/TerminalText.h"

namespace {

// Every mail flow collects its message in a buffer that grows to the
// message's size and is freed when the connection ends. With the allocator's
// defaults each such buffer of more than 128 KiB is mapped fresh and given
// back at once, so every page of every large message is faulted in anew; kept
// in the heap instead, the next connection's buffer reuses memory that is
// already mapped. The heap keeps at most this much free memory.
constexpr int kKeptFreeHeapBytes = 64 * 1024 * 1024;

void KeepMessageBuffersMapped() {
  mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, kKeptFreeHeapBytes);
}

}  // namespace

int main(int argc, char** argv) {
  // Whatever the program prints may hold bytes from the capture or the
  // command line: control characters reach the terminal escaped.
  pelka::TerminalStreamBuffer out_buffer(std::cout.rdbuf());
  pelka::TerminalStreamBuffer err_buffer(std::cerr.rdbuf());
  std::ostream out(&out_buffer);
  std::ostream err(&err_buffer);
  err.setf(std::ios::unitbuf);

  if (pelka::IsMergeCommand(argc, argv)) return pelka::RunMergeCommand(argc, argv, out, err);
  const pelka::CommandLineOutcome outcome = pelka::ParseCommandLine(argc, argv);
  if (!outcome.options) {
    (outcome.exit_status == pelka::kExitDone ? out : err) << outcome.text;
    return outcome.exit_status;
  }
  KeepMessageBuffersMapped();
  return pelka::RunCapture(*outcome.options, out, err);
}
