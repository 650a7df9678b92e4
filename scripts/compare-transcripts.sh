#!/usr/bin/env bash
# Replays one session with the Linux tool against the core and with tabforge.exe under Wine
# against the registered Tabforge.dll, and compares the transcripts byte for byte (line ends
# aside: the Windows program writes CRLF). Prints the difference on a mismatch.
#
#   compare-transcripts.sh <linux-tabforge> <win64-build-dir> <tabforge.exe> [SESSION [ICONS
#                          [OPTION...]]]
#
# Tree files named by activateMorvelinTab lines, and ICONS (default icons/), are taken relative to
# the repository, as the main job runs; each program is given the full path in its own form. The
# OPTIONs (such as --errors --answers 8,5) go to both programs as they stand.
set -euo pipefail
if [ $# -lt 3 ]; then
    echo "usage: $0 <linux-tabforge> <win64-build-dir> <tabforge.exe> [SESSION [ICONS [OPTION...]]]" >&2
    exit 2
fi
repo=$(cd "$(dirname "$0")/.." && pwd)
host_tool=$1
build_dir=$(cd "$2" && pwd)
exe=$3
session=${4:-$repo/examples/typical-day.session}
icons=${5:-icons}
[[ $icons == /* ]] || icons="$repo/$icons"
shift $(( $# < 5 ? $# : 5 ))
options=("$@")
work="$build_dir/transcripts/$(basename "$session" .session)"
mkdir -p "$work"

# The session with each tree file's full path, as a Unix path or (with "wine") as a Wine path.
with_tree_paths() {
    local line path
    while IFS= read -r line || [ -n "$line" ]; do
        if [[ $line =~ ^activateMorvelinTab\ +(.*)$ ]]; then
            path=${BASH_REMATCH[1]}
            [[ $path == /* ]] || path="$repo/$path"
            [ "${1:-}" = wine ] && path="Z:${path//\//\\}"
            line="activateMorvelinTab $path"
        fi
        printf '%s\n' "$line"
    done < "$session"
}
with_tree_paths > "$work/session-linux.txt"
with_tree_paths wine > "$work/session-wine.txt"
wine_icons="Z:${icons//\//\\}"

"$host_tool" session --icons "$icons" "${options[@]}" "$work/session-linux.txt" > "$work/linux.txt"
"$repo/scripts/run-under-wine.sh" "$build_dir" "$exe" session --icons "$wine_icons" \
    "${options[@]}" "$work/session-wine.txt" > "$work/wine-crlf.txt"
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

if ! grep -q 'tree.accDoDefaultAction' "$work/wine.txt" && grep -q '^activateMorvelinTab' "$session"; then
    echo "compare-transcripts: no tab was pressed under Wine" >&2
    status=1
fi
[ $status -eq 0 ] && echo "compare-transcripts: $(wc -l < "$work/linux.txt") lines alike"
exit $status
