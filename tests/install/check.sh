#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds the example hosts from
# it the way a user does: the C host with pkg-config and make, the C++ host
# with find_package; runs both against emulated sensors, and checks the
# exported symbols' linkage.
#   check.sh <build dir> <orb-emulate>
set -euo pipefail
build=$1
emulate=$2
examples=$(cd "$(dirname "$0")/../../examples" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
test -f "$prefix/include/orb_device/orb_error_codes.h"
test -f "$prefix/include/orb_device/orb_stream.h"
test -f "$prefix/include/orb_device/orb_colour.h"
test -f "$prefix/include/orb_device/orb_spectrum.h"
test -f "$prefix/include/orb_device/utils/orb_utils_interface.h"
libdir=$(dirname "$(find "$prefix" -name liborb_device.so | head -n1)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir

# The C headers a host sees compile as C99.
printf '#include <lusb.h>\n#include <orb_device_api.h>\n#include <orb_error_codes.h>\n#include <orb_stream.h>\nint main(void) { return 0; }\n' |
  cc -std=c99 -Wall -Wextra -Werror -x c - -o "$work/headers" $(pkg-config --cflags --libs orb_device)
printf '#include <orb_colour.h>\nint main(void) { return orb_colour_compute(0, 0, 0, 0, 0) == ORB_COLOUR_ERR_NULL ? 0 : 1; }\n' |
  cc -std=c99 -Wall -Wextra -Werror -x c - -o "$work/colour_header" $(pkg-config --cflags --libs orb_spectrum)
"$work/colour_header"
printf '#include <orb_spectrum.h>\nint main(void) { return orb_spectrum_apply(0, 0, 0, 1.0, 0) == ORB_SPECTRUM_ERR_INVALID ? 0 : 1; }\n' |
  cc -std=c99 -Wall -Wextra -Werror -x c - -o "$work/spectrum_header" $(pkg-config --cflags --libs orb_spectrum)
"$work/spectrum_header"

cp -r "$examples/c_host" "$examples/c_stream_host" "$examples/cpp_host" "$examples/colour_host" \
  "$examples/spectrum_host" "$work/"
make -s -C "$work/c_host" CFLAGS="-Wall -Wextra -Werror" >/dev/null
make -s -C "$work/colour_host" CFLAGS="-Wall -Wextra -Werror" >/dev/null
make -s -C "$work/spectrum_host" CFLAGS="-Wall -Wextra -Werror" >/dev/null
make -s -C "$work/c_stream_host" CFLAGS="-Wall -Wextra -Werror" >/dev/null
cmake -S "$work/cpp_host" -B "$work/cpp_host/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cpp_host/build" >/dev/null

out=$("$emulate" --sensors 1 --frames constant=300 -- "$work/c_host/orb_c_host")
grep -qxF 'filter data, 10 frames averaged: min 300.00, mean 300.00, max 300.00' <<<"$out" ||
  { echo "C host: $out"; exit 1; }
out=$("$emulate" --sensors 1 --frames constant=300 -- "$work/cpp_host/build/orb_cpp_host")
grep -qxF 'sensor 0 C1234-7-20-33-1: shutter speed 200 (18 ms), 10 frames averaged: min 300.00, mean 300.00, max 300.00' <<<"$out" ||
  { echo "C++ host: $out"; exit 1; }

out=$("$emulate" --sensors 1 --timing fast --frame-period-us 2000 -- "$work/c_stream_host/orb_c_stream_host" 0.5)
grep -q '^frames: [0-9]*, rate: .* frames/s, lost: 0, missed: [0-9]*$' <<<"$out" || { echo "C stream host: $out"; exit 1; }

# The colour host needs no sensor: CIE illuminant A (a Planckian radiator at
# 2856 K) from colord-data, as a CSV file with a header and a comment.
{ echo '# CIE illuminant A'; echo 'wavelength_nm,value'
  sed -n '/^BEGIN_DATA$/,/^END_DATA$/p' /usr/share/colord/illuminant/CIE-A.sp | sed '1d;$d' |
    tr -s ' \t' '\n\n' | awk 'NF { printf "%d,%s\n", 300 + n++, $1 }'; } >"$work/a.csv"
out=$("$work/colour_host/orb_colour_host" "$work/a.csv")
grep -qxF 'CCT 2856 K' <<<"$out" && grep -qxF 'x 0.44757' <<<"$out" || { echo "colour host: $out"; exit 1; }

# The spectrum host needs no sensor either: a calibration of a synthetic unit
# (Gaussian filters of the tests' own, written by the installed package) and
# that unit's frame of a narrow line at 612.3 nm with 100 counts of dark.
PYTHONPATH="$prefix/lib/python3/dist-packages:$(dirname "$0")/../../python/tests" \
  ORB_SPECTRUM_LIBRARY="$libdir/liborb_spectrum.so.1" /usr/bin/python3 -m synthetic_calibration \
  "$work/unit.h5" C1234-7-20-33-1 --frame "$work/line.txt" --line 612.3 --exposure-ms 10
printf '100\n%.0s' $(seq 1024) >"$work/dark.txt"
out=$("$work/spectrum_host/orb_spectrum_host" "$work/unit.h5" "$work/line.txt" 10 "$work/dark.txt")
grep -qxF 'wavelength_nm,value' <<<"$out" && [ "$(grep -c '^[0-9.]*,' <<<"$out")" = 381 ] ||
  { echo "spectrum host: $(head -3 <<<"$out")"; exit 1; }
peak=$(grep -m1 '^# peak ' <<<"$out" | awk '{print $3}')
awk -v p="$peak" 'BEGIN { exit !(p > 611.8 && p < 612.8) }' || { echo "spectrum host peak: $peak"; exit 1; }

# The installed launcher and tool work without the source tree: the tool
# finds the launcher beside itself, the launcher its access library in lib/.
"$prefix/bin/orb-emulate" --help | grep -q '^usage: orb-emulate'
out=$(env -u ORB_EMULATE -u ORB_DEVICE_LIBRARY "$prefix/bin/orb-sensor" --emulate 2 list)
[ "$out" = "$(printf '0 C1234-7-20-33-1\n1 C1234-7-21-33-1')" ] || { echo "orb-sensor --emulate: $out"; exit 1; }
out=$("$prefix/bin/orb-emulate" --sensors 1 -- sh -c \
  '"$0/bin/orb-emulate" ctl fault 0 refuse-open >/dev/null; "$0/bin/orb-sensor" list; echo "status $?"' "$prefix")
grep -qx 'status 1' <<<"$out" || { echo "a refused sensor was opened: $out"; exit 1; }
# The installed Tango server finds the installed package.
"$prefix/bin/orb-tango" --help 2>&1 | grep -q '^usage: orb-tango INSTANCE' || { echo "orb-tango --help failed"; exit 1; }

# The streaming calls and the 0.1-style calls have C linkage, except the two
# writers of the latter, whose symbols
# carry their signatures.
syms=$(nm -D --defined-only "$libdir/liborb_device.so" | awk '{print $3}')
for plain in orb_stream_start orb_stream_read orb_stream_stop orb_single_shot orb_sensor_present orb_stream_auto_expose \
             usb_init usb_control_msg usb_bulk_read usb_interrupt_read usb_open usb_find_busses; do
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
colour_syms=$(nm -D --defined-only "$libdir/liborb_spectrum.so" | awk '{print $3}')
for plain in orb_colour_create orb_colour_destroy orb_colour_compute orb_colour_cct orb_colour_result_text; do
  grep -qx "$plain" <<<"$colour_syms" || { echo "missing C symbol $plain"; exit 1; }
done
if grep -q orbspectrum <<<"$colour_syms"; then echo "internal colour symbol exported"; exit 1; fi
echo "installed tree OK"
