#!/usr/bin/env bash
# Mutation check: applies each one-line change of scripts/mutations.txt in turn
# to a scratch copy of the tree, rebuilds incrementally, runs the fast tests
# until the first failure and prints whether the change was KILLED (a test
# failed or timed out) or SURVIVED. The work tree itself is never changed.
#
#   scripts/mutate.sh [FILE-SUBSTRING]   only the changes to matching files
#
# Scratch tree and build: build-mutate/ (ORB_MUTATE_DIR), a copy of the files
# git knows. The test binaries are not relinked when only the library changes.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
work=${ORB_MUTATE_DIR:-$top/build-mutate}
tree=$work/tree
bld=$work/build
list=$top/scripts/mutations.txt
only=${1:-}
jobs=${ORB_MUTATE_JOBS:-2}
per_test_timeout=${ORB_MUTATE_TIMEOUT:-30}
fast='^(InstalledTree|Python|Soak|Bench)'

mkdir -p "$work"
# Only files whose content differs are copied, so only they are rebuilt.
(cd "$top" && git ls-files -co --exclude-standard) | while IFS= read -r f; do
  [ -f "$top/$f" ] || continue
  cmp -s "$top/$f" "$tree/$f" 2>/dev/null || { mkdir -p "$(dirname "$tree/$f")"; cp "$top/$f" "$tree/$f"; }
done
cmake -S "$tree" -B "$bld" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORB_BUILD_BENCH=OFF \
  -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >/dev/null

build() { cmake --build "$bld" -j"$jobs" >"$work/build.log" 2>&1; }
tests() {
  ctest --test-dir "$bld" -j"$jobs" -E "$fast" --timeout "$per_test_timeout" --stop-on-failure \
    >"$work/test.log" 2>&1
}

echo "building the unchanged tree in $bld"
build || { tail -30 "$work/build.log"; exit 1; }
tests || { echo "the unchanged tree fails its tests:"; tail -30 "$work/test.log"; exit 1; }

# mutations.txt: "@ FILE" names the file for the changes below it; a change is
# a "- TEXT" line and a "+ TEXT" line: TEXT is replaced in the one line of
# FILE that holds it ("-N TEXT": in the N-th such line). An empty "+" removes
# TEXT. Lines starting with # are comments.
# apply.py FILE NTH SEARCH REPLACE: prints the line number changed.
apply=$work/apply.py
cat >"$apply" <<'EOF'
import sys
path, nth, search, replace = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4]
lines = open(path).read().split('\n')
hits = [i for i, l in enumerate(lines) if search in l]
if (nth == 0 and len(hits) != 1) or (nth > 0 and len(hits) < nth):
    sys.exit(f"{len(hits)} lines hold the text")
i = hits[max(nth, 1) - 1]
lines[i] = lines[i].replace(search, replace, 1)
open(path, 'w').write('\n'.join(lines))
print(i + 1)
EOF

current=""
restore() { if [ -n "$current" ]; then cp "$top/$current" "$tree/$current"; current=""; fi; }
trap 'restore' EXIT
trap 'restore; exit 130' INT TERM

total=0 killed=0 survived=0 invalid=0
survivors=()
file="" search="" nth=0
while IFS= read -r line || [ -n "$line" ]; do
  case $line in
    '#'* | '') continue ;;
    '@ '*) file=${line#@ }; continue ;;
    -*)
      head=${line%% *}; search=${line#"$head" }; nth=${head#-}; nth=${nth:-0}
      [ "$line" = "$head" ] && search=""
      continue ;;
    '+'*) replace=${line#+}; replace=${replace# } ;;
    *) echo "mutations.txt: cannot read: $line" >&2; exit 2 ;;
  esac
  [ -n "$only" ] && [[ $file != *"$only"* ]] && continue
  current=$file
  where=$(python3 "$apply" "$tree/$file" "$nth" "$search" "$replace" 2>&1) || {
    echo "INVALID   $file: $search ($where)"; invalid=$((invalid + 1)); restore; continue; }
  label="$file:$where: $search => $replace"
  t0=$SECONDS
  if ! build; then
    echo "NO-BUILD  $label"; invalid=$((invalid + 1))
  else
    total=$((total + 1))
    if tests; then
      survived=$((survived + 1)); survivors+=("$label")
      echo "SURVIVED  $label ($((SECONDS - t0)) s)"
    else
      killed=$((killed + 1))
      failed=$(grep -m1 -E '\*\*\*|Failed|Timeout' "$work/test.log" | sed -nE 's/.*Test +#[0-9]+: ([^ ]+).*/\1/p' || true)
      echo "KILLED    $label ($((SECONDS - t0)) s, ${failed:-?})"
    fi
  fi
  restore
done <"$list"

echo
echo "killed $killed of $total ($(( total ? killed * 100 / total : 0 ))%), invalid $invalid"
for s in "${survivors[@]}"; do echo "  survivor: $s"; done
# The scratch tree is left as it was copied; rebuild it once more so that the
# next run starts from the unchanged library.
build || true
