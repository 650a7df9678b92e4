# Sourced by the Wine tests that drive the registered DLL through tabforge.exe in a prefix of their
# own: boots the prefix, copies the DLL to C:\tabforge\Tabforge.dll and registers it there, and
# gives `run` (run-under-wine.sh for the bitness and prefix), `prefix`, the user's `logs` folder
# and the case counters `fail` and `ok` (the running case's name is `name`).
#
#   . registered_prefix.sh BITS WORK-DIR TABFORGE.DLL
run=("$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/scripts/run-under-wine.sh" --bits "$1" "$2")
prefix=$2/wineprefix
"${run[@]}" reg query 'HKLM\Software' >/dev/null  # boots the prefix on first use
rm -rf "$prefix/drive_c/tabforge" && mkdir -p "$prefix/drive_c/tabforge"
cp "$3" "$prefix/drive_c/tabforge/Tabforge.dll"
"${run[@]}" regsvr32 /s 'C:\tabforge\Tabforge.dll'

# Wine gives each user a local application data folder; the log and the recordings live below it.
logs=$(find "$prefix/drive_c/users" -maxdepth 3 -type d -path '*/AppData/Local' | head -1)/Tabforge/Logs

failed=0
fail() { echo "FAIL $name: $*"; failed=$((failed + 1)); }
ok() { echo "ok $name"; }
