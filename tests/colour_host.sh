#!/usr/bin/env bash
# examples/colour_host end to end: a CSV spectrum in, the colorimetry out;
# its exit status and message for a bad line, a spectrum short of the
# visible range, and CIE tables that are not there.
#   colour_host.sh <orb_colour_host>
set -euo pipefail
host=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# CIE illuminant F11 from colord-data, 380 to 780 nm at 5 nm, with a comment,
# a header and a blank line.
{ echo '# CIE F11, from colord-data'; echo 'wavelength_nm,value'; echo
  sed -n '/^BEGIN_DATA$/,/^END_DATA$/p' /usr/share/colord/illuminant/CIE-F11.sp | sed '1d;$d' |
    tr -s ' \t' '\n\n' | awk 'NF { printf "%d, %s\n", 380 + 5 * n++, $1 }'; } >"$work/f11.csv"
out=$("$host" "$work/f11.csv")
# CIE 15: 4000 K, Ra 83.
for line in 'CCT 3999 K' 'Ra 82.7'; do
  grep -qxF "$line" <<<"$out" || { printf '%s\nmissing: %s\n' "$out" "$line"; exit 1; }
done
grep -q '^R \(-\?[0-9.]* \)\{13\}-\?[0-9.]*$' <<<"$out" || { echo "no R1..R14: $out"; exit 1; }

status() { set +e; "$@" >"$work/out" 2>"$work/err"; echo $?; set -e; }

sed '5s/.*/400;1.0/' "$work/f11.csv" >"$work/bad.csv"
[ "$(status "$host" "$work/bad.csv")" = 1 ] && grep -q "bad.csv:5: not wavelength_nm,value" "$work/err" ||
  { echo "bad line: $(cat "$work/err")"; exit 1; }
grep -v '^780,' "$work/f11.csv" >"$work/short.csv"
[ "$(status "$host" "$work/short.csv")" = 4 ] && grep -q "do not cover 380 to 780 nm" "$work/err" ||
  { echo "short spectrum: $(cat "$work/err")"; exit 1; }
[ "$(status env ORB_COLORD_DIR="$work/none" "$host" "$work/f11.csv")" = 3 ] &&
  grep -q "$work/none/cmf/CIE1931-2deg-XYZ.cmf.*colord-data" "$work/err" ||
  { echo "no tables: $(cat "$work/err")"; exit 1; }
[ "$(status "$host")" = 2 ] || { echo "no argument accepted"; exit 1; }
[ "$(status "$host" "$work/nothing.csv")" = 1 ] || { echo "missing file accepted"; exit 1; }
echo "colour host OK"
