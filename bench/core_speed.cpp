// Times a fixed amount of arithmetic on the core it runs on, so that the
// benchmark can tell whether the machine's cores are equally fast. On a
// virtual machine they often are not (a core whose host sibling is busy runs
// at about half speed), and a run with two workers is then held to the
// slower core's pace whatever the program does.
//
//   pelka-core-speed      prints the seconds the work took
#include <chrono>
#include <cstdint>
#include <cstdio>

int main() {
  const auto start = std::chrono::steady_clock::now();
  uint64_t state = 0x9E3779B97F4A7C15ull;
  for (uint32_t i = 0; i < 200000000u; ++i) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%.3f\n", elapsed.count());
  return state == 0 ? 1 : 0;  // keeps the loop from being optimised away
}
