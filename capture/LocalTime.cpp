#include "capture/LocalTime.h"

#include <ctime>

namespace pelka {

std::string LocalTimeText(uint64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  if (!localtime_r(&time, &local)) return {};
  char text[32];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return std::string(text, length);
}

std::string_view LocalTimeCache::Text(uint64_t seconds) {
  if (!valid_ || seconds != seconds_) {
    text_ = LocalTimeText(seconds);
    seconds_ = seconds;
    valid_ = true;
  }
  return text_;
}

}  // namespace pelka
