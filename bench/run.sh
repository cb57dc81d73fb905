#!/usr/bin/env bash
# The throughput benchmark. Generates the mail traffic captures once (cached
# outside the repository), then runs every contender over them and prints,
# side by side: MB/s, packets/s, messages/s, peak RSS, and the ratios to the
# read limit (the fastest of five plain read loops, each printed) and to
# tshark. It also checks that pelka-email posts one record for every message
# the generator expects the module to record, and
# that the time per MB of a capture of large messages stays within 1.25x of
# the mixed capture's, and that --attachments (every message's attachments
# taken out, hashed, typed and stored) costs at most 25% of the single-thread
# time on the mixed capture. Two single-thread runs at once show how far two cores
# scale here for work that shares nothing, the yardstick for --threads 2.
# A "busy machine" round runs one and two threads again while a CPU-bound
# process (not pinned: the scheduler moves it and the workers around) takes a
# core, and checks that --threads 2 is not slower than one thread there (it
# starts no more workers than cores are free); busy-2t-exact shows what two
# workers would do there all the same.
#
#   bench/run.sh            # ~1 GB mixed capture + 500 messages of 2 MiB
#
# Environment:
#   PELKA_BENCH_CACHE   where the captures are kept (default ~/.cache/pelka-bench)
#   PELKA_BENCH_BUILD   the CMake build directory (default <repo>/build)
#   PELKA_BENCH_SIZE    size of the mixed capture (default 1G; K/M/G suffixes)
#   PELKA_BENCH_LARGE   number of 2 MiB messages of the second capture (default 500)
#   PELKA_BENCH_SEED    seed of the mixed capture (default 1)
#   PELKA_BENCH_EMAIL   the pelka-email program (default <build>/capture/pelka-email)
#   PELKA_BENCH_REPEAT  rounds of the fast contenders, the best run of each kept
#                       (default 5): a shared or virtual machine's speed wanders
#                       by tens of per cent between runs; tshark runs once
#
# Exit status: 0 when every check that could run passed, 1 otherwise.
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${PELKA_BENCH_BUILD:-$repo/build}
cache=${PELKA_BENCH_CACHE:-$HOME/.cache/pelka-bench}
size=${PELKA_BENCH_SIZE:-1G}
large=${PELKA_BENCH_LARGE:-500}
seed=${PELKA_BENCH_SEED:-1}
repeat=${PELKA_BENCH_REPEAT:-5}
sessions=8                      # concurrent sessions in the captures: the live flows
flow_limit_mib=2                # the module's default max_flow_length

generator=$build/bench/pelka-traffic-gen
read_limit=$build/bench/pelka-read-limit
core_speed=$build/bench/pelka-core-speed
pelka=${PELKA_BENCH_EMAIL:-$build/capture/pelka-email}
failed=0

say() { printf '%s\n' "$*"; }
fail() { say "FAIL: $*"; failed=1; }

# --- build ------------------------------------------------------------------
if [ ! -f "$build/build.ninja" ] && [ ! -f "$build/Makefile" ]; then
  cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target pelka-traffic-gen pelka-read-limit pelka-core-speed >/dev/null
if cmake --build "$build" --target help 2>/dev/null | grep -q 'pelka-email'; then
  cmake --build "$build" --target pelka-email >/dev/null
fi

# --- captures ---------------------------------------------------------------
mkdir -p "$cache"
# The cache key follows the generator's sources, so a changed generator makes
# new captures.
key=$(cat "$repo"/bench/TrafficGenerator*.cpp "$repo"/bench/TrafficGenerator*.h | md5sum | cut -c1-10)

# generate NAME ARGS...: makes $cache/NAME-KEY.pcap and its counts file once.
generate() {
  local name=$1
  shift
  local pcap=$cache/$name-$key.pcap
  if [ ! -s "$pcap.counts" ] || [ ! -f "$pcap" ]; then
    say "generating $pcap ..." >&2
    "$generator" -o "$pcap.tmp" --sessions "$sessions" "$@" >"$pcap.counts.tmp"
    mv "$pcap.tmp" "$pcap"
    mv "$pcap.counts.tmp" "$pcap.counts"
  fi
  printf '%s\n' "$pcap"
}

# count FILE NAME: a value from a generator's counts file.
count() { awk -v k="$2" '$1 == k { print $2 }' "$1.counts"; }

mixed=$(generate "mixed-$size-seed$seed" --bytes "$size" --seed "$seed")
largecap=$(generate "large-${large}x2M" --messages "$large" --message-size 2M --seed 2)

# --- measuring ----------------------------------------------------------------
# measure_once COMMAND...: runs the command with the capture in the page cache,
# sets $seconds and $rss_kib. Output goes to $cache/last.out.
measure_once() {
  local start end
  start=$(date +%s.%N)
  if ! /usr/bin/time -f '%M' -o "$cache/time.out" "$@" >"$cache/last.out" 2>"$cache/last.err"; then
    say "  ($1 failed; see $cache/last.err)"
    seconds=0
    rss_kib=0
    return 1
  fi
  end=$(date +%s.%N)
  seconds=$(echo "$end - $start" | bc -l)
  rss_kib=$(tail -n1 "$cache/time.out")
}

# Results of one capture, one line per contender: name seconds rss_kib.
declare -A result_seconds result_rss

# keep NAME: folds the last measurement into NAME's best time and highest RSS.
keep() {
  local name=$1 best=${result_seconds[$1]:-}
  if [ -z "$best" ] || [ "$(echo "$seconds < $best" | bc -l)" = 1 ]; then result_seconds[$name]=$seconds; fi
  if [ "$rss_kib" -gt "${result_rss[$name]:-0}" ]; then result_rss[$name]=$rss_kib; fi
}

# pelka_once CAPTURE NAME ROUND ARGS...: one pelka-email run over CAPTURE;
# its records are checked in the first round.
pelka_once() {
  local capture=$1 name=$2 round=$3
  shift 3
  local out
  out=$(mktemp -d "$cache/out.XXXXXX")
  if measure_once "$pelka" -o "$out" --quiet "$@" "$capture"; then
    keep "$name"
    if [ "$round" = 0 ]; then
      local records expected
      records=$( [ -f "$out/emails.jsonl" ] && wc -l <"$out/emails.jsonl" || echo 0)
      expected=$(count "$capture" expected_records)
      if [ "$records" -eq "$expected" ]; then
        say "  $name: $records records, as expected"
      else
        fail "$name posted $records records; the generator expects $expected"
      fi
    fi
  else
    fail "$name did not finish"
  fi
  rm -rf "$out"
}

# pair_once CAPTURE: two single-thread runs at once, each over the whole
# capture. Twice the work of one run with nothing shared: what the cores give
# to work that splits perfectly, to judge --threads by.
pair_once() {
  local capture=$1 start end out1 out2
  out1=$(mktemp -d "$cache/out.XXXXXX")
  out2=$(mktemp -d "$cache/out.XXXXXX")
  start=$(date +%s.%N)
  "$pelka" -o "$out1" --quiet "$capture" >/dev/null 2>&1 &
  "$pelka" -o "$out2" --quiet "$capture" >/dev/null 2>&1
  wait
  end=$(date +%s.%N)
  rm -rf "$out1" "$out2"
  seconds=$(echo "$end - $start" | bc -l)
  rss_kib=0
  keep pair
}

# run_all CAPTURE: every contender over CAPTURE, best of $repeat runs. The
# contenders take turns, round after round, so that a slow spell of a shared
# machine falls on all of them alike rather than on whoever runs then.
run_all() {
  local capture=$1 round
  result_seconds=()
  result_rss=()
  cat "$capture" >/dev/null  # into the page cache

  for ((round = 0; round < repeat; ++round)); do
    for loop in "${read_loops[@]}"; do
      measure_once "$read_limit" --loop "$loop" "$capture" && keep "read-$loop"
    done
    # ---- pelka-email contenders: they run once the capture program exists ----
    if [ -x "$pelka" ]; then
      pelka_once "$capture" pelka-email "$round"
      pelka_once "$capture" pelka-email-no-db "$round" --no-db
      pelka_once "$capture" pelka-email-attach "$round" --attachments
      pelka_once "$capture" pelka-email-2t "$round" --threads 2 --exact-threads
      pair_once "$capture"
    fi
  done
  [ -x "$pelka" ] || say "  (pelka-email not built yet: $pelka)"
  # ---------------------------------------------------------------------------

  if command -v tshark >/dev/null; then
    measure_once tshark -r "$capture" -Y imf -T fields -e imf.from -e imf.subject && keep tshark
  fi
}

# busy_round CAPTURE: one and two threads, best of $repeat runs each, taking
# turns, while a CPU-bound process runs unpinned; sets busy_single, busy_two,
# and busy_fewer: the --threads 2 runs that found a core taken and started
# fewer workers. busy-2t-exact starts both workers all the same.
busy_round() {
  local capture=$1 round hog
  sh -c 'while :; do :; done' &
  hog=$!
  result_seconds=()
  result_rss=()
  busy_fewer=0
  for ((round = 0; round < repeat; ++round)); do
    pelka_once "$capture" busy-1t 1
    pelka_once "$capture" busy-2t 1 --threads 2
    if grep -q -- '--threads 2: only' "$cache/last.err" 2>/dev/null; then busy_fewer=$((busy_fewer + 1)); fi
    pelka_once "$capture" busy-2t-exact 1 --threads 2 --exact-threads
  done
  kill "$hog"
  wait "$hog" 2>/dev/null || true
  busy_single=${result_seconds[busy-1t]:-}
  busy_two=${result_seconds[busy-2t]:-}
}

# The plain read loops of pelka-read-limit; the fastest is the read limit.
read_loops=(aligned heap default blocks program)

# fold_limit: the read limit is the fastest plain loop of the last run_all.
fold_limit() {
  local loop best=
  for loop in "${read_loops[@]}"; do
    local s=${result_seconds[read-$loop]:-}
    [ -n "$s" ] || continue
    if [ -z "$best" ] || [ "$(echo "$s < ${result_seconds[$best]}" | bc -l)" = 1 ]; then best=read-$loop; fi
  done
  limit_loop=$best
  [ -n "$best" ] && result_seconds[read-limit]=${result_seconds[$best]}
}

# report CAPTURE: the table of the last run_all.
report() {
  local capture=$1
  local bytes packets messages
  bytes=$(count "$capture" file_bytes)
  packets=$(count "$capture" packets)
  messages=$(count "$capture" messages)
  say ""
  say "$(basename "$capture"): $(echo "$bytes / 1000000" | bc) MB, $packets packets, $messages messages" \
    "(smtp $(count "$capture" smtp_messages) of which bdat $(count "$capture" smtp_bdat_messages)," \
    "pop3 $(count "$capture" pop3_messages), imap $(count "$capture" imap_messages));" \
    "$(count "$capture" expected_records) expected as records"
  printf '%-16s %9s %9s %12s %11s %10s %8s %8s %8s\n' contender seconds MB/s packets/s messages/s "RSS MiB" "/limit" \
    "/tshark" "/1thread"
  fold_limit
  local limit=${result_seconds[read-limit]:-} tshark=${result_seconds[tshark]:-} single=${result_seconds[pelka-email]:-}
  for name in read-aligned read-heap read-default read-blocks read-program pelka-email pelka-email-no-db \
    pelka-email-attach pelka-email-2t tshark; do
    local s=${result_seconds[$name]:-}
    [ -n "$s" ] || continue
    local vs_limit=- vs_tshark=- vs_single=-
    [ -n "$limit" ] && vs_limit=$(echo "$limit / $s" | bc -l | xargs printf '%.2f')
    [ -n "$tshark" ] && vs_tshark=$(echo "$tshark / $s" | bc -l | xargs printf '%.1f')
    # The threaded run's rate as a multiple of the single-threaded one.
    [ -n "$single" ] && [ "$name" = pelka-email-2t ] && vs_single=$(echo "$single / $s" | bc -l | xargs printf '%.2fx')
    printf '%-16s %9.2f %9.1f %12.0f %11.0f %10.1f %8s %8s %8s\n' "$name" "$s" \
      "$(echo "$bytes / $s / 1000000" | bc -l)" "$(echo "$packets / $s" | bc -l)" \
      "$(echo "$messages / $s" | bc -l)" "$(echo "${result_rss[$name]} / 1024" | bc -l)" "$vs_limit" "$vs_tshark" \
      "$vs_single"
  done
  [ -n "${limit_loop:-}" ] && say "read limit: $limit_loop, the fastest of the plain read loops (pelka-read-limit --loop ...)"
  return 0
}

# check NAME CONDITION TEXT: prints a target check (bc condition).
check() {
  if [ "$(echo "$2" | bc -l)" -eq 1 ]; then say "PASS: $1 ($3)"; else fail "$1 ($3)"; fi
}

# --- the cores ------------------------------------------------------------------
# Two workers can only be as fast as the slower of two cores. On a virtual
# machine a core whose host sibling is busy runs at about half speed, and
# which cores are slow changes from minute to minute; the figures below are
# worth comparing only when the cores are about equal.
if command -v taskset >/dev/null && [ "$(nproc)" -ge 2 ]; then
  core_line="cores (same work on each, seconds):"
  for ((cpu = 0; cpu < $(nproc) && cpu < 8; ++cpu)); do
    core_line+=" cpu$cpu $(taskset -c "$cpu" "$core_speed")"
  done
  say "$core_line"
fi

# --- scenario 1: the mixed capture -------------------------------------------
say "scenario 1: mixed mail traffic"
run_all "$mixed"
report "$mixed"
mixed_seconds_per_mb=
if [ -n "${result_seconds[pelka-email]:-}" ]; then
  limit=${result_seconds[read-limit]}
  single=${result_seconds[pelka-email]}
  mixed_seconds_per_mb=$(echo "$single / ($(count "$mixed" file_bytes) / 1000000)" | bc -l)
  check "single thread at least 40% of the read limit" "$limit / $single >= 0.40" \
    "$(echo "100 * $limit / $single" | bc -l | xargs printf '%.0f')%"
  if [ -n "${result_seconds[pelka-email-2t]:-}" ]; then
    check "--threads 2 at least 1.6x single thread" "$single / ${result_seconds[pelka-email-2t]} >= 1.6" \
      "$(echo "$single / ${result_seconds[pelka-email-2t]}" | bc -l | xargs printf '%.2f')x"
  fi
  if [ -n "${result_seconds[pelka-email-attach]:-}" ]; then
    check "--attachments costs at most 25% of single-thread throughput" \
      "$single / ${result_seconds[pelka-email-attach]} >= 0.8" \
      "$(echo "100 * (${result_seconds[pelka-email-attach]} / $single - 1)" | bc -l | xargs printf '%.0f')% more time"
  fi
  if [ -n "${result_seconds[pelka-email-no-db]:-}" ]; then
    check "the database costs at most 10% of single-thread throughput" \
      "${result_seconds[pelka-email-no-db]} / $single >= 0.9" \
      "$(echo "100 * ($single / ${result_seconds[pelka-email-no-db]} - 1)" | bc -l | xargs printf '%.0f')% more time"
  fi
  if [ -n "${result_seconds[pair]:-}" ]; then
    say "two single-thread runs at once: $(printf '%.2f' "${result_seconds[pair]}") s for twice the work," \
      "$(echo "2 * $single / ${result_seconds[pair]}" | bc -l | xargs printf '%.2f')x one run:" \
      "what the cores give right now to work that shares nothing"
  fi
  if [ -n "${result_seconds[tshark]:-}" ]; then
    check "single thread at least 50x tshark" "${result_seconds[tshark]} / $single >= 50" \
      "$(echo "${result_seconds[tshark]} / $single" | bc -l | xargs printf '%.0f')x"
  fi
  bound_mib=$((64 + sessions * (flow_limit_mib * 1024 + 64) / 1024))
  for name in pelka-email pelka-email-2t; do
    [ -n "${result_rss[$name]:-}" ] || continue
    rss_mib=$((${result_rss[$name]} / 1024))
    check "$name peak RSS under ${bound_mib} MiB (64 MiB + $sessions live flows x 2 MiB + 64 KiB) and 200 MiB" \
      "$rss_mib < $bound_mib && $rss_mib < 200" "${rss_mib} MiB"
  done
fi
if ! command -v tshark >/dev/null; then
  say "tshark is not installed; to compare with it: sudo apt-get install tshark"
fi

# --- the report of a large run -------------------------------------------------
# Its size, and how long headless Chromium takes from navigation to the end
# of the page's load event (its own figure: the browser's start is not the
# page's cost), best of three.
if [ -x "$pelka" ] && command -v chromium >/dev/null; then
  say ""
  say "report.html of the mixed capture"
  out=$(mktemp -d "$cache/out.XXXXXX")
  if "$pelka" -q -o "$out" "$mixed" && [ -f "$out/report.html" ]; then
    report_bytes=$(stat -c %s "$out/report.html")
    cp "$out/report.html" "$out/timed.html"
    cat >>"$out/timed.html" <<'EOF'
<script>addEventListener('load', function () { setTimeout(function () {
  document.body.dataset.took = Math.round(performance.getEntriesByType('navigation')[0].loadEventEnd); }, 0); });</script>
EOF
    render_ms=
    for _ in 1 2 3; do
      took=$(chromium --headless --no-sandbox --disable-gpu --dump-dom "file://$out/timed.html" 2>/dev/null |
        sed -n 's/.*data-took="\([0-9]*\)".*/\1/p' | head -1)
      [ -n "$took" ] && { [ -z "$render_ms" ] || [ "$took" -lt "$render_ms" ]; } && render_ms=$took
    done
    say "  $(wc -l <"$out/emails.jsonl") records; report.html $(echo "$report_bytes / 1000000" | bc -l | xargs printf '%.1f') MB"
    check "report.html under 10 MB" "$report_bytes < 10000000" "$report_bytes bytes"
    if [ -n "$render_ms" ]; then
      check "report.html loads in under 2 s in headless Chromium" "$render_ms < 2000" "${render_ms} ms"
    else
      fail "headless Chromium did not load report.html"
    fi
  else
    fail "the run for the report did not finish"
  fi
  rm -rf "$out"
fi

# --- the busy machine: a core taken by another process ------------------------
if [ -x "$pelka" ]; then
  say ""
  say "busy machine: the mixed capture while a CPU-bound process runs, not pinned"
  busy_round "$mixed"
  if [ -n "$busy_single" ] && [ -n "$busy_two" ]; then
    printf '%-16s %9s %9s %10s\n' contender seconds MB/s "RSS MiB"
    for name in busy-1t busy-2t busy-2t-exact; do
      printf '%-16s %9.2f %9.1f %10.1f\n' "$name" "${result_seconds[$name]}" \
        "$(echo "$(count "$mixed" file_bytes) / ${result_seconds[$name]} / 1000000" | bc -l)" \
        "$(echo "${result_rss[$name]} / 1024" | bc -l)"
    done
    say "busy-2t: $busy_fewer of $repeat runs found a core taken and started one worker"
    check "busy machine: --threads 2 at least as fast as one thread" "$busy_single / $busy_two >= 1.0" \
      "$(echo "$busy_single / $busy_two" | bc -l | xargs printf '%.2f')x"
  fi
fi

# --- scenario 2: large messages ----------------------------------------------
say ""
say "scenario 2: $large messages of 2 MiB"
run_all "$largecap"
report "$largecap"
if [ -n "$mixed_seconds_per_mb" ] && [ -n "${result_seconds[pelka-email]:-}" ]; then
  large_seconds_per_mb=$(echo "${result_seconds[pelka-email]} / ($(count "$largecap" file_bytes) / 1000000)" | bc -l)
  check "time per MB with 2 MiB messages within 1.25x of the mixed capture's" \
    "$large_seconds_per_mb <= 1.25 * $mixed_seconds_per_mb" \
    "$(echo "$large_seconds_per_mb / $mixed_seconds_per_mb" | bc -l | xargs printf '%.2f')x"
fi

rm -f "$cache/last.out" "$cache/last.err" "$cache/time.out"
exit "$failed"
