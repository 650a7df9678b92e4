#!/usr/bin/env bash
# Runs `tabforge doctor --json` under Wine against each broken machine of doctor_cases.txt, each
# from the same good machine (the prefix's registry is put back between cases), then runs the
# commands of its lines that start with "~" in turn: they switch the tracing request on and off.
#
#   doctor_test.sh BITS WORK-DIR TABFORGE.EXE TABFORGE.DLL CASES
set -euo pipefail
bits=$1 work=$2 tool=$3 dll=$4 cases=$5
run=("$(dirname "$0")/../../scripts/run-under-wine.sh" --bits "$bits" "$work")
prefix=$work/wineprefix
clsid='{CC663791-259D-4F14-9E50-74944FB9E5D1}' libid='{09A869B8-F509-4A14-A2EC-4AC3672E2B89}'
# A DLL of the other bitness: Wine's own build of a system library.
other=/usr/lib/i386-linux-gnu/wine/i386-windows/oleaut32.dll view=/reg:$bits
[ "$bits" = 32 ] && other=/usr/lib/x86_64-linux-gnu/wine/x86_64-windows/oleaut32.dll

"${run[@]}" reg query 'HKLM\Software' >/dev/null  # boots the prefix on first use
rm -rf "$prefix/drive_c/tabforge" && mkdir -p "$prefix/drive_c/tabforge/other" "$work/good"
cp "$dll" "$prefix/drive_c/tabforge/Tabforge.dll"
cp "$other" "$prefix/drive_c/tabforge/other/Tabforge.dll"
"${run[@]}" regsvr32 /s 'C:\tabforge\Tabforge.dll'
# The good machine has a Word of the DLL's bitness (Click-to-Run's configuration is all the doctor
# reads of it) and the add-in's template in the user's Startup folder, written by the tool.
platform=x64
[ "$bits" = 32 ] && platform=x86
"${run[@]}" reg add 'HKLM\Software\Microsoft\Office\ClickToRun\Configuration' /v Platform \
    /d "$platform" /f "$view" >/dev/null
startup="$("${run[@]}" cmd /c echo %APPDATA% | tr -d '\r')\\Microsoft\\Word\\STARTUP"
"${run[@]}" cmd /c mkdir "$startup" >/dev/null 2>&1 || true
"${run[@]}" "$tool" doctor --write-template "$startup\\Tabforge.dotm"
# The template's entry in Word's disabled items: a 32-bit type (1), the byte lengths of the path
# and of the name, then both in UTF-16 with their zeros, the path lower-cased.
disabled=$(python3 -c '
import struct, sys
path = (sys.argv[1].lower() + "\0").encode("utf-16-le")
name = "Tabforge\0".encode("utf-16-le")
print((struct.pack("<III", 1, len(path), len(name)) + path + name).hex())' "$startup\\Tabforge.dotm")
cp "$prefix"/*.reg "$work/good/"

failed=0
fail() { echo "FAIL $name: $*"; failed=$((failed + 1)); }
dll_word="'C:\\tabforge\\Tabforge.dll'" other_word="'C:\\tabforge\\other\\Tabforge.dll'"
while IFS='|' read -r name status expected setup args; do
    name=$(echo $name) status=$(echo $status)
    [[ -z "$name" || "$name" == [\#~]* ]] && continue
    [[ "$name" != [0-9]*:* || "$name" == "$bits":* ]] || continue
    before=$failed
    cp "$work"/good/*.reg "$prefix/"
    rm -f "$prefix/drive_c/tabforge/moved.dll"
    cp "$dll" "$prefix/drive_c/tabforge/Tabforge.dll"
    setup=${setup//%CLSID%/$clsid} setup=${setup//%LIBID%/$libid} setup=${setup//%VIEW%/$view}
    setup=${setup//%DLL%/$dll_word} setup=${setup//%OTHER%/$other_word}
    setup=${setup//%TABFORGE%/$tool} setup=${setup//%DISABLED%/$disabled}
    while [ -n "${setup// /}" ]; do
        eval "command=(${setup%% & *})"
        # Wine's own reg and cmd now and then exit with a failure after doing what they were
        # asked (the CI saw a key deleted and the step failed): what the machine became is judged
        # by the case's expectations below, so their failure is said with what they printed. A
        # step of ours fails the case.
        if ! said=$("${run[@]}" "${command[@]}" 2>&1); then
            if [ "${command[0]}" = "$tool" ]; then
                fail "setup: ${command[*]}"
            else
                echo "note $name: setup step '${command[*]}' exited with a failure:"
                tr -d '\r' <<< "$said" | tail -5 | sed 's/^/    /'
            fi
        fi
        [[ "$setup" == *" & "* ]] && setup=${setup#* & } || setup=
    done
    code=0
    # shellcheck disable=SC2086
    "${run[@]}" "$tool" doctor --json $args > "$work/report.json" 2>&1 || code=$?
    report=$(tr -d '\r' < "$work/report.json")
    problems=$( (grep -o '"check": "[a-z-]*", "status": "problem"' <<< "$report" || true) |
        cut -d'"' -f4 | sort | xargs)
    want=$( (tr ' ' '\n' <<< "$expected" | grep -v '=' || true) | sort | xargs)
    [ "$problems" = "$want" ] || fail "problems '$problems', expected '$want'"
    for pair in $expected; do
        [[ "$pair" != *=* ]] || grep -q "\"check\": \"${pair%=*}\", \"status\": \"${pair#*=}\"" \
            <<< "$report" || fail "no $pair"
    done
    [ "$code" = "$status" ] || fail "exit $code, expected $status"
    if [ "$failed" = "$before" ]; then echo "ok $name"; else echo "$report"; fi
done < "$cases"

name=trace
cp "$work"/good/*.reg "$prefix/"
while IFS='|' read -r args status pattern; do
    code=0
    # shellcheck disable=SC2086
    out=$("${run[@]}" "$tool" $args 2>/dev/null) || code=$?
    [ "$code" = "${status// /}" ] || fail "$args: exit $code, expected $status"
    grep -q -- "${pattern# }" <<< "$out" || fail "$args: prints no '${pattern# }'"
done < <(sed -n 's/^~ //p' "$cases")
echo "$failed failed"
[ "$failed" = 0 ]
