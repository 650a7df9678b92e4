#!/usr/bin/env bash
# Replays one session with the Linux tool against the core and with tabforge.exe under Wine
# against the registered Tabforge.dll, and compares the transcripts byte for byte (line ends
# aside: the Windows program writes CRLF). Prints the difference on a mismatch.
#
#   compare-transcripts.sh <linux-tabforge> <win64-build-dir> <tabforge.exe> [SESSION]
#
# The Windows build has no accessibility trees, so activateMorvelinTab lines are left out of
# the compared session; the Windows program must refuse such a line with exit status 2.
set -euo pipefail
if [ $# -lt 3 ]; then
    echo "usage: $0 <linux-tabforge> <win64-build-dir> <tabforge.exe> [SESSION]" >&2
    exit 2
fi
repo=$(cd "$(dirname "$0")/.." && pwd)
host_tool=$1
build_dir=$(cd "$2" && pwd)
exe=$3
session=${4:-$repo/examples/typical-day.session}
work="$build_dir/transcripts"
mkdir -p "$work"

grep -v '^activateMorvelinTab' "$session" > "$work/session.txt"
icons="$repo/icons"
wine_icons="Z:${icons//\//\\}"

"$host_tool" session --icons "$icons" "$work/session.txt" > "$work/linux.txt"
"$repo/scripts/run-under-wine.sh" "$build_dir" "$exe" session --icons "$wine_icons" \
    "$work/session.txt" > "$work/wine-crlf.txt"
tr -d '\r' < "$work/wine-crlf.txt" > "$work/wine.txt"

status=0
if ! diff -u --label linux "$work/linux.txt" --label wine "$work/wine.txt"; then
    echo "compare-transcripts: the transcripts differ" >&2
    status=1
fi
if [ ! -s "$work/linux.txt" ]; then
    echo "compare-transcripts: the Linux transcript is empty" >&2
    status=1
fi

printf 'Initialize Morvelin\nactivateMorvelinTab %s\n' "$repo/examples/ribbon.tree" \
    > "$work/activate.txt"
set +e
"$repo/scripts/run-under-wine.sh" "$build_dir" "$exe" session "$work/activate.txt" \
    > "$work/activate-out.txt" 2> "$work/activate-err.txt"
rc=$?
set -e
if [ $rc -ne 2 ] || ! grep -q 'line 2: activateMorvelinTab' "$work/activate-err.txt"; then
    echo "compare-transcripts: activateMorvelinTab under Wine gave status $rc:" >&2
    cat "$work/activate-err.txt" >&2
    status=1
fi
[ $status -eq 0 ] && echo "compare-transcripts: $(wc -l < "$work/linux.txt") lines alike"
exit $status
