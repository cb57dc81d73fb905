#include "capture/StatisticsRefresh.h"

#include <string>

namespace pelka {

StatisticsRefresh::StatisticsRefresh(HostServices& services, bool wanted) : services_(services) {
  if (wanted) thread_ = std::thread([this] { Run(); });
}

StatisticsRefresh::~StatisticsRefresh() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void StatisticsRefresh::Run() {
  std::string written;
  auto last_write = std::chrono::steady_clock::time_point{};
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    const std::string now_figures = services_.StatisticsJson();
    const auto now = std::chrono::steady_clock::now();
    if (now_figures != written || now - last_write >= kRewriteInterval) {
      // A failed write is the run's error; the next turn tries again.
      services_.WriteStatistics();
      written = now_figures;
      last_write = now;
    }
    wake_.wait_for(lock, kCheckInterval, [this] { return stopping_; });
  }
}

}  // namespace pelka
