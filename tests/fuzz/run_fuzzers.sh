#!/usr/bin/env bash
# tests/fuzz/run_fuzzers.sh BUILD_DIR SECONDS [TARGET...]
# Runs every fuzz target of a fuzz build (or the named ones) for SECONDS each,
# from its seed corpus (tests/fuzz/corpus/<name>), keeping what it finds in
# BUILD_DIR/fuzz/corpus/<name>. A crashing input goes to BUILD_DIR/fuzz/artifacts/
# and fails the script.
set -euo pipefail
out="${1:?usage: run_fuzzers.sh BUILD_DIR SECONDS [TARGET...]}/fuzz" seconds=${2:?usage: run_fuzzers.sh BUILD_DIR SECONDS [TARGET...]}
shift 2
seeds="$(cd "$(dirname "$0")" && pwd)/corpus"
if [ $# -gt 0 ]; then targets=("$@"); else mapfile -t targets < "$out/fuzzers.txt"; fi
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
failed=0
for name in "${targets[@]}"; do
  mkdir -p "$out/corpus/$name" "$out/artifacts"
  if "$out/fuzz_$name" -max_total_time="$seconds" -print_final_stats=1 -timeout=25 -rss_limit_mb=2048 \
      -artifact_prefix="$out/artifacts/$name-" "$out/corpus/$name" "$seeds/$name" > "$out/$name.log" 2>&1; then
    echo "fuzz $name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$out/$name.log") runs in $seconds s"
  else
    echo "fuzz $name: FAILED, see $out/$name.log and $out/artifacts/" >&2
    tail -n 40 "$out/$name.log" >&2
    failed=$((failed + 1))
  fi
done
echo "fuzz: ${#targets[@]} run, $failed failed"
[ "$failed" -eq 0 ]
