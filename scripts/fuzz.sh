#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for the given seconds (default 5)
# over a scratch copy of its seed corpus. Any crash, leak, undefined
# behaviour or broken check fails the script; the input that did it is kept
# under <build>/artifacts.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-5}
build=${ORB_FUZZ_BUILD_DIR:-$top/build-fuzz}

cmake -S "$top/fuzz" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j2 >/dev/null

mkdir -p "$build/artifacts"
for seeds in "$top"/fuzz/corpus/*/; do
  target=$(basename "$seeds")
  corpus="$build/corpus/$target"
  rm -rf "$corpus"
  mkdir -p "$corpus"
  cp "$seeds"* "$corpus"/
  echo "fuzz_$target: ${seconds}s"
  "$build/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$target-" "$corpus" 2>"$build/fuzz_$target.log" || {
    tail -n 40 "$build/fuzz_$target.log"
    echo "fuzz_$target failed; input kept under $build/artifacts" >&2
    exit 1
  }
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec)' "$build/fuzz_$target.log"
done
