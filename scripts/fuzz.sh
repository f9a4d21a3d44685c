#!/usr/bin/env bash
# Builds the fuzz harnesses with clang and libFuzzer (ASan+UBSan) in build/fuzz and runs each
# one for SECONDS (default 60), one after the other, on a scratch copy of its seed corpus
# (tests/fuzz/corpus/<harness>/). Prints runs, time and findings per harness. A finding (crash,
# hang, leak, out-of-memory, UB) is written to build/fuzz/artifacts/ and makes the script exit
# with status 1; fix it, then copy the reproducer into tests/fuzz/corpus/<harness>/ so that
# the test suite replays it.
# Usage: scripts/fuzz.sh [SECONDS] [HARNESS ...]   (default: every harness)
# Needs clang and libclang-rt-14-dev (or the libFuzzer runtime of your clang).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
dir=build/fuzz
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1

if ! command -v clang++ >/dev/null; then
  echo "fuzz.sh: clang++ is needed (Debian: clang libclang-rt-14-dev)" >&2
  exit 2
fi
CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZONARIS_SANITIZE=fuzzer >/dev/null
harnesses=("$@")
targets=(zonaris_fuzzers)
[ ${#harnesses[@]} -eq 0 ] || targets=("${harnesses[@]/#/fuzz_}")
cmake --build "$dir" -j "$(nproc 2>/dev/null || echo 2)" --target "${targets[@]}"
if [ ${#harnesses[@]} -eq 0 ]; then
  for f in "$dir"/tests/fuzz/fuzz_*; do harnesses+=("$(basename "$f" | sed 's/^fuzz_//')"); done
fi

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
mkdir -p "$dir/artifacts"
failed=()
printf '%-22s %10s %8s %s\n' harness runs seconds findings
for h in "${harnesses[@]}"; do
  work="$dir/corpus/$h"
  mkdir -p "$work"
  log="$dir/$h.log"
  status=0
  # New inputs go to the scratch folder (first), the seeds are only read.
  "$dir/tests/fuzz/fuzz_$h" "$work" "tests/fuzz/corpus/$h" -max_total_time="$seconds" \
    -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$dir/artifacts/$h-" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  elapsed=$(grep -o 'Done [0-9]* runs in [0-9]* second' "$log" | awk '{print $5}' | tail -1)
  printf '%-22s %10s %8s %s\n' "$h" "${runs:-?}" "${elapsed:-$seconds}" \
    "$([ "$status" -eq 0 ] && echo none || echo "status $status, see $log")"
  [ "$status" -eq 0 ] || failed+=("$h")
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz.sh: findings in: ${failed[*]} (reproducers in $dir/artifacts/)" >&2
  exit 1
fi
