// pelka-email: finds the e-mail messages in packet captures.
#include <iostream>

#include "capture/CaptureRun.h"
#include "capture/CommandLine.h"

int main(int argc, char** argv) {
  const pelka::CommandLineOutcome outcome = pelka::ParseCommandLine(argc, argv);
  if (!outcome.options) {
    (outcome.exit_status == pelka::kExitDone ? std::cout : std::cerr) << outcome.text;
    return outcome.exit_status;
  }
  return pelka::RunCapture(*outcome.options, std::cout, std::cerr);
}
