#!/usr/bin/env bash
# Builds Tabforge.dll for 32-bit (the shipping target) and 64-bit Windows and tests it: both DLLs
# are checked by check_pe.py (machine, the four exports, resources, version record, system-only
# imports); the 64-bit one is registered, driven by a GoogleTest client and a VBScript under Wine,
# unregistered, and checked gone. Wine runs in a private prefix under build/win64, every program
# under `timeout`, and the prefix's wineserver is stopped on exit (scripts/run-under-wine.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-windows-deps.sh

echo "== win32"
cmake --preset win32 >/dev/null
cmake --build --preset win32
python3 tools/check_pe.py build/win32/server/Tabforge.dll --arch i686

echo "== win64"
cmake --preset win64 >/dev/null
cmake --build --preset win64
ctest --preset win64
