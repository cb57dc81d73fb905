// Lets libpcap read every record of a capture file whole.
//
// libpcap cuts a classic pcap record that is longer than the snap length in
// the file's header down to that length and drops the rest of its bytes, and
// it stops reading a pcapng file at a packet block longer than the snap length
// of its interface. The bytes the file holds are the packet, though, and other
// readers hand them out whole. So a classic file whose header states a snap
// length below the largest record length libpcap accepts is handed to libpcap
// through a stream that shows the header with that largest length, and the
// file's own bytes otherwise; a pcapng file goes through a stream that does
// the same for each interface description (PcapngWidening.h).
#pragma once

#include <cstdint>
#include <cstdio>

namespace pelka {

// What the stream in front of a capture file says about it.
struct SnapLengthView {
  bool nanosecond = false;  // a classic pcap file with nanosecond stamps
  // A classic file's own snap length, when the stream shows a larger one; 0
  // otherwise. Records longer than it were cut by libpcap without the stream.
  uint32_t header_snap_length = 0;
  // pcapng: set while the stream is read, to the snap length of an interface
  // whose packet block, longer than that, the stream passed on; 0 until then.
  uint32_t exceeded_snap_length = 0;
};

// Reads the start of `file` (at its current position: the file's start, or a
// pcapng section header) and returns the stream to hand libpcap in its place:
// `file` itself when it is no pcapng file and no classic pcap file with a snap
// length below the largest record length (kPcapLargestRecord) other than 0,
// else a stream that owns `file` (closing it closes `file`, unless `file` is
// stdin) and reports into `*view`, which must outlive it. nullptr when the
// start cannot be read back; `file` is then still the caller's.
std::FILE* WidenSnapLength(std::FILE* file, SnapLengthView* view);

}  // namespace pelka
