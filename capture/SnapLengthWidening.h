// Lets libpcap read every record of a classic pcap file whole.
//
// libpcap cuts a record that is longer than the snap length in the file's
// header down to that length and drops the rest of its bytes. The bytes the
// file holds are the packet, though, and other readers hand them out whole.
// So a file whose header states a snap length below the largest record
// length libpcap accepts is handed to libpcap through a stream that shows the
// header with that largest length, and the file's own bytes otherwise.
#pragma once

#include <cstdint>
#include <cstdio>

namespace pelka {

// Reads the file header of `file` (at its start) and returns the stream to
// hand libpcap in its place: `file` itself when it is no classic pcap file or
// states the largest record length (kPcapLargestRecord) or more (or 0), else a stream that owns `file`
// (closing it closes `file`, unless `file` is stdin). `*snap_length` is the
// header's own snap length, 0 when it was not changed. `*nanosecond` says
// whether it is a classic pcap file with nanosecond stamps. nullptr when the
// header cannot be read back; `file` is then still the caller's.
std::FILE* WidenSnapLength(std::FILE* file, uint32_t* snap_length, bool* nanosecond);

}  // namespace pelka
