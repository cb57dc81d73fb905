#!/bin/sh
# Memory check: pelka-email on a capture of many concurrent SMTP connections,
# each stuck inside an unfinished DATA body. Prints the peak resident memory
# and the bound it must stay under; exits 1 when the bound is broken.
#
#   bench/memcheck/run.sh [FLOWS [BODY_BYTES]]      (defaults 100000 and 4096)
#
# BUILD_DIR (default ./build) holds the built pelka-email; the generator is
# compiled there and the capture and outputs go to WORK_DIR (default
# BUILD_DIR/memcheck). The budget is explained in bench/memcheck/README.md.
set -eu

flows=${1:-100000}
body_bytes=${2:-4096}
here=$(cd "$(dirname "$0")" && pwd)
build_dir=${BUILD_DIR:-build}
work_dir=${WORK_DIR:-$build_dir/memcheck}
program=$build_dir/capture/pelka-email

# The budget, in bytes.
base=$((64 * 1024 * 1024))              # program, module, libraries, buffers
max_flow_length=$((2 * 1024 * 1024))    # the module's default, --max-flow-length 2
packet=1514                             # the largest frame of the capture
fixed=4096                              # per flow: tracker entry, host flow, module context
header_bytes=128                        # the message header lines sent before the body

if [ ! -x "$program" ]; then
  echo "memcheck: $program is not built (ninja -C $build_dir pelka-email PelkaEmail)" >&2
  exit 2
fi
if [ ! -x /usr/bin/time ]; then
  echo "memcheck: /usr/bin/time is needed (apt-get install time)" >&2
  exit 2
fi

mkdir -p "$work_dir"
generator=$work_dir/stuck_flows
if [ ! -x "$generator" ] || [ "$here/stuck_flows.cpp" -nt "$generator" ]; then
  ${CXX:-c++} -std=c++20 -O2 -Wall -Wextra -o "$generator" "$here/stuck_flows.cpp"
fi
capture=$work_dir/stuck-$flows-$body_bytes.pcap
if [ ! -f "$capture" ]; then
  "$generator" "$capture" "$flows" "$body_bytes"
fi

rm -rf "$work_dir/out"
status=0
/usr/bin/time -v -o "$work_dir/time.txt" "$program" -o "$work_dir/out" --quiet "$capture" || status=$?
if [ "$status" -ne 0 ]; then
  echo "memcheck: pelka-email exited with status $status" >&2
  exit 1
fi

peak_kib=$(sed -n 's/.*Maximum resident set size (kbytes): *//p' "$work_dir/time.txt")
elapsed=$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): *//p' "$work_dir/time.txt")
held=$((body_bytes + header_bytes))
[ "$held" -gt "$max_flow_length" ] && held=$max_flow_length
per_flow=$((held + packet + fixed))
bound=$((base + flows * per_flow))
peak=$((peak_kib * 1024))

mib() { awk -v b="$1" 'BEGIN { printf "%.1f MiB", b / 1048576 }'; }
echo "capture:    $capture ($(mib "$(wc -c < "$capture")"), $flows flows, $body_bytes body bytes each, never ended)"
echo "elapsed:    $elapsed"
echo "peak RSS:   $(mib "$peak") ($((peak / flows)) bytes per flow)"
echo "bound:      $(mib "$bound") = 64 MiB + $flows x ($held held + $packet packet + $fixed fixed) bytes"
if [ "$peak" -gt "$bound" ]; then
  echo "memcheck: FAILED, peak memory is over the bound" >&2
  exit 1
fi
echo "memcheck: ok"
