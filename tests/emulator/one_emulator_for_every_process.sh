#!/bin/sh
# One emulator for every process under the launcher: a register written by one
# program is read back by a later one, started by a shell inside a shell, and
# the emulator's status shows it.
set -eu
emulate=$1 probe=$2
out=$("$emulate" --sensors 2 -- sh -c '
  "$1" --set 37=3 --set 5=67 >/dev/null
  sh -c "\"\$0\" --get 36 --get 4" "$1"
  "$2" ctl status' sh "$probe" "$emulate")
printf '%s\n' "$out"
for line in "register read 36: 3" "register read 4: 67" \
            "0 001/002 sensor plugged=yes streaming=no shutter=835 frames=0 missed=0 unit=109a472885" \
            "1 001/003 sensor plugged=yes streaming=no shutter=0 frames=0 missed=0 unit=109a472a85" "ok"; do
  printf '%s\n' "$out" | grep -qxF "$line" || { echo "missing: $line"; exit 1; }
done
