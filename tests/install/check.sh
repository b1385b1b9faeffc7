#!/usr/bin/env bash
# Installs the build into a scratch prefix, builds a C host with pkg-config
# and a C++ host with find_package, runs both, and checks the exported
# symbols' linkage.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
test -f "$prefix/include/orb_device/orb_error_codes.h"
test -f "$prefix/include/orb_device/utils/orb_utils_interface.h"
libdir=$(dirname "$(find "$prefix" -name liborb_device.so | head -n1)")

export PKG_CONFIG_PATH=$libdir/pkgconfig
cc -std=c99 -Wall -Wextra -Werror "$here/host.c" -o "$work/host_c" $(pkg-config --cflags --libs orb_device)
LD_LIBRARY_PATH=$libdir "$work/host_c"

mkdir "$work/cxx"
cp "$here/host.cpp" "$work/cxx/"
cp "$here/CMakeLists.txt.in" "$work/cxx/CMakeLists.txt"
cmake -S "$work/cxx" -B "$work/cxx/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cxx/build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cxx/build/host_cpp"

# The 0.1-style calls have C linkage, except the two writers, whose symbols
# carry their signatures.
syms=$(nm -D --defined-only "$libdir/liborb_device.so" | awk '{print $3}')
for plain in usb_init usb_control_msg usb_bulk_read usb_interrupt_read usb_open usb_find_busses; do
  grep -qx "$plain" <<<"$syms" || { echo "missing C symbol $plain"; exit 1; }
done
for mangled in _Z14usb_bulk_writeP20libusb_device_handleiPKcii _Z19usb_interrupt_writeP14usb_dev_handleiPKcii; do
  grep -qx "$mangled" <<<"$syms" || { echo "missing C++ symbol $mangled"; exit 1; }
done
for hidden in usb_bulk_write usb_interrupt_write; do
  if grep -qx "$hidden" <<<"$syms"; then echo "$hidden must not have C linkage"; exit 1; fi
done
# Nothing of the internals leaks out.
if grep -q 'walk_sensor_devices\|open_usb_device' <<<"$syms"; then echo "internal symbol exported"; exit 1; fi
nm -D --defined-only "$libdir/libVarnelBase.so" | grep -q orb_base_exception
echo "installed tree OK"
