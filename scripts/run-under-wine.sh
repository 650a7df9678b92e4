#!/usr/bin/env bash
# Runs one Windows program under 64-bit Wine in a private, throw-away prefix.
#
#   run-under-wine.sh <build-dir> <program> [args...]
#
# <program> is a path to an .exe, or a program inside the prefix such as
# cscript, regsvr32 (Wine finds them in C:\windows\system32).
# The prefix lives in <build-dir>/wineprefix and is created on first use.
# The prefix's wineserver is always stopped when this script exits.
#
# Unix paths of existing files among the arguments are passed as Z:\... paths
# (Wine's cscript cannot open "/path/x.vbs" and exits 1 without a message).
# Wine's cscript exits 0 even when the script dies on an error, so for cscript
# the output must contain a line "N passed, 0 failed" or the run fails.
# 32-bit programs are refused: only 64-bit Wine is installed, and there a
# 32-bit .exe prints nothing and exits 0.
#
# Environment knobs:
#   WINE_RUN_TIMEOUT   seconds for the program (default 300)
#   WINE_BOOT_TIMEOUT  seconds for prefix creation (default 300)
set -euo pipefail

if [ $# -lt 2 ]; then
    echo "usage: $0 <build-dir> <program> [args...]" >&2
    exit 2
fi
build_dir=$(mkdir -p "$1" && cd "$1" && pwd)
shift

# Debian installs the 64-bit loader outside PATH; /usr/bin/wine is a wrapper
# that prefers 32-bit Wine and nags when it is missing.
WINE64=${WINE64:-/usr/lib/wine/wine64}
WINESERVER=${WINESERVER:-/usr/lib/wine/wineserver64}
[ -x "$WINE64" ] || WINE64=$(command -v wine64 || command -v wine)
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)

export WINEPREFIX="$build_dir/wineprefix"
export WINEARCH=win64
export WINELOADER="$WINE64"
export WINEDEBUG=-all
# No Mono/Gecko install dialogs on first boot; no desktop window.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY
export HOME=${HOME:-/root}

stop_server() {
    WINEPREFIX="$WINEPREFIX" "$WINESERVER" -k 2>/dev/null || true
}
trap stop_server EXIT
trap 'exit 130' INT TERM

# Create the prefix once; a lock keeps parallel test runs from racing here.
exec 9>"$build_dir/.wineprefix.lock"
flock 9
if [ ! -f "$WINEPREFIX/system.reg" ] || [ ! -f "$WINEPREFIX/.tabforge-ready" ]; then
    rm -rf "$WINEPREFIX"
    start=$(date +%s)
    timeout "${WINE_BOOT_TIMEOUT:-300}" "$WINE64" wineboot -i >/dev/null 2>&1 || {
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
    if [ "$machine" = "014c" ]; then
        echo "run-under-wine: $program is a 32-bit binary; only 64-bit Wine is available" >&2
        exit 1
    fi
fi
args=()
for arg in "$@"; do
    if [[ "$arg" == /* && -f "$arg" ]]; then
        arg="Z:${arg//\//\\}"
    fi
    args+=("$arg")
done

set +e
case "$(basename "${program,,}")" in
    cscript|cscript.exe)
        out=$(mktemp)
        timeout --kill-after=10 "${WINE_RUN_TIMEOUT:-300}" "$WINE64" "$program" "${args[@]}" | tee "$out"
        rc=${PIPESTATUS[0]}
        if [ $rc -eq 0 ] && ! grep -qE '^[0-9]+ passed, 0 failed' "$out"; then
            echo "run-under-wine: script ended without a 'N passed, 0 failed' line" >&2
            rc=1
        fi
        rm -f "$out"
        ;;
    *)
        timeout --kill-after=10 "${WINE_RUN_TIMEOUT:-300}" "$WINE64" "$program" "${args[@]}"
        rc=$?
        ;;
esac
set -e
if [ $rc -eq 124 ] || [ $rc -eq 137 ]; then
    echo "run-under-wine: '$program' timed out" >&2
fi
exit $rc
