#!/usr/bin/env bash
# Configures and builds into build/ (or $ORB_BUILD_DIR) with warnings as errors;
# $ORB_BUILD_TARGETS, when set, names the only targets to build.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${ORB_BUILD_DIR:-$top/build}
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORB_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j"$(nproc)" ${ORB_BUILD_TARGETS:+--target $ORB_BUILD_TARGETS}
