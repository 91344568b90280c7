#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a while.
#
#   tests/fuzz/run_fuzzers.sh BUILD_DIR SECONDS [TARGET...]
#
# Each target starts from its seed corpus (tests/fuzz/corpus/<name>) and keeps
# what it finds in BUILD_DIR/fuzz/corpus/<name>, so the seeds in the tree stay
# as they are. A crashing input is written to BUILD_DIR/fuzz/artifacts/ and
# ends the script with a failure. Each target's executions
# ("stat::number_of_executed_units") are printed as "fuzz <name>: N runs in S s".
set -euo pipefail

build=${1:?usage: run_fuzzers.sh BUILD_DIR SECONDS [TARGET...]}
seconds=${2:?usage: run_fuzzers.sh BUILD_DIR SECONDS [TARGET...]}
shift 2
here=$(cd "$(dirname "$0")" && pwd)
out="$build/fuzz"

if [ $# -gt 0 ]; then
  targets=("$@")
else
  mapfile -t targets < "$out/fuzzers.txt"
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

passed=0
failed=0
for name in "${targets[@]}"; do
  mkdir -p "$out/corpus/$name" "$out/artifacts"
  log="$out/$name.log"
  if "$out/fuzz_$name" -max_total_time="$seconds" -print_final_stats=1 -timeout=25 \
      -rss_limit_mb=2048 -artifact_prefix="$out/artifacts/$name-" \
      "$out/corpus/$name" "$here/corpus/$name" > "$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz $name: ${runs:-?} runs in $seconds s"
    passed=$((passed + 1))
  else
    echo "fuzz $name: FAILED, see $log and $out/artifacts/" >&2
    tail -n 40 "$log" >&2
    failed=$((failed + 1))
  fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
