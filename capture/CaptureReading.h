// Reading a run's captures through its pipeline, to their end or to a stop
// signal.
//
// A damaged or unreadable input is reported on `err` and reading goes on with
// the next one. While a live capture is quiet, time still moves on: idle flows
// end and the output files are flushed.
#pragma once

#include <ostream>

#include "capture/CapturePipeline.h"
#include "capture/CommandLine.h"
#include "capture/HostServices.h"
#include "capture/PrivilegeDrop.h"

namespace pelka {

// Whether the input arrives as it happens (an interface, standard input):
// then every output is kept current while the run goes on.
bool ReadsSlowInput(const ProgramOptions& options);

// Opens the inputs, drops privileges (--user) and reads everything, keeping
// statistics.json current for slow input. False when an input could not be
// opened or read.
bool ReadCaptures(const ProgramOptions& options, Pipeline& pipeline, HostServices& services, PrivilegeDrop& drop,
                  std::ostream& err);

}  // namespace pelka
