// A worker that reads ahead while another reads must still see the batch that
// was read meanwhile: the announcement came while it was not waiting.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

#include "TrackerHarness.h"
#include "capture/ParallelPipeline.h"

namespace pelka {
namespace {

using namespace std::chrono_literals;

// Steps of the two workers, in the order the test forces on them.
class Handshake {
 public:
  void Set(bool& flag) {
    const std::lock_guard<std::mutex> lock(mutex_);
    flag = true;
    changed_.notify_all();
  }
  void WaitFor(const bool& flag) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, 5s, [&] { return flag; });
  }
  bool prefetching = false;
  bool input_ended = false;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
};

TEST(ParallelPipelineWakeTest, BatchReadWhileAnotherWorkerReadsAheadIsHandled) {
  test::RecordingSink sink;
  ParallelPipeline parallel(2, &sink);
  Handshake steps;
  std::array<uint8_t, 60> frame_bytes{};  // not IPv4: every worker looks at it
  bool delivered = false;
  bool first_prefetch = true;

  // One worker reads the only batch while the other is held in its read-ahead
  // until the input has ended and the batch is announced.
  auto next = [&](CapturedFrame* frame, PcapBlock** block) {
    steps.WaitFor(steps.prefetching);
    *block = nullptr;
    if (delivered) {
      steps.Set(steps.input_ended);
      return ReadStatus::kEnd;
    }
    delivered = true;
    *frame = CapturedFrame{frame_bytes.data(), 60, 60, 1, 1000, 1};
    return ReadStatus::kFrame;
  };
  auto prefetch = [&] {
    if (!first_prefetch) return false;
    first_prefetch = false;
    steps.Set(steps.prefetching);
    steps.WaitFor(steps.input_ended);
    std::this_thread::sleep_for(50ms);  // the reader announces the batch meanwhile
    return false;
  };

  auto run = std::async(std::launch::async, [&] { parallel.Run(next, false, prefetch); });
  if (run.wait_for(10s) != std::future_status::ready) {
    std::fprintf(stderr, "the workers still wait after 10 s: a batch was announced and missed\n");
    std::_Exit(1);  // the stuck workers cannot be joined
  }
  EXPECT_EQ(parallel.decoder_counters().frames, 1u);
}

}  // namespace
}  // namespace pelka
