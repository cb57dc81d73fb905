// The cores --threads may take: those of the process's affinity that other
// runnable threads (by /proc/stat's count, less the caller) leave free.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capture/FreeCores.h"

namespace pelka {
namespace {

TEST(FreeCoresTest, CoresLeftByOtherRunnableThreads) {
  const struct {
    const char* name;
    unsigned allowed;
    std::vector<std::string> samples;  // taken in turn
    unsigned free;
  } cases[] = {
      {"only the caller runs", 2, {"cpu 1 2 3\nprocs_running 1\nprocs_blocked 0\n"}, 2},
      {"one busy process", 2, {"procs_running 2\n"}, 1},
      {"more busy threads than cores", 4, {"procs_running 9\n"}, 1},
      {"a thread that ran for a moment", 4, {"procs_running 3\n", "procs_running 1\n", "procs_running 3\n"}, 4},
      {"the name only at a line's start", 2, {"xprocs_running 5\nprocs_running 1\n"}, 2},
      {"no count to read", 2, {"procs_blocked 1\n"}, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    size_t next = 0;
    EXPECT_EQ(FreeCores(c.allowed, [&] { return c.samples[next++ % c.samples.size()]; }), c.free);
  }
}

}  // namespace
}  // namespace pelka
