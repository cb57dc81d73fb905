#!/usr/bin/env bash
# Builds the fuzz targets with clang into build-fuzz and runs each one for
# SECONDS (default 60), starting from a scratch copy of its seed corpus so the
# repository is never modified. Prints the executions per target; exits
# non-zero when any target finds a crash, a leak, a timeout or a broken check.
# A finding's input is kept under build-fuzz/findings/.
#
# Usage: fuzz/run.sh [SECONDS] [TARGET...]   (TARGET without the fuzz_ prefix)
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
build=build-fuzz

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DPELKA_FUZZ=ON -DPELKA_SANITIZE=ON \
  -DPELKA_TESTS=OFF -DPELKA_BENCH=OFF -DPELKA_WERROR=ON >/dev/null || exit 2
mapfile -t all_targets < <(ninja -C "$build" -t targets all | sed -n 's/^\(fuzz_[A-Za-z0-9_]*\): phony$/\1/p' | sort)
if [ $# -gt 0 ]; then
  targets=()
  for name in "$@"; do targets+=("fuzz_$name"); done
else
  targets=("${all_targets[@]}")
fi
if [ ${#targets[@]} -eq 0 ]; then
  echo "no fuzz targets found" >&2
  exit 2
fi
ninja -C "$build" -j2 "${targets[@]}" || exit 2

export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$build/findings"

failed=0
summary=()
for target in "${targets[@]}"; do
  name=${target#fuzz_}
  work="$scratch/$name"
  mkdir -p "$work/corpus" "$work/artifacts"
  if [ -d "fuzz/corpus/$name" ]; then cp -r "fuzz/corpus/$name/." "$work/corpus/"; fi
  echo "== $target: ${seconds} s"
  "$build/fuzz/$target" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/" "$work/corpus" >"$work/log" 2>&1
  status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/log" | tail -1)
  if [ $status -ne 0 ]; then
    failed=1
    tail -n 40 "$work/log"
    cp "$work/artifacts/"* "$build/findings/" 2>/dev/null
    summary+=("$(printf '%-28s FINDING (exit %d), inputs in %s/findings' "$target" "$status" "$build")")
  else
    summary+=("$(printf '%-28s %12s executions' "$target" "${executions:-?}")")
  fi
done

echo "== summary (${seconds} s per target)"
printf '%s\n' "${summary[@]}"
exit $failed
