#!/usr/bin/env bash
# Lists the sensors on the USB buses and opens each one. Without a sensor
# plugged in, it runs against two emulated sensors.
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
if [ "$plugged" = 1 ]; then
  exec "$build/tools/orb-list"
fi
echo "No sensor plugged in: using two emulated sensors."
exec "$build/sim/orb-emulate" --sensors 2 -- "$build/tools/orb-list"
