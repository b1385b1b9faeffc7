#!/usr/bin/env bash
# Builds orb_bench and orb_bus_bench if needed, runs them against one emulated
# sensor each (about half a minute, then a minute of the emulated bus's own pace)
# and prints the results as markdown tables. Arguments go to both
# (--benchmark_filter=..., --benchmark_repetitions=3, ...), except
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
cmake --build "$build" --target orb_bench orb_bus_bench -j"$(nproc)" >/dev/null

# The library prints its own lines on standard output: they go to the log
# with Google Benchmark's console table, the figures to the JSON file.
out=$build/bench
echo "Running orb_bench; its log goes to $out/orb_bench.log" >&2
if ! "$out/orb_bench" --benchmark_out="$out/results.json" --benchmark_out_format=json \
     ${args[@]+"${args[@]}"} >"$out/orb_bench.log" 2>&1; then
  tail -n 20 "$out/orb_bench.log" >&2
  exit 1
fi
echo "Running orb_bus_bench; its log goes to $out/orb_bus_bench.log" >&2
if ! "$out/orb_bus_bench" --benchmark_out="$out/bus_results.json" --benchmark_out_format=json \
     ${args[@]+"${args[@]}"} >"$out/orb_bus_bench.log" 2>&1; then
  tail -n 20 "$out/orb_bus_bench.log" >&2
  exit 1
fi
# A filter that matches nothing in one of them leaves its file empty.
results=()
for f in "$out/results.json" "$out/bus_results.json"; do [ -s "$f" ] && results+=("$f"); done
python3 "$top/bench/summarize.py" "${results[@]}" ${update[@]+"${update[@]}"}
