#!/usr/bin/env bash
# Builds orb_bench if needed, runs it against one emulated sensor (about half
# a minute) and prints the results as markdown tables. Arguments go to
# orb_bench (--benchmark_filter=..., --benchmark_repetitions=3, ...), except
# --update-doc, which also puts the tables into docs/performance.md.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ORB_BUILD_DIR:-$top/build}

update=()
args=()
for a in "$@"; do
  if [ "$a" = --update-doc ]; then update=(--update-doc "$top/docs/performance.md"); else args+=("$a"); fi
done

"$top/scripts/setup.sh"
configure=(-DORB_BUILD_TESTS=ON -DORB_BUILD_BENCH=ON)
[ -f "$build/CMakeCache.txt" ] || configure+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DORB_WERROR=ON)
cmake -S "$top" -B "$build" "${configure[@]}" >/dev/null
cmake --build "$build" --target orb_bench -j"$(nproc)" >/dev/null

# The library prints its own lines on standard output: they go to the log
# with Google Benchmark's console table, the figures to the JSON file.
out=$build/bench
echo "Running orb_bench; its log goes to $out/orb_bench.log" >&2
if ! "$out/orb_bench" --benchmark_out="$out/results.json" --benchmark_out_format=json \
     ${args[@]+"${args[@]}"} >"$out/orb_bench.log" 2>&1; then
  tail -n 20 "$out/orb_bench.log" >&2
  exit 1
fi
python3 "$top/bench/summarize.py" "$out/results.json" ${update[@]+"${update[@]}"}
