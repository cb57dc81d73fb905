// The module's holder of one protocol's connection counter.
#pragma once

#include <cstdint>

namespace pelka {

class IPelkaStatCounter;
class IPelkaStatItem;
class IPelkaStatService;

// Index of a counter the host has not numbered yet. Widened to a signed
// 32-bit number it is -1, which is what flows then count with.
constexpr uint16_t kUnassignedCounterIndex = 0xFFFF;

// One protocol's statistics item and its "Count" counter. The host objects
// stay the host's; the holder only points at them.
struct ConnectionCounter {
  IPelkaStatItem* item = nullptr;
  IPelkaStatCounter* counter = nullptr;  // null when the host refused it
  IPelkaStatService* service = nullptr;  // the module's service when made
  uint16_t index = kUnassignedCounterIndex;
};

}  // namespace pelka
