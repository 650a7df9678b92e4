#!/usr/bin/env bash
# Tests the release folder under Wine, for each architecture:
#
#   msi-machine       an older package, then this one over it (a major upgrade), ALLUSERS=1
#   msi-user          this package per user (no ALLUSERS)
#   register-user     `tabforge register --user` of the DLL from the zip, by the tabforge.exe
#                     of the DLL's bitness, then --unregister
#   register-machine  the same with --machine, by the tabforge.exe of the other bitness
#
# Each case runs in a fresh copy of one booted prefix. After installing, the registry entries
# under the classes must equal entry for entry, registry view included, those that regsvr32
# leaves for the same DLL in another copy (paths aside); a script client of the DLL's bitness
# must create Tabforge.Main2 and get its document, and one of the other bitness must not. After
# removing, the client must fail, and the registry and the files must be as before.
#
#   test-install.sh [DIST]      (default: dist/, as scripts/package.sh writes it)
#
# TABFORGE_INSTALL_ARCHES="x64" tests one architecture only.
#
# Wine 8 knows only the machine's classes: its HKEY_CLASSES_ROOT is HKLM\Software\Classes, its
# COM never looks under HKCU\Software\Classes, and its Windows Installer writes the classes of a
# per-user installation to the machine's. So under Wine the per-user package lands where the
# machine's would (Windows writes it under HKCU\Software\Classes), and after `tabforge register
# --user` no client can create the class; that case checks the entries under the user's classes
# and leaves creating it to Windows.
#
# Every program runs under `timeout`, and each prefix's wineserver is stopped when its case ends.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
dist=$(cd "${1:-dist}" && pwd)
work=$repo/build/install-test
WINE64=${WINE64:-/usr/lib/wine/wine64}
WINE32=${WINE32:-/usr/lib/wine/wine}
WINESERVER=${WINESERVER:-/usr/lib/wine/wineserver64}
export WINEARCH=win64 WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY

# A machine whose kernel runs no 32-bit programs (IA-32 emulation switched off) cannot run any
# 32-bit program of the prefix: there only the x64 side is installed and checked, without the
# cases that need a 32-bit program, and the run says what it left out.
can32=1
"$WINE32" --version >/dev/null 2>&1 || can32=0
arches=${TABFORGE_INSTALL_ARCHES:-x86 x64}
cases="msi-machine msi-user register-user register-machine"
if [ $can32 = 0 ]; then
    echo "test-install: SKIPPED the x86 side, register-machine and the x86 clients: this" \
        "machine's kernel cannot run 32-bit programs"
    arches=x64
    cases="msi-machine msi-user register-user"
fi

msi_for() { ls "$dist"/Tabforge-*-"$1".msi; }
version=$(basename "$(msi_for x86)" | sed 's/^Tabforge-\(.*\)-x86\.msi$/\1/')
client="Z:${repo//\//\\}\\server\\tests\\main2.vbs"

passed=0
failed=0
check() {
    if [ "$1" = 0 ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAIL: $2"
    fi
}

export WINEPREFIX=
stop_server() {
    [ -n "$WINEPREFIX" ] && timeout 30 "$WINESERVER" -k 2>/dev/null || true
}
trap stop_server EXIT
trap 'exit 130' INT TERM

# run BITS PROGRAM ARGS...: one program of the prefix, 32- or 64-bit.
run() {
    local loader=$WINE64
    [ "$1" = x86 ] && loader=$WINE32
    shift
    timeout --kill-after=10 120 "$loader" "$@"
}

# The prefix's registry and files, without what Wine rewrites at every start (the hardware it
# finds) and the empty keys Windows Installer keeps for its own bookkeeping
# (packaging/prefix_snapshot.py).
snapshot() {
    timeout 60 "$WINESERVER" -w || true
    packaging/prefix_snapshot.py "$WINEPREFIX"
}

# entries BEFORE AFTER HIVE [fold]: the classes entries that appeared, with the hive folded away,
# the DLL's path and folder (read from its InprocServer32) as <DLL> and <DIR>, and the registry
# view kept where Windows keeps one: "[32] " before the class and interface keys of the 32-bit
# view, while the program id and the type library are shared. With "fold", the view is folded
# away too. Entries outside HIVE's classes are listed as OUTSIDE (packaging/class_entries.py).
entries() {
    packaging/class_entries.py "$@"
}

# creates ARCH: prints what the script client of ARCH's bitness says.
creates() {
    local host='C:\windows\system32\cscript.exe'
    [ "$1" = x86 ] && host='C:\windows\syswow64\cscript.exe'
    run "$1" "$host" //nologo "$client" 2>/dev/null | tr -d '\r' || true
}
other() { [ "$1" = x86 ] && echo x64 || echo x86; }

echo "== a booted prefix"
mkdir -p "$work"
rm -rf "$work"/template "$work"/case
export WINEPREFIX=$work/template
timeout 300 "$WINE64" wineboot -i >/dev/null 2>&1
timeout 60 "$WINESERVER" -w || true
# Script hosts register parts of themselves on first use; let them do it here, so that no case
# sees it. The first 32-bit one in a new prefix does not always get that far.
for arch in x86 x64 x86; do
    [ $can32 = 1 ] || [ "$arch" = x64 ] || continue
    creates "$arch" >/dev/null
done
stop_server
# From here on a failed step is counted, and the run goes on to the next.
set +e

# fresh: a new copy of the booted prefix for one case, with the DLLs unpacked into C:\tabforge.
fresh() {
    stop_server
    rm -rf "$work/case"
    cp -a "$work/template" "$work/case"
    export WINEPREFIX=$work/case
    python3 -m zipfile -e "$(ls "$dist"/Tabforge-*-dlls.zip)" "$WINEPREFIX/drive_c/tabforge"
    before=$work/before.txt
    snapshot > "$before"
}

for arch in $arches; do
    msi=$(msi_for "$arch")
    msi_win="Z:${msi//\//\\}"
    dll_win="C:\\tabforge\\$arch\\Tabforge.dll"
    exe_win() { echo "Z:${dist//\//\\}\\tabforge-$1.exe"; }

    echo "== $arch: regsvr32, for reference"
    fresh
    run x64 regsvr32 /s "$dll_win"
    snapshot > "$work/after.txt"
    reference=$work/reference-$arch.txt
    entries "$before" "$work/after.txt" HKLM > "$reference"
    # Wine's user classes have one view: there the other view's copy of the interface lands on
    # the DLL's own, and DllRegisterServer's entries are written over it, as in the own view.
    if [ "$arch" = x86 ]; then
        sed -e '/^Interface\\/d' -e 's/^\[32\] //' "$reference"
    else
        sed -e '/^\[32\] /d' "$reference"
    fi | LC_ALL=C sort > "$work/reference-$arch-fold.txt"
    check "$(grep -c '^OUTSIDE\|^DLL none' "$reference")" "$arch: regsvr32 registers"

    # An older version of the same package, so that installing this one is a major upgrade.
    old=$work/Tabforge-0.9.0-$arch.msi
    packaging/msi_package.py --arch "$arch" --version 0.9.0 --typelib "${version%.*}" \
        --dll "$WINEPREFIX/drive_c/tabforge/$arch/Tabforge.dll" --out "$old" 2>/dev/null

    # register-user runs the tabforge.exe of the DLL's bitness, register-machine the other one.
    for case in $cases; do
        echo "== $arch: $case"
        fresh
        hive=HKLM
        expected=$work/expected.txt
        grep -v '^DLL ' "$reference" > "$expected"
        case $case in
            msi-machine)
                run x64 msiexec /i "Z:${old//\//\\}" /qn ALLUSERS=1
                check $? "$arch $case: the older package installs"
                run x64 msiexec /i "$msi_win" /qn ALLUSERS=1
                ;;
            msi-user) run x64 msiexec /i "$msi_win" /qn ;;
            register-user)
                hive=HKCU
                grep -v '^DLL ' "$work/reference-$arch-fold.txt" > "$expected"
                run "$arch" "$(exe_win "$arch")" register --user "$dll_win"
                ;;
            register-machine)
                run "$(other "$arch")" "$(exe_win "$(other "$arch")")" register --machine "$dll_win"
                ;;
        esac
        check $? "$arch $case: install"
        # A 32-bit package cannot write the 64-bit view, where the platform's type library
        # registration copies the interface's entries from a 32-bit process.
        if [ "$case" != "${case#msi-}" ] && [ "$arch" = x86 ]; then
            sed -i '/^Interface\\/d' "$expected"
        fi
        snapshot > "$work/after.txt"
        fold=
        [ "$case" = register-user ] && fold=fold
        entries "$before" "$work/after.txt" "$hive" $fold > "$work/$case-$arch.txt"
        diff "$expected" <(grep -v '^DLL ' "$work/$case-$arch.txt") | sed 's/^/  /'
        check "${PIPESTATUS[0]}" "$arch $case: the entries equal regsvr32's"
        case $case in
            msi-machine)
                grep -q '^DLL elsewhere' "$work/$case-$arch.txt"
                check $? "$arch $case: the DLL is in Program Files"
                [ "$(grep -c "DisplayName\"=\"Tabforge (" "$work/after.txt")" = 2 ]
                check $? "$arch $case: the upgrade left one product (its two records)"
                ;;
            msi-user)
                grep -q "^DLL in the user's profile" "$work/$case-$arch.txt"
                check $? "$arch $case: the DLL is in the user's profile"
                ;;
        esac
        if [ "$case" != register-user ]; then
            said=$(creates "$arch")
            [[ $said == *" passed, 0 failed" ]]
            check $? "$arch $case: a $arch client creates Tabforge.Main2 and its checks pass"
            if [ $can32 = 1 ]; then
                said=$(creates "$(other "$arch")")
                [[ $said == "not created"* ]]
                check $? "$arch $case: a $(other "$arch") client does not find it"
            fi
        fi

        case $case in
            msi-machine) run x64 msiexec /x "$msi_win" /qn ALLUSERS=1 ;;
            msi-user) run x64 msiexec /x "$msi_win" /qn ;;
            register-user)
                run "$arch" "$(exe_win "$arch")" register --user --unregister "$dll_win"
                ;;
            register-machine)
                run "$(other "$arch")" "$(exe_win "$(other "$arch")")" register --machine \
                    --unregister "$dll_win"
                ;;
        esac
        check $? "$arch $case: remove"
        said=$(creates "$arch")
        [[ $said == "not created"* ]]
        check $? "$arch $case: the class cannot be created any more"
        snapshot > "$work/removed.txt"
        diff "$before" "$work/removed.txt" | grep '^[<>]' | head -20 | sed 's/^/  /'
        cmp -s "$before" "$work/removed.txt"
        check $? "$arch $case: the registry and the files are as before"
    done
done
stop_server
rm -rf "$work/case" "$work/template"
echo "test-install: $passed passed, $failed failed"
[ "$failed" = 0 ]
