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
#include "capture/FolderRotation.h"
#include "capture/HostServices.h"

namespace pelka {

// Whether the input arrives as it happens (an interface, standard input):
// then every output is kept current while the run goes on.
bool ReadsSlowInput(const ProgramOptions& options);

// Opens the inputs: the interface, or the files (each is checked to open,
// and with --user they are opened now, as root). False, with every input that
// failed said on `err`, when one cannot be opened.
bool OpenInputs(const ProgramOptions& options, Pipeline& pipeline, std::ostream& err);

// Reads everything from the inputs OpenInputs opened, keeping statistics.json
// current for slow input. False when an input could not be read or is
// damaged. The caller holds the stop-signal scope (StopSignal.h). With
// `rotation` (one thread only), the output folder is switched before each
// packet as its capture time asks, and by the clock while a live capture is
// quiet.
bool ReadCaptures(const ProgramOptions& options, Pipeline& pipeline, HostServices& services, std::ostream& err,
                  FolderRotation* rotation = nullptr);

}  // namespace pelka
