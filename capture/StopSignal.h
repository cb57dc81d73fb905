// Ctrl-C (SIGINT), SIGTERM and SIGHUP (the terminal or the ssh session
// closing) end a run's reading cleanly: the sources stop
// reading, and the run ends its flows and writes its outputs as at the end of
// the input. SIGALRM does the same: it is how --duration ends a run.
//
// A signal handler reaches only what a global holds: the sources to stop and
// the stop flag are kept here, set only while a StopSignalScope exists. One
// run at a time installs it.
#pragma once

#include <csignal>

#include "capture/CaptureSource.h"
#include "capture/PcapBlockReader.h"

namespace pelka {

class StopSignalScope {
 public:
  // Either source may be null. Clears an earlier stop.
  StopSignalScope(CaptureSource* source, PcapBlockReader* blocks);
  // Puts the earlier handlers back; StopRequested() keeps its answer.
  ~StopSignalScope();
  StopSignalScope(const StopSignalScope&) = delete;
  StopSignalScope& operator=(const StopSignalScope&) = delete;

 private:
  struct sigaction old_int_ {};
  struct sigaction old_term_ {};
  struct sigaction old_alarm_ {};
  struct sigaction old_hup_ {};
};

// Whether a stop signal came during the last (or current) scope.
bool StopRequested();

}  // namespace pelka
