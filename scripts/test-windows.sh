#!/usr/bin/env bash
# Builds Tabforge.dll for 32-bit (the shipping target) and 64-bit Windows and tests it: both DLLs
# are checked by check_pe.py (machine, the four exports, resources, version record, system-only
# imports); the 64-bit one is registered, driven by a GoogleTest client and a VBScript under Wine,
# unregistered, and checked gone. tabforge.exe replays a session through the registered server and
# must print what the Linux tool prints, and a late-binding benchmark writes
# build/win64/bench-wine.txt. Wine runs in a private prefix under build/win64, every program under
# `timeout`, and the prefix's wineserver is stopped on exit (scripts/run-under-wine.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-windows-deps.sh

echo "== win32"
cmake --preset win32 >/dev/null
cmake --build --preset win32
python3 tools/check_pe.py build/win32/server/Tabforge.dll --arch i686

echo "== linux tabforge (the other side of the transcript comparison)"
cmake --preset linux >/dev/null
cmake --build --preset linux --target tabforge

echo "== win64"
cmake --preset win64 -DTABFORGE_HOST_TOOL="$PWD/build/linux/tools/tabforge" >/dev/null
cmake --build --preset win64
ctest --preset win64

# One late-bound call on Tabforge.Main2 beside one on Wine's Scripting.Dictionary. The numbers are
# reported, not judged: only a failed call fails the run.
echo "== late-binding benchmark under Wine"
run_wine=(scripts/run-under-wine.sh build/win64)
"${run_wine[@]}" regsvr32 /s "$PWD/build/win64/server/Tabforge.dll"
set +e
"${run_wine[@]}" "$PWD/build/win64/server/late_binding_bench.exe" | tr -d '\r' \
    | tee build/win64/bench-wine.txt
bench_status=${PIPESTATUS[0]}
set -e
"${run_wine[@]}" regsvr32 /u /s "$PWD/build/win64/server/Tabforge.dll"
exit "$bench_status"
