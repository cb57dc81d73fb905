#include "capture/FreeCores.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <charconv>
#include <fstream>
#include <iterator>
#include <thread>

namespace pelka {
namespace {

constexpr int kSamples = 3;
constexpr auto kSampleGap = std::chrono::milliseconds(1);
constexpr std::string_view kRunningKey = "procs_running ";

std::string ReadProcStat() {
  std::ifstream in("/proc/stat", std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

unsigned AllowedCores() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) == 0) return static_cast<unsigned>(std::max(CPU_COUNT(&set), 1));
  return std::max(std::thread::hardware_concurrency(), 1u);
}

}  // namespace

unsigned RunnableThreads(std::string_view proc_stat) {
  for (size_t at = proc_stat.find(kRunningKey); at != std::string_view::npos;
       at = proc_stat.find(kRunningKey, at + 1)) {
    // The key starts a line.
    if (at != 0 && proc_stat[at - 1] != '\n') continue;
    const char* digits = proc_stat.data() + at + kRunningKey.size();
    unsigned count = 0;
    const auto [end, error] = std::from_chars(digits, proc_stat.data() + proc_stat.size(), count);
    return error == std::errc() ? count : 0;
  }
  return 0;
}

unsigned FreeCores(unsigned allowed, const std::function<std::string()>& read_proc_stat) {
  unsigned others = ~0u;
  for (int sample = 0; sample < kSamples; ++sample) {
    if (sample > 0) std::this_thread::sleep_for(kSampleGap);
    const unsigned running = RunnableThreads(read_proc_stat());
    // The count includes the thread that reads it.
    others = std::min(others, running > 0 ? running - 1 : 0);
  }
  return allowed > others ? allowed - others : 1;
}

unsigned FreeCores() { return FreeCores(AllowedCores(), ReadProcStat); }

}  // namespace pelka
