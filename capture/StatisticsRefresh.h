// Keeps statistics.json current while input arrives slowly (an interface or
// standard input): a thread of its own rewrites it as soon as a counter
// changed, looking once a second, and at least every kRewriteInterval in any
// case, so that a reader sees a live run's figures without waiting for its
// end. The reading thread may block on a quiet pipe meanwhile.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "capture/HostServices.h"

namespace pelka {

class StatisticsRefresh {
 public:
  static constexpr std::chrono::seconds kCheckInterval{1};
  static constexpr std::chrono::seconds kRewriteInterval{5};

  // Starts the thread when `wanted`; otherwise does nothing.
  StatisticsRefresh(HostServices& services, bool wanted);
  // Stops the thread; the run's end writes the final figures.
  ~StatisticsRefresh();
  StatisticsRefresh(const StatisticsRefresh&) = delete;
  StatisticsRefresh& operator=(const StatisticsRefresh&) = delete;

 private:
  void Run();

  HostServices& services_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace pelka
