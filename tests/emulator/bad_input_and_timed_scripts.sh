#!/bin/sh
# What the launcher and its ctl command do with bad input: exit status 2 and
# one line on standard error at start-up, an error answer (status 1) from
# an emulator that goes on serving; and a timed script that replays.
set -eu
emulate=$1 probe=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() { echo "$*"; exit 1; }

"$emulate" --help >"$dir/help" || fail "--help failed"
grep -q '^usage: orb-emulate' "$dir/help" || fail "--help prints no usage"

printf 'at 1s status\nat soon unplug 0\n' >"$dir/bad_time"
printf 'at 1s explode 0\n' >"$dir/bad_command"
for args in "--sensors 81 -- true" "--frames dim -- true" "--bogus -- true" "--sensors 1" \
            "--seed x -- true" "--scene candle -- true" "--script $dir/none -- true" "--script $dir/bad_time -- true" \
            "--script $dir/bad_command -- true"; do
  set +e
  # shellcheck disable=SC2086
  "$emulate" $args >"$dir/out" 2>"$dir/err"
  status=$?
  set -e
  [ "$status" -eq 2 ] || fail "$args: exit status $status, not 2"
  [ ! -s "$dir/out" ] || fail "$args: printed on standard output"
  [ "$(wc -l <"$dir/err")" -eq 1 ] || fail "$args: not one line on standard error: $(cat "$dir/err")"
done

set +e
env -u ORB_EMULATE_CONTROL "$emulate" ctl status 2>/dev/null; [ $? -eq 2 ] || fail "ctl without an emulator"
"$emulate" ctl "$dir/nobody" status 2>/dev/null; [ $? -eq 2 ] || fail "ctl to a missing socket"
"$emulate" --sensors 1 -- "$emulate" ctl unplug 5 >"$dir/out"; [ $? -eq 1 ] || fail "ctl error status"
set -e
grep -q '^error: no device' "$dir/out" || fail "no error answer: $(cat "$dir/out")"

# Replayed: the sensor is gone 0.3 s after the start; a command that cannot
# run is reported on standard error and the rest of the script still runs.
printf '# replay\nat 0.1s unplug 7\nat 300ms unplug 0\n' >"$dir/script"
"$emulate" --sensors 1 --script "$dir/script" -- sh -c '
  "$1" --expect 1 >/dev/null || exit 3
  sleep 1.5
  "$1" --expect 0' sh "$probe" >"$dir/out" 2>"$dir/err" || fail "script replay: $(cat "$dir/out" "$dir/err")"
grep -q "line 2 (unplug 7): error: no device '7'" "$dir/err" || fail "script error not reported: $(cat "$dir/err")"
