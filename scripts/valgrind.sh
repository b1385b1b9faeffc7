#!/usr/bin/env bash
# Runs the tests that talk to the emulated sensor through the library under
# valgrind memcheck, each test case in its own process as ctest runs them,
# and the example hosts under orb-emulate. An invalid access, a use of
# uninitialised memory, or memory definitely or indirectly lost that
# sim/valgrind.supp does not name fails the script; each run's report is
# kept under <build>/valgrind.
#
# "Possibly lost" is not counted: libusb links its event sources and open
# handles through pointers into the middle of its blocks, and every thread
# still running at exit (umockdev's, the emulator's, libusb's, the event
# loop) holds its stack the same way, so memcheck calls all of them possibly
# lost.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
"$top/scripts/build.sh"
build=${ORB_BUILD_DIR:-$top/build}
logs=$build/valgrind
rm -rf "$logs"
mkdir -p "$logs"

# Every valgrind below, also the one under orb-emulate, takes its options
# from VALGRIND_OPTS and writes to the log memcheck() names.
export ORB_TEST=1 VALGRIND_LOGS=$logs
export VALGRIND_OPTS="--error-exitcode=99 --leak-check=full --show-leak-kinds=definite,indirect \
--errors-for-leak-kinds=definite,indirect --track-origins=yes --num-callers=40 \
--suppressions=$top/sim/valgrind.supp --log-file=%q{VALGRIND_LOG}"

# memcheck NAME EXPECTED-STATUS COMMAND...: runs COMMAND, which runs
# valgrind, and shows its output and valgrind's report unless it ended with
# EXPECTED-STATUS.
memcheck() {
  local name=${1//\//_} expected=$2 status=0
  shift 2
  VALGRIND_LOG=$VALGRIND_LOGS/$name.log "$@" >"$VALGRIND_LOGS/$name.out" 2>&1 || status=$?
  if [ "$status" -eq "$expected" ]; then
    echo "ok      $name"
  else
    echo "FAILED  $name (exit status $status)"
    cat "$VALGRIND_LOGS/$name.out" "$VALGRIND_LOGS/$name.log"
    return 1
  fi
}
export -f memcheck

start=$SECONDS
failed=0
tests=(test_api test_auto_exposure test_bringup test_connection_helper test_device_base test_discovery
       test_facade test_faults test_firmware test_frames test_identity test_led test_lusb_compat test_settings
       test_stream test_stream_faults test_stream_transfers)
for t in "${tests[@]}"; do
  "$build/tests/$t" --gtest_list_tests | awk -v bin="$build/tests/$t" '/^[^ ]/ {suite = $1} /^  / {print bin, suite $1}'
done | xargs -P2 -L1 bash -c 'memcheck "$1" 0 valgrind "$0" --gtest_filter="$1"' || failed=1

emulate=$build/sim/orb-emulate
for host in orb_c_host orb_cpp_host; do
  memcheck $host.TwoSensors 0 "$emulate" --sensors 2 --frames counter -- valgrind "$build/tests/$host" || failed=1
  memcheck $host.NoSensor 1 "$emulate" --sensors 0 -- valgrind "$build/tests/$host" || failed=1
done
memcheck orb_c_stream_host.OneSecond 0 "$emulate" --sensors 1 --timing fast --frame-period-us 5000 -- \
  valgrind "$build/tests/orb_c_stream_host" 1 || failed=1

cat "$logs"/*.log | awk '
  /ERROR SUMMARY:/ { errors += $4 }
  /definitely lost:/ { gsub(",", "", $4); definite += $4 }
  /indirectly lost:/ { gsub(",", "", $4); indirect += $4 }
  END { printf "valgrind: %d errors; definitely lost %d bytes, indirectly lost %d bytes\n", errors, definite, indirect }'
echo "valgrind: $(ls "$logs"/*.log | wc -l) runs in $((SECONDS - start)) s"
exit $failed
