#!/usr/bin/env bash
# The main job, end to end: lists the sensors, searches the shutter speed
# (auto-exposure), then saves an averaged frame of the first sensor as
# frame.csv and frame.png in the current directory, and its spectrum, through
# the unit's calibration, as spectrum.csv and spectrum.png, with the light's
# colour. Without a sensor plugged in, it runs against two emulated sensors
# (their calibrations are made by the build's sweep; the tool covers the
# emulated sensor for the dark itself, where a plugged one asks you to).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ORB_BUILD_DIR:-$top/build}
# Quiet unless something fails: the set-up and the build write to a log
# that stays, and its end is shown when they fail.
mkdir -p "$build"
log=$build/demo-build.log
if ! { "$top/scripts/setup.sh" &&
       ORB_BUILD_TARGETS="orb_device orb-emulate orbsim-access orb_spectrum emulated-calibrations" "$top/scripts/build.sh"; } >"$log" 2>&1; then
  tail -n 40 "$log"
  echo "The set-up or the build failed; the whole log is in $log." >&2
  exit 1
fi
export ORB_DEVICE_LIBRARY=$build/src/liborb_device.so.1 ORB_EMULATE=$build/sim/orb-emulate

plugged=0
for d in /sys/bus/usb/devices/*; do
  if [ "$(cat "$d/idVendor" 2>/dev/null)" = "0483" ] && [ "$(cat "$d/idProduct" 2>/dev/null)" = "5740" ]; then
    plugged=1
  fi
done
emulator=()
if [ "$plugged" = 0 ]; then
  echo "No sensor plugged in: using two emulated sensors looking at a halogen lamp."
  emulator=("$ORB_EMULATE" --sensors 2 --scene halogen --)
fi
sensor=("${emulator[@]}" "$top/tools/orb-sensor")
"${sensor[@]}" list
"${sensor[@]}" acquire --auto-exposure -n 10 -o frame.csv --plot frame.png
echo "Wrote $PWD/frame.csv (a row of 1024 values after the settings) and $PWD/frame.png."
"${sensor[@]}" spectrum --auto-exposure --take-dark -n 16 -o spectrum.csv --plot spectrum.png
echo "Wrote $PWD/spectrum.csv (wavelength_nm,value after the metadata) and $PWD/spectrum.png. Its colour:"
"$top/tools/orb-sensor" colour --from-file spectrum.csv | grep -E "^(x|y|CCT|Duv|Ra|peak) " | paste -sd ' ' |
  sed 's/^/  /'
if [ "$plugged" = 0 ]; then
  echo "Live view in the browser: $top/tools/orb-sensor --emulate 1 view --open"
else
  echo "Live view in the browser: $top/tools/orb-sensor view --open"
fi
