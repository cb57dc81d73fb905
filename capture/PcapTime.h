// Capture times of pcap records.
//
// A record stamps its frame with whole seconds since 1970 and a fraction: in
// microseconds, or in nanoseconds in a nanosecond file. Frames carry their
// time in microseconds; nanoseconds are rounded down.
#pragma once

#include <cstdint>

namespace pelka {

// Fractions in one second: the bound a record's fraction stays below.
constexpr uint64_t PcapFractionsPerSecond(bool nanosecond) { return nanosecond ? 1'000'000'000 : 1'000'000; }

// The record time in microseconds since 1970.
constexpr uint64_t PcapTimeMicroseconds(uint64_t seconds, uint64_t fraction, bool nanosecond) {
  return seconds * 1'000'000 + (nanosecond ? fraction / 1000 : fraction);
}

}  // namespace pelka
