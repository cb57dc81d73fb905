// pelka-email: finds the e-mail messages in packet captures.
#include <malloc.h>

#include <iostream>

#include "capture/CaptureRun.h"
#include "capture/CommandLine.h"
#include "capture/MergeCommand.h"

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
  if (pelka::IsMergeCommand(argc, argv)) return pelka::RunMergeCommand(argc, argv, std::cout, std::cerr);
  const pelka::CommandLineOutcome outcome = pelka::ParseCommandLine(argc, argv);
  if (!outcome.options) {
    (outcome.exit_status == pelka::kExitDone ? std::cout : std::cerr) << outcome.text;
    return outcome.exit_status;
  }
  KeepMessageBuffersMapped();
  return pelka::RunCapture(*outcome.options, std::cout, std::cerr);
}
