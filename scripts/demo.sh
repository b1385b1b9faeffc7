#!/usr/bin/env bash
# Lists the sensors on the USB buses and opens each one, then reads the first
# sensor's ID and an averaged frame through the C entry points. Without a
# sensor plugged in, both run against two emulated sensors.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
"$top/scripts/build.sh"
build=${ORB_BUILD_DIR:-$top/build}

plugged=0
for d in /sys/bus/usb/devices/*; do
  if [ "$(cat "$d/idVendor" 2>/dev/null)" = "0483" ] && [ "$(cat "$d/idProduct" 2>/dev/null)" = "5740" ]; then
    plugged=1
  fi
done
run=()
if [ "$plugged" = 0 ]; then
  echo "No sensor plugged in: using two emulated sensors."
  run=("$build/sim/orb-emulate" --sensors 2 --)
fi
"${run[@]}" "$build/tools/orb-list"
"${run[@]}" "$build/examples/c_host/orb_c_host"
