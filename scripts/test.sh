#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: once in the normal
# build, once under AddressSanitizer with UndefinedBehaviorSanitizer (any
# finding, leaks included, fails the run), once more under ThreadSanitizer,
# since the frame path shares state between the caller and the USB
# event-loop thread, and the tests that talk to the emulated sensor under
# valgrind memcheck.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
"$top/scripts/build.sh"
build=${ORB_BUILD_DIR:-$top/build}
(cd "$build" && ctest -j"$(nproc)" --output-on-failure --timeout 300)

asan=${ORB_ASAN_BUILD_DIR:-$top/build-asan}
sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
ORB_BUILD_DIR=$asan "$top/scripts/build.sh" -DORB_BUILD_BENCH=OFF \
  "-DCMAKE_C_FLAGS=$sanitize" "-DCMAKE_CXX_FLAGS=$sanitize" \
  "-DCMAKE_EXE_LINKER_FLAGS=$sanitize" "-DCMAKE_SHARED_LINKER_FLAGS=$sanitize"
# The slow unwinder on allocation reaches our frames through libusb, which
# has no frame pointers; sim/lsan.supp names the memory kept on purpose.
# Python and the installed tree's hosts are not built with the ASan runtime,
# which must be loaded first or not at all: they are covered by the normal
# pass.
(cd "$asan" &&
  ASAN_OPTIONS="fast_unwind_on_malloc=0 detect_stack_use_after_return=1" \
  LSAN_OPTIONS="suppressions=$top/sim/lsan.supp" UBSAN_OPTIONS="print_stacktrace=1" \
  ctest -j"$(nproc)" --output-on-failure --timeout 300 -E '^(InstalledTree|Python)\.')

tsan=${ORB_TSAN_BUILD_DIR:-$top/build-tsan}
ORB_BUILD_DIR=$tsan "$top/scripts/build.sh" -DORB_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS=-fsanitize=thread -DCMAKE_CXX_FLAGS=-fsanitize=thread \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread
cd "$tsan"
# Python cannot load a TSan-built library without the runtime preloaded; the
# package's own calls are covered by the normal pass.
TSAN_OPTIONS="suppressions=$top/sim/tsan.supp halt_on_error=1 second_deadlock_stack=1" \
  ctest -j"$(nproc)" --output-on-failure --timeout 300 -E '^(InstalledTree|Python)\.'

"$top/scripts/valgrind.sh"

# A short run of every fuzz target over its seed corpus.
"$top/scripts/fuzz.sh" 5
