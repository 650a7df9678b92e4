#!/usr/bin/env bash
# Runs one Windows program under Wine in a private, throw-away prefix, with Wine's heap checks.
#
#   run-under-wine.sh [--bits 32|64] <build-dir> <program> [args...]
#
# <program> is a path to an .exe, or a program inside the prefix such as cscript, regsvr32 or reg.
# The prefix lives in <build-dir>/wineprefix and is created on first use. It is a 64-bit prefix;
# with 32-bit Wine installed it is a WoW64 one, like 64-bit Windows, so it runs programs of both
# bitnesses and keeps a 32-bit registry view beside the 64-bit one.
#
# Which loader runs the program: an .exe by its PE machine; a program of the prefix (cscript,
# regsvr32, reg) by --bits, default 64. The 32-bit loader starts the 32-bit system programs (from
# syswow64), the 64-bit loader the 64-bit ones; a 32-bit DLL needs the former, a 64-bit DLL the
# latter.
#
# Every run has WINEDEBUG=warn+heap,err+heap (and err+virtual, for stack overflows): a string or
# a block freed twice, or a pointer that is no block of the heap, makes Wine say so, and any such
# line fails the run, as does a crash. A double free in a host is a crash later and anywhere, so this is checked on every call of every
# test.
#
# Unix paths of existing files among the arguments are passed as Z:\... paths (Wine's cscript
# cannot open "/path/x.vbs" and exits 1 without a message). Wine's cscript exits 0 even when the
# script dies on an error, so for cscript the output must contain a line "N passed, 0 failed" or
# the run fails. The prefix's wineserver is always stopped when this script exits.
#
# Environment knobs:
#   WINE_RUN_TIMEOUT   seconds for the program (default 300)
#   WINE_BOOT_TIMEOUT  seconds for prefix creation (default 300)
#   WINE_KEEP_SERVER   1: leave the prefix's wineserver running, so that programs started side by
#                      side in one prefix do not end each other; the next run without it stops it
#
# A machine whose kernel runs no 32-bit programs (IA-32 emulation switched off, as on some virtual
# machines) cannot run 32-bit Wine at all: a 32-bit run then says so and exits 77, which CTest
# counts as skipped, never as passed.
set -euo pipefail

bits=64
if [ "${1:-}" = --bits ]; then
    bits=$2
    shift 2
fi
if [ $# -lt 2 ] || { [ "$bits" != 32 ] && [ "$bits" != 64 ]; }; then
    echo "usage: $0 [--bits 32|64] <build-dir> <program> [args...]" >&2
    exit 2
fi
build_dir=$(mkdir -p "$1" && cd "$1" && pwd)
shift

# Debian installs the loaders outside PATH; /usr/bin/wine is a wrapper that prefers 32-bit Wine.
WINE64=${WINE64:-/usr/lib/wine/wine64}
WINE32=${WINE32:-/usr/lib/wine/wine}
WINESERVER=${WINESERVER:-/usr/lib/wine/wineserver64}
[ -x "$WINE64" ] || WINE64=$(command -v wine64 || command -v wine)
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)

export WINEPREFIX="$build_dir/wineprefix"
export WINEARCH=win64
export WINEDEBUG=-all
# No Mono/Gecko install dialogs on first boot; no desktop window.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY
export HOME=${HOME:-/root}

stop_server() {
    [ "${WINE_KEEP_SERVER:-}" = 1 ] || WINEPREFIX="$WINEPREFIX" "$WINESERVER" -k 2>/dev/null || true
}
trap stop_server EXIT
trap 'exit 130' INT TERM

# Create the prefix once; a lock keeps parallel test runs from racing here.
exec 9>"$build_dir/.wineprefix.lock"
flock 9
if [ ! -f "$WINEPREFIX/system.reg" ] || [ ! -f "$WINEPREFIX/.tabforge-ready" ]; then
    rm -rf "$WINEPREFIX"
    start=$(date +%s)
    WINELOADER="$WINE64" timeout "${WINE_BOOT_TIMEOUT:-300}" "$WINE64" wineboot -i >/dev/null 2>&1 || {
        echo "run-under-wine: wineboot failed or timed out" >&2
        exit 1
    }
    # Wait until the registry is flushed to disk before using the prefix.
    timeout 60 "$WINESERVER" -w || true
    touch "$WINEPREFIX/.tabforge-ready"
    echo "run-under-wine: created $WINEPREFIX in $(( $(date +%s) - start ))s" >&2
fi
flock -u 9

program=$1
shift
if [ -f "$program" ]; then
    pe_off=$(od -An -tu4 -j60 -N4 "$program" | tr -d ' ')
    machine=$(od -An -tx2 -j$((pe_off + 4)) -N2 "$program" | tr -d ' ')
    case "$machine" in
        014c) bits=32 ;;
        8664) bits=64 ;;
        *) echo "run-under-wine: $program is no i386 or x86-64 program ($machine)" >&2; exit 1 ;;
    esac
fi
loader=$WINE64
if [ "$bits" = 32 ]; then
    loader=$WINE32
    if [ ! -x "$loader" ]; then
        echo "run-under-wine: 32-bit Wine ($loader) is not installed" >&2
        exit 1
    fi
    if ! "$loader" --version >/dev/null 2>&1; then
        echo "run-under-wine: SKIPPED: this machine's kernel cannot run 32-bit programs" >&2
        exit 77
    fi
fi
export WINELOADER="$loader"

args=()
for arg in "$@"; do
    if [[ "$arg" == /* && -f "$arg" ]]; then
        arg="Z:${arg//\//\\}"
    fi
    args+=("$arg")
done

# Debian's Wine has no preloader: the loader is a program at 0x7d000000 and the kernel starts its
# heap up to 32 MB above it, at random. Now and then that heap reaches the page Wine needs at
# 0x7ffe0000 and the process dies before the program's first instruction ("failed to map the
# shared user data"). Without address randomization the heap starts right above the loader. Where
# a container forbids that, such a start is retried: nothing of the program has run yet.
no_random=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
    no_random=(setarch "$(uname -m)" -R)
fi

out=$(mktemp)
heap=$(mktemp)
for attempt in 1 2 3; do
    : >"$out"
    : >"$heap"
    set +e
    # Wine's own messages go to standard error; only the heap channel is switched on.
    WINEDEBUG="-all,warn+heap,err+heap,err+virtual" \
        timeout --kill-after=10 "${WINE_RUN_TIMEOUT:-300}" "${no_random[@]}" "$loader" "$program" "${args[@]}" \
        2> >(tee "$heap" >&2) | tee "$out"
    rc=${PIPESTATUS[0]}
    set -e
    wait
    if [ $rc -ne 0 ] && [ ! -s "$out" ] && grep -q 'failed to map the shared user data' "$heap"; then
        echo "run-under-wine: Wine's loader could not start '$program' (attempt $attempt of 3)" >&2
        continue
    fi
    break
done
case "$(basename "${program,,}")" in
    cscript|cscript.exe)
        if [ $rc -eq 0 ] && ! grep -qE '^[0-9]+ passed, 0 failed' "$out"; then
            echo "run-under-wine: script ended without a 'N passed, 0 failed' line" >&2
            rc=1
        fi
        ;;
esac
if grep -qE '^[0-9a-f]+:(warn|err):heap' "$heap"; then
    echo "run-under-wine: Wine's heap checks reported the lines above" >&2
    [ $rc -ne 0 ] || rc=1
fi
# A crash ends the process through Wine's debugger, whose exit status is not always the crash's.
# A stack overflow can end it without a word from the debugger and with status 0.
if grep -qE '^wine: Unhandled|err:virtual:virtual_setup_exception stack overflow' "$heap"; then
    echo "run-under-wine: '$program' crashed" >&2
    [ $rc -ne 0 ] || rc=1
fi
rm -f "$out" "$heap"
if [ $rc -eq 124 ] || [ $rc -eq 137 ]; then
    echo "run-under-wine: '$program' timed out" >&2
fi
exit $rc
