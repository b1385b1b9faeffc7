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
            "--seed x -- true" "--scene candle -- true" "--units some -- true" "--script $dir/none -- true" "--script $dir/bad_time -- true" \
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
"$emulate" --scene "file $dir/none.csv" -- true 2>"$dir/err"; [ $? -eq 2 ] || fail "--scene with a missing file"
set -e
[ "$(cat "$dir/err")" = "orb-emulate: --scene: $dir/none.csv: cannot read it (No such file or directory) (see orb-emulate --help)" ] ||
  fail "--scene with a missing file: $(cat "$dir/err")"

set +e
env -u ORB_EMULATE_CONTROL "$emulate" ctl status 2>/dev/null; [ $? -eq 2 ] || fail "ctl without an emulator"
"$emulate" ctl "$dir/nobody" status 2>/dev/null; [ $? -eq 2 ] || fail "ctl to a missing socket"
"$emulate" --sensors 1 -- "$emulate" ctl unplug 5 >"$dir/out"; [ $? -eq 1 ] || fail "ctl error status"
set -e
grep -q '^error: no device' "$dir/out" || fail "no error answer: $(cat "$dir/out")"

# A spectrum file named to ctl is read where ctl runs, not where the
# emulator does; a bad one is refused naming the file and the line.
mkdir "$dir/here"
printf 'wavelength_nm,value\n500,1\n600,2\n' >"$dir/here/good.csv"
printf '500,1\n450,2\n' >"$dir/here/bad.csv"
(cd / && "$emulate" --sensors 1 --scene 'halogen' --control "$dir/ctl" -- sh -c '
  cd "$1/here"
  "$2" ctl scene 0 file good.csv 0.5 + line --nm 532.4 --fwhm 1 || exit 3
  "$2" ctl scene 0 file bad.csv
  [ $? -eq 1 ] || exit 4' sh "$dir" "$emulate") >"$dir/out" || fail "file scenes through ctl: $(cat "$dir/out")"
grep -qxF "error: $dir/here/bad.csv line 2: wavelength 450 nm is not above the one before (500 nm)" "$dir/out" ||
  fail "bad file not named: $(cat "$dir/out")"

# Replayed: the sensor is gone 0.3 s after the start; a command that cannot
# run is reported on standard error and the rest of the script still runs.
printf '# replay\nat 0.1s unplug 7\nat 300ms unplug 0\n' >"$dir/script"
"$emulate" --sensors 1 --script "$dir/script" -- sh -c '
  "$1" --expect 1 >/dev/null || exit 3
  sleep 1.5
  "$1" --expect 0' sh "$probe" >"$dir/out" 2>"$dir/err" || fail "script replay: $(cat "$dir/out" "$dir/err")"
grep -q "line 2 (unplug 7): error: no device '7'" "$dir/err" || fail "script error not reported: $(cat "$dir/err")"
