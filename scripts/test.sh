#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
"$top/scripts/build.sh"
build=${ORB_BUILD_DIR:-$top/build}
cd "$build"
ctest -j"$(nproc)" --output-on-failure --timeout 300
