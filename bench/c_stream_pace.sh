#!/usr/bin/env bash
# The C stream example at the emulator's realistic pace for SECONDS, with
# both cores kept busy by two spinning shells (BUSY=0 leaves the machine as
# it is), then the emulator's own status: frames it sent and the slots that
# passed with no transfer waiting, to set beside what the host reports.
# usage: bench/c_stream_pace.sh [BUILD_DIR] [SECONDS]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build}
seconds=${2:-20}
spinners=()
stop_spinners() { for p in "${spinners[@]}"; do kill "$p" 2>/dev/null || true; done; }
trap stop_spinners EXIT
if [ "${BUSY:-1}" != 0 ]; then
  for _ in 1 2; do
    sh -c 'while :; do :; done' &
    spinners+=($!)
  done
fi
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/sim/orb-emulate" --sensors 1 -- sh -c \
  '"$1" "$2"; status=$?; "$3" ctl status; exit $status' sh \
  "$build/tests/orb_c_stream_host" "$seconds" "$build/sim/orb-emulate"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
