#!/bin/sh
# The streaming example host on the emulated sensor: at the sensor's pace it loses
# nothing and reports its rate (how close to 594 frames/s is the
# benchmarks' business, not a test's); when the sensor is unplugged it exits
# with status 3 at once, long before its time is up.
#   stream_host.sh <orb-emulate> <orb_c_stream_host>
set -eu
emulate=$1 host=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

timeout 30 "$emulate" --sensors 1 -- "$host" 2 >"$dir/out" 2>&1 || { cat "$dir/out"; echo "host failed"; exit 1; }
cat "$dir/out"
line=$(grep '^frames: ' "$dir/out")
echo "$line" | grep -qE '^frames: [1-9][0-9]*, rate: [1-9][0-9]*\.[0-9] frames/s, lost: 0, missed: [0-9]+$' ||
  { echo "frames were lost, or none came"; exit 1; }

printf 'at 1s unplug 0\n' >"$dir/unplug.script"
start=$(date +%s)
status=0
timeout 30 "$emulate" --sensors 1 --script "$dir/unplug.script" -- "$host" 20 >"$dir/out" 2>&1 || status=$?
took=$(( $(date +%s) - start ))
cat "$dir/out"
[ "$status" -eq 3 ] || { echo "exit status $status, not 3"; exit 1; }
[ "$took" -le 5 ] || { echo "took $took s to notice the loss"; exit 1; }
grep -q 'sensor lost' "$dir/out" || { echo "the loss was not named"; exit 1; }
