// What the database's table run says about the command line and the
// options of a run.
#pragma once

#include "capture/CommandLine.h"
#include "capture/RunDatabase.h"

namespace pelka {

// The arguments, the captures read (or the interface) and the settings that
// shape the results, as "name=value" pairs.
RunDescription DescribeRun(const ProgramOptions& options);

}  // namespace pelka
