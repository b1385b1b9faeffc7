#!/bin/sh
# A host streams from the emulator while another shell, through the control
# socket, hangs the sensor's firmware, clears it, unplugs the sensor and
# plugs it back in; the host sees each step and carries on.
set -eu
emulate=$1 probe=$2
dir=$(mktemp -d)
"$emulate" --sensors 1 --control "$dir/ctl" -- "$probe" --watch 60 >"$dir/out" 2>&1 &
pid=$!
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$dir"' EXIT

wait_for() {
  for _ in $(seq 150); do
    grep -qxF "$1" "$dir/out" && return 0
    sleep 0.1
  done
  echo "never saw: $1"; cat "$dir/out"; exit 1
}
ctl() { "$emulate" ctl "$dir/ctl" "$@" >/dev/null; }

wait_for "streaming 001/002"
ctl fault 0 hang
wait_for "stuck 001/002"
ctl clear 0
wait_for "frames again 001/002"
ctl unplug 0
wait_for "gone 001/002"
ctl replug 0
wait_for "streaming 001/003"
"$emulate" ctl "$dir/ctl" status | grep -q '^0 001/003 sensor plugged=yes streaming=yes '
cat "$dir/out"
