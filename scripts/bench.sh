#!/usr/bin/env bash
# Builds orb_bench and orb_bus_bench if needed, runs them against one emulated
# sensor each (about half a minute, then a minute of the emulated bus's own pace),
# then bench/bench_python.py, the Python package under orb-emulate (about a
# minute: its stream runs 20 s; --python-seconds=60 for the full minute, 0 to
# leave it out), and prints the results as markdown tables. Other arguments go to
# both C programs (--benchmark_filter=..., --benchmark_repetitions=3, ...), except
# --update-doc, which also puts the tables into docs/performance.md.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ORB_BUILD_DIR:-$top/build}

update=()
args=()
python_seconds=20
for a in "$@"; do
  case "$a" in
    --update-doc) update=(--update-doc "$top/docs/performance.md") ;;
    --python-seconds=*) python_seconds=${a#*=} ;;
    *) args+=("$a") ;;
  esac
done

"$top/scripts/setup.sh"
configure=(-DORB_BUILD_TESTS=ON -DORB_BUILD_BENCH=ON)
[ -f "$build/CMakeCache.txt" ] || configure+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DORB_WERROR=ON)
cmake -S "$top" -B "$build" "${configure[@]}" >/dev/null
cmake --build "$build" --target orb_bench orb_bus_bench orb_device orb-emulate -j"$(nproc)" >/dev/null

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
# The package runs the library of this build in its worker, under this
# build's launcher.
rm -f "$out/python_results.json"
if [ "$python_seconds" != 0 ]; then
  echo "Running bench_python.py (its stream ${python_seconds} s); its log goes to $out/python_bench.log" >&2
  if ! ORB_DEVICE_LIBRARY="$build/src/liborb_device.so.1" ORB_EMULATE="$build/sim/orb-emulate" \
       "$build/sim/orb-emulate" --sensors 1 -- /usr/bin/python3 "$top/bench/bench_python.py" \
       --seconds "$python_seconds" --json "$out/python_results.json" >"$out/python_bench.log" 2>&1; then
    tail -n 20 "$out/python_bench.log" >&2
    exit 1
  fi
fi
# A filter that matches nothing in one of them leaves its file empty.
results=()
for f in "$out/results.json" "$out/bus_results.json" "$out/python_results.json"; do
  [ -s "$f" ] && results+=("$f")
done
python3 "$top/bench/summarize.py" "${results[@]}" ${update[@]+"${update[@]}"}
