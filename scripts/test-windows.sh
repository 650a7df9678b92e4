#!/usr/bin/env bash
# Builds Tabforge.dll and tabforge.exe for 32-bit (the shipping target) and 64-bit Windows and
# tests each under Wine: check_pe.py (machine, the four exports, resources, version record,
# system-only imports); registration with the regsvr32 of the DLL's bitness; the GoogleTest clients
# (every binding form, and a host's life: failing calls, apartments on threads, unload and reload, a
# process that ends with a live instance); the VBScript suite; tabforge.exe's transcripts beside
# the Linux tool's; unregistration, checked gone; the late-binding benchmark, which writes
# build/win32/bench-wine.txt and build/win64/bench-wine.txt; the cold-start benchmark, which
# writes cold-start-wine.txt beside them; and the failure-path benchmark (failure-path-wine.txt).
# Wine runs in a private prefix under each build folder with its heap checks on, every program
# under `timeout`, and the prefix's wineserver is stopped on exit (scripts/run-under-wine.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-windows-deps.sh

echo "== linux tabforge (the other side of the transcript comparison)"
cmake --preset linux >/dev/null
cmake --build --preset linux --target tabforge

# The 32-bit DLL is the one that ships: every Wine test runs against it as well as against the
# 64-bit one, each in a prefix of its own, with the system programs of its own bitness.
for preset in win32 win64; do
    echo "== $preset"
    cmake --preset $preset -DTABFORGE_HOST_TOOL="$PWD/build/linux/tools/tabforge" >/dev/null
    cmake --build --preset $preset
    ctest --preset $preset
done

# One late-bound call on Tabforge.Main2 beside one on Wine's Scripting.Dictionary, and the cold
# start beside its floor, for each DLL. The numbers are reported, not judged: only a failed call
# fails the run.
bench_status=0
for preset in win32 win64; do
    echo "== late-binding benchmark under Wine ($preset)"
    bits=${preset#win}
    if [ "$bits" = 32 ] && ! /usr/lib/wine/wine --version >/dev/null 2>&1; then
        echo "SKIPPED: this machine's kernel cannot run 32-bit programs (late-binding,"
        echo "cold-start and failure-path benchmarks, 32-bit)"
        continue
    fi
    run_wine=(scripts/run-under-wine.sh --bits "$bits" "build/$preset")
    dll="$PWD/build/$preset/server/Tabforge.dll"
    "${run_wine[@]}" regsvr32 /s "$dll"
    set +e
    "${run_wine[@]}" "$PWD/build/$preset/server/late_binding_bench.exe" | tr -d '\r' \
        | tee "build/$preset/bench-wine.txt"
    status=${PIPESTATUS[0]}
    set -e
    [ "$status" -eq 0 ] || bench_status=$status
    # The cold start: every start a fresh process, Tabforge's and the floor's taking turns.
    echo "== cold-start benchmark under Wine ($preset)"
    set +e
    "${run_wine[@]}" "$PWD/build/$preset/server/cold_start_bench.exe" "$PWD/icons" 15 \
        | tr -d '\r' | tee "build/$preset/cold-start-wine.txt"
    status=${PIPESTATUS[0]}
    set -e
    [ "$status" -eq 0 ] || bench_status=$status
    # The failing call's time with the error components that keep the failure path busiest; a
    # call past the budget's calls on the component, or a dump left open, fails the run.
    echo "== failure-path benchmark under Wine ($preset)"
    set +e
    "${run_wine[@]}" "$PWD/build/$preset/server/failure_path_bench.exe" | tr -d '\r' \
        | tee "build/$preset/failure-path-wine.txt"
    status=${PIPESTATUS[0]}
    set -e
    [ "$status" -eq 0 ] || bench_status=$status
    "${run_wine[@]}" regsvr32 /u /s "$dll"
done
exit "$bench_status"
