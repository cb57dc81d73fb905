// The main job of pelka-email: load the e-mail module, read the captures,
// follow their mail flows through the module, and write the outputs.
//
//   CaptureSource -> PacketDecoder -> FlowTracker -> HostServices' flow sink
//   -> the module's flow client -> the output files
//
// The module is loaded with dlopen (capture/ModuleLoader.h) after the ANSI
// code page of --codepage is set for it. With conditions, the host's log
// keeps only the messages that meet them (capture/HostLog.h).
//
// Ctrl-C (SIGINT), SIGTERM and SIGHUP end the reading cleanly: open flows
// are ended, the export lines and statistics are written, and the run reports
// what it found until then. Every input is opened before the output folder is
// touched: one that does not open ends the run at once, leaving an earlier
// run's results as they were. A damaged or unreadable input is reported on
// stderr and the run goes on with the next one; the exit status then says 1,
// as it does when a message copy could not be written.
#pragma once

#include <iosfwd>

#include "capture/CommandLine.h"

namespace pelka {

// Runs the job; the summary goes to `out`, problems to `err`. Returns the
// program's exit status (kExitDone or kExitInputProblem).
int RunCapture(const ProgramOptions& options, std::ostream& out, std::ostream& err);

}  // namespace pelka
