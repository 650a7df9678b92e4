#!/usr/bin/env bash
# Session recordings under Wine, through tabforge.exe driving the registered Tabforge.dll, replayed
# by the Linux tool against the core: a hostile session (failures answered with dumps, a failing
# macro, missing icons, a tree to search) must replay line for line; the switch, the time, the
# number of files kept and the megabyte bound hold.
#
#   recording_test.sh BITS WORK-DIR TABFORGE.EXE TABFORGE.DLL LINUX-TABFORGE
set -euo pipefail
bits=$1 work=$2 tool=$3 dll=$4 host_tool=$5
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
. "$here/registered_prefix.sh" "$bits" "$work" "$dll"

recordings() { find "$logs" -maxdepth 1 -name 'recording-*.session' 2>/dev/null | sort; }
wine_path() { printf 'Z:%s' "${1//\//\\}"; }
session() { "${run[@]}" "$tool" session "$@" 2>&1 | tr -d '\r'; }

# A hostile session: a bad id answered with a dump, then on at the next statement; a macro that
# fails, ignored for good; pictures with and without icons; a picture past the table; the tab
# searched in a tree whose elements fail and lie about their children.
hostile=$work/hostile.session
{
    printf 'Initialize Morvelin\nribbon\nGetRibbonXML\nGetLabel MVN9x\n'
    printf 'RibbonCallback MVN5\nRibbonCallback MVN5\nEnableGotoQuickBookmark true\n'
    printf 'UpdateLexoscopeIcon true\nGetPressed MVN16\nLoadImage 5\nGetImage MVN0\nLoadImage 99\n'
    printf 'activateMorvelinTab %s\n' "$(wine_path "$work/hostile.tree")"
    printf 'productNameChanged "Lexo" name\nGetLabel MVN1\n'
} > "$hostile"
cat > "$work/hostile.tree" <<'TREE'
22 "Ribbon"
  38 "Ribbon" count=4
    60 "Ribbon Tabs" fail=accName
    60 "Ribbon Tabs"
      10 ""
        37 "Home" state=0x2
        37 "Morvelin" simple
        37 "Morvelin"
TREE

name=hostile
rm -rf "$logs"
"${run[@]}" "$tool" record on --minutes 5 | tr -d '\r' | grep -q '^recording: on until' ||
    fail "record on"
session --icons "$(wine_path "$repo/icons")" --errors --answers 8,5,6 \
    --failing-macros InsertReference "$hostile" > "$work/hostile-wine.txt"
mapfile -t made < <(recordings)
if [ "${#made[@]}" != 1 ]; then
    fail "${#made[@]} recordings, expected 1"
else
    tr -d '\r' < "${made[0]}" > "$work/hostile.recording"
    head -1 "$work/hostile.recording" | grep -q "^# tabforge recording: Tabforge .* ($bits-bit) in tabforge.exe" ||
        fail "header: $(head -1 "$work/hostile.recording")"
    for want in '^#> error.vbwOpenDumpFile' '^#> signaller.Run ref str "InsertReference" => failure' \
        '^#> accessibility.AccessibleChildren obj bar' '^#> signaller.getToolbarIconBits ref i2 303 => bytes 0 ' \
        '^activateMorvelinTab$' '^productNameChanged "\\"Lexo\\" name"$'; do
        grep -q "$want" "$work/hostile.recording" || fail "no line $want"
    done
    if ! "$host_tool" session --replay "$work/hostile.recording" > "$work/hostile-replay.txt" \
        2> "$work/hostile-replay.err"; then
        fail "the replay parts: $(cat "$work/hostile-replay.err")"
    fi
    diff <(grep -v '^# ' "$work/hostile.recording") "$work/hostile-replay.txt" > /dev/null ||
        fail "the replay's transcript differs from the recording"
fi
[ "$failed" = 0 ] && ok

# Off, and a time that is up: no new recording.
name=switch
before=$failed
rm -rf "$logs"
"${run[@]}" "$tool" record off | tr -d '\r' | grep -q '^recording: off' || fail "record off"
session "$hostile" > /dev/null
[ -z "$(recordings)" ] || fail "a recording after 'record off'"
"${run[@]}" reg add 'HKCU\Software\Tabforge\Log' /v RecordUntil /t REG_QWORD /d 1 /f > /dev/null
session "$hostile" > /dev/null
[ -z "$(recordings)" ] || fail "a recording after its time"
[ "$failed" = "$before" ] && ok

# Each start a file of its own, the newest five kept; none beyond the megabyte.
name=bounds
before=$failed
rm -rf "$logs"
"${run[@]}" "$tool" record on > /dev/null
small=$work/small.session
printf 'Initialize Morvelin\nGetLabel MVN0\n' > "$small"
big=$work/big.session
{ printf 'Initialize Morvelin\n'; for _ in $(seq 300); do printf 'GetRibbonXML\n'; done; } > "$big"
for next in "$small" "$small" "$small" "$small" "$small" "$big"; do
    sleep 1  # the names hold the start's second
    session "$next" > /dev/null
done
mapfile -t made < <(recordings)
[ "${#made[@]}" = 5 ] || fail "${#made[@]} recordings kept, expected 5"
grep -q '^GetLabel MVN0' "${made[0]}" || fail "the oldest kept is not the second small one"
newest=${made[${#made[@]}-1]}
size=$(stat -c %s "$newest")
[ "$size" -le 1048576 ] || fail "$(basename "$newest") holds $size bytes"
tail -1 "$newest" | tr -d '\r' | grep -q '^# recording ends: it reached 1048576 bytes$' ||
    fail "$(basename "$newest") ends with: $(tail -1 "$newest")"
"${run[@]}" "$tool" record off > /dev/null
[ "$failed" = "$before" ] && ok

echo "$((3 - failed < 0 ? 0 : 3)) cases, $failed failed"
[ "$failed" = 0 ]
