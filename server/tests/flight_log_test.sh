#!/usr/bin/env bash
# The flight log under Wine, through tabforge.exe driving the registered Tabforge.dll: a start's
# lines in order, failures with and without the error component, the user's switch and the
# machine's policy over it, a full megabyte, two processes writing at once, and a folder that
# cannot be written.
#
#   flight_log_test.sh BITS WORK-DIR TABFORGE.EXE TABFORGE.DLL
set -euo pipefail
bits=$1 work=$2 tool=$3 dll=$4
here=$(cd "$(dirname "$0")" && pwd)
. "$here/registered_prefix.sh" "$bits" "$work" "$dll"

start=$work/start.session
printf 'Initialize Morvelin\nGetRibbonXML\nribbon\nGetEnabled MVN16\nLoadImage 5\n' > "$start"
bad=$work/bad.session
printf 'Initialize Morvelin\nGetLabel MVN9x\n' > "$bad"

log=$logs/tabforge.log
session() { "${run[@]}" "$tool" session "$@" 2>&1 | tr -d '\r'; }
events() { tr -d '\r' < "$log" | cut -d' ' -f4 | xargs; }
line_ok='^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}Z [0-9]+ [0-9]+ [a-z0-9-]+( [a-z_]+=([^ "]+|"([^"\\]|\\.)*"))*$'
all_lines_ok() { ! tr -d '\r' < "$1" | grep -Evq "$line_ok"; }

name=start
rm -rf "$logs"
session "$start" >/dev/null
want="loaded main2-created initialize get-ribbon-xml ribbon-handed-over first-callback first-picture"
[ -f "$log" ] || fail "no log at $log"
[ -f "$log" ] && [ "$(events)" = "$want" ] || fail "events '$( [ -f "$log" ] && events)', expected '$want'"
[ -f "$log" ] && grep -qF ' loaded path="C:\\tabforge\\Tabforge.dll" version=' "$log" &&
    grep -q " bits=$bits host=" "$log" || fail "loaded line: $(head -1 "$log" 2>/dev/null)"
[ -f "$log" ] && [ "$(grep -c ' ms=[0-9]*' "$log")" = 6 ] || fail "steps without ms="
[ "$failed" = 0 ] && ok

# The doctor reads the log: a start that never asked for the document is named, and the last start
# of another process is shown step by step; the doctor's own creation is not the start it judges.
name=doctor
before=$failed
rm -rf "$logs"
printf 'Initialize Morvelin\n' > "$work/no-document.session"
session "$work/no-document.session" >/dev/null
found=$("${run[@]}" "$tool" doctor --json 2>&1 | tr -d '\r' || true)
grep -q '"check": "log-document", "status": "problem"' <<< "$found" ||
    fail "no log-document problem: $(grep log- <<< "$found")"
grep -q '"check": "log-last-start", "status": "ok", "detail": "[^"]*: main2-created at' <<< "$found" ||
    fail "no last start: $(grep log- <<< "$found")"
session "$start" >/dev/null
found=$("${run[@]}" "$tool" doctor --json 2>&1 | tr -d '\r' || true)
grep -q '"check": "log-document", "status": "ok"' <<< "$found" ||
    fail "the full start's document: $(grep log- <<< "$found")"
[ "$failed" = "$before" ] && ok

name=failures
before=$failed
rm -rf "$logs"
session "$bad" >/dev/null
session --errors --answers 7 "$bad" >/dev/null
got=$(grep ' failure ' "$log" | tr -d '\r' | sed 's/^[^ ]* [^ ]* [^ ]* //' || true)
want='failure procedure=Main2.convertToId line=2002 number=13 description="Type mismatch" outcome=no-component
failure procedure=Main2.convertToId line=2002 number=13 description="Type mismatch" outcome=answered answer=7'
[ "$got" = "$want" ] || fail "got: $got"
[ "$failed" = "$before" ] && ok

name=switch
before=$failed
rm -rf "$logs"
"${run[@]}" "$tool" log off | tr -d '\r' | grep -q '^log off' || fail "log off"
session "$start" >/dev/null
[ ! -s "$log" ] || fail "written while off: $(cat "$log")"
"${run[@]}" "$tool" log on | tr -d '\r' | grep -q '^log on' || fail "log on"
session "$start" >/dev/null
shown=$("${run[@]}" "$tool" log show | tr -d '\r')
grep -q '^  first-picture at [0-9]* ms$' <<< "$shown" || fail "show: $shown"
grep -q '^ok *document: ' <<< "$shown" && grep -q '^ok *start-time: the start took' <<< "$shown" ||
    fail "show's verdict: $shown"
[ "$failed" = "$before" ] && ok

name=machine-policy
before=$failed
rm -rf "$logs"
"${run[@]}" reg add 'HKLM\Software\Policies\Tabforge\Log' /v Enabled /t REG_DWORD /d 0 /f /reg:64 \
    >/dev/null
"${run[@]}" "$tool" log on | tr -d '\r' | grep -q '^log off: the machine.s policy is off, the user.s switch is on' ||
    fail "the user's switch decided over the machine's"
session "$start" >/dev/null
[ ! -s "$log" ] || fail "written against the machine's policy: $(cat "$log")"
"${run[@]}" reg delete 'HKLM\Software\Policies\Tabforge\Log' /f /reg:64 >/dev/null
[ "$failed" = "$before" ] && ok

name=megabyte
before=$failed
rm -rf "$logs" && mkdir -p "$logs"
python3 -c "
import sys
line = '2026-11-25T00:00:00.000Z 1 1 filler text=' + 'x' * 80 + '\n'
sys.stdout.write(line * ((1048576 - 40) // len(line)))" > "$log"
session "$start" >/dev/null
[ -f "$log.1" ] || fail "no older file"
for f in "$log" "$log.1"; do
    [ -f "$f" ] && [ "$(stat -c %s "$f")" -le 1048576 ] || fail "$f over 1 MB"
done
[ "$(events | cut -d' ' -f1)" = loaded ] || fail "the new file does not start with the start"
[ "$failed" = "$before" ] && ok

name=two-processes
before=$failed
rm -rf "$logs"
printf 'Initialize Morvelin\n' > "$work/many.session"
for _ in 1 2 3 4 5 6; do printf 'GetLabel MVN9x\n' >> "$work/many.session"; done
# Side by side in one prefix: neither run may stop the prefix's server while the other runs.
WINE_KEEP_SERVER=1 session "$work/many.session" > "$work/one.out" &
WINE_KEEP_SERVER=1 session --errors "$work/many.session" > "$work/two.out" &
wait
all_lines_ok "$log" || fail "a mixed or broken line: $(tr -d '\r' < "$log" | grep -Ev "$line_ok" | head -3)"
[ "$(grep -c ' loaded ' "$log")" = 2 ] || fail "loaded lines: $(grep -c ' loaded ' "$log")"
[ "$(grep -c ' failure ' "$log")" = 12 ] || fail "failure lines: $(grep -c ' failure ' "$log")"
[ "$failed" = "$before" ] && ok

name=unwritable
before=$failed
rm -rf "$logs" && mkdir -p "$(dirname "$logs")" && echo "a file, not a folder" > "$logs"
session --errors "$bad" > "$work/unwritable.out" || fail "the session failed"
grep -q '= "Apply Morvelin"' "$work/unwritable.out" || fail "transcript: $(cat "$work/unwritable.out")"
[ "$(cat "$logs")" = "a file, not a folder" ] || fail "the file was touched"
rm -f "$logs"
[ "$failed" = "$before" ] && ok

echo "$failed failed"
[ "$failed" = 0 ]
