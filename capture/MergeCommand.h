// pelka-email merge OUT1 OUT2 ... -o MERGED: the command that combines the
// output folders of separate runs (OutputMerge.h) and says what it did.
#pragma once

#include <ostream>

namespace pelka {

// Whether the arguments ask for the merge command (argv[1] is "merge").
bool IsMergeCommand(int argc, const char* const* argv);

// Parses the merge command's arguments, merges, prints a short summary on
// `out` (unless -q) and problems on `err`. Returns the exit status: 0 merged,
// 1 a folder could not be read or written, 2 a wrong command line.
int RunMergeCommand(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace pelka
