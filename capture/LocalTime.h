// Local time texts of capture times, as the output files show them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pelka {

// Local time "YYYY-MM-DD HH:MM:SS" of whole seconds since 1970 (TZ applies);
// empty when the time cannot be converted.
std::string LocalTimeText(uint64_t seconds);

// LocalTimeText of the last second asked for, kept: records come in time
// order, many in the same second, and the conversion is slow. One user at a
// time.
class LocalTimeCache {
 public:
  // Valid until the next call.
  std::string_view Text(uint64_t seconds);

 private:
  bool valid_ = false;
  uint64_t seconds_ = 0;
  std::string text_;
};

}  // namespace pelka
