#!/usr/bin/env bash
# The full soak: 10,000 acquisitions on one connection, then 200 connection
# cycles, in one process against an emulated sensor on the virtual clock.
# Prints the resource tables and fails when anything grows beyond what the
# design explains. Arguments replace the counts: soak.sh [ACQUISITIONS [CYCLES]].
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
"$top/scripts/build.sh"
build=${ORB_BUILD_DIR:-$top/build}
time "$build/soak/orb_soak" "$@"
