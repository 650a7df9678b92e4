#!/usr/bin/env bash
# Builds both DLLs and both tabforge.exe, strips them, signs them when given a certificate, packs
# them, and writes the release folder:
#
#   dist/Tabforge-VERSION-x86.msi      the 32-bit DLL (what a 32-bit word processor loads)
#   dist/Tabforge-VERSION-x64.msi      the 64-bit DLL
#   dist/Tabforge-VERSION-dlls.zip     x86/Tabforge.dll and x64/Tabforge.dll, for regsvr32 or
#                                      `tabforge register`
#   dist/tabforge-x86.exe, dist/tabforge-x64.exe
#   dist/symbols/x86/, dist/symbols/x64/   Tabforge.dll.debug and tabforge.exe.debug: the symbols
#                                      and debug information taken out of the shipped files,
#                                      which name them (.gnu_debuglink) for a debugger
#   dist/INSTALL.txt                   how to install, check and remove
#   dist/SHA256SUMS                    every other file of the folder
#
#   package.sh [DIST]      (default: dist)
#
# The same commit gives the same bytes in every file, wherever and whenever it is built: every
# time stamp is the last commit's (SOURCE_DATE_EPOCH, unless already set; in a source archive
# without .git, packaging/commit-time), no build path gets in, the packages' codes are derived
# (packaging/msi_package.py), the zip has fixed times and order.
# scripts/release-check.sh proves it with a second build.
#
# Signing (Authenticode, osslsigncode): with TABFORGE_SIGN_PFX (a PKCS#12 file with the code-signing
# certificate, its key and chain) and TABFORGE_SIGN_PASSWORD (its password), every DLL and EXE is
# signed before it goes into a package, then each package; TABFORGE_SIGN_TIMESTAMP_URL (an RFC 3161
# time-stamping service) adds a time stamp, so that the signature outlives the certificate. Without
# TABFORGE_SIGN_PFX nothing is signed. A signature carries the time of signing, so signed files
# differ from one run to the next; without their signatures they are the unsigned release.
#
# The version is the project's (CMakeLists.txt). scripts/test-install.sh tests the folder.
set -euo pipefail
cd "$(dirname "$0")/.."
dist=${1:-dist}

# Every file's time is the commit's: SOURCE_DATE_EPOCH when it is set, else the time of the commit
# checked out here, else the one that `git archive` wrote into packaging/commit-time (an
# export-subst file, .gitattributes), so that a source archive of a release packages as its
# commit does. Without any of them nothing is built: the files would carry no time of their own.
commit_time() {
    if [ "$(git rev-parse --show-toplevel 2>/dev/null)" = "$(pwd -P)" ]; then
        git log -1 --format=%ct
    else
        sed -n '/^[0-9][0-9]*$/p' packaging/commit-time 2>/dev/null || true
    fi
}
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(commit_time)}
if ! [[ $SOURCE_DATE_EPOCH =~ ^[0-9]+$ ]]; then
    echo "package: no commit time: set SOURCE_DATE_EPOCH to the commit's time (seconds since" \
        "1970), or run in a git checkout or in a source archive made by \`git archive\`" >&2
    exit 1
fi
scripts/install-windows-deps.sh
export TZ=UTC LC_ALL=C
umask 022

sign=${TABFORGE_SIGN_PFX:-}
if [ -n "$sign" ]; then
    [ -r "$sign" ] || { echo "package: cannot read TABFORGE_SIGN_PFX ($sign)" >&2; exit 1; }
    [ -n "${TABFORGE_SIGN_PASSWORD+set}" ] ||
        { echo "package: TABFORGE_SIGN_PFX needs TABFORGE_SIGN_PASSWORD" >&2; exit 1; }
fi

for preset in win32 win64; do
    echo "== $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target Tabforge tabforge
done

version=$(sed -n 's/^project(Tabforge VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "package: no project version in CMakeLists.txt" >&2; exit 1; }
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
rm -rf "$dist"
mkdir -p "$dist"

# sign FILE: signs FILE in place when a certificate is given. The password goes through a file
# that only this user can read, never on a command line.
if [ -n "$sign" ]; then
    (umask 077 && printf '%s' "$TABFORGE_SIGN_PASSWORD" > "$stage/password")
fi
sign() {
    [ -n "$sign" ] || return 0
    local timestamp=()
    [ -z "${TABFORGE_SIGN_TIMESTAMP_URL:-}" ] || timestamp=(-ts "$TABFORGE_SIGN_TIMESTAMP_URL")
    osslsigncode sign -pkcs12 "$sign" -readpass "$stage/password" -h sha256 -n Tabforge \
        "${timestamp[@]}" -in "$1" -out "$1.signed" >/dev/null
    mv "$1.signed" "$1"
}

# ship ARCH TRIPLE BUILT NAME: BUILT stripped into the stage as ARCH/NAME, its symbols and debug
# information into symbols/ARCH/NAME.debug, which the stripped file names; then signed. binutils
# stamps both with SOURCE_DATE_EPOCH.
ship() {
    local arch=$1 triple=$2 built=$3 name=$4
    local out=$stage/$arch/$name debug=$dist/symbols/$arch/$name.debug
    mkdir -p "$stage/$arch" "$dist/symbols/$arch"
    "$triple-objcopy" --only-keep-debug "$built" "$debug"
    "$triple-strip" --strip-all -o "$out" "$built"
    "$triple-objcopy" --add-gnu-debuglink="$debug" "$out"
    sign "$out"
}
ship x86 i686-w64-mingw32 build/win32/server/Tabforge.dll Tabforge.dll
ship x86 i686-w64-mingw32 build/win32/tools/tabforge.exe tabforge.exe
ship x64 x86_64-w64-mingw32 build/win64/server/Tabforge.dll Tabforge.dll
ship x64 x86_64-w64-mingw32 build/win64/tools/tabforge.exe tabforge.exe
packaging/check_pe.py "$stage/x86/Tabforge.dll" --arch i686 \
    --version-header build/win32/server/generated/tabforge_version.h >/dev/null
packaging/check_pe.py "$stage/x64/Tabforge.dll" --arch x86_64 \
    --version-header build/win64/server/generated/tabforge_version.h >/dev/null

for arch in x86 x64; do
    msi=$dist/Tabforge-$version-$arch.msi
    packaging/msi_package.py --arch "$arch" --version "$version" \
        --dll "$stage/$arch/Tabforge.dll" --out "$msi"
    sign "$msi"
    cp "$stage/$arch/tabforge.exe" "$dist/tabforge-$arch.exe"
done

# The zip: the two DLLs, files only, in sorted order, with the commit's time and fixed modes.
mkdir -p "$stage/zip/x86" "$stage/zip/x64"
cp "$stage/x86/Tabforge.dll" "$stage/zip/x86/"
cp "$stage/x64/Tabforge.dll" "$stage/zip/x64/"
chmod 644 "$stage"/zip/*/Tabforge.dll
touch -d "@$SOURCE_DATE_EPOCH" "$stage"/zip/*/Tabforge.dll
zip="$(cd "$dist" && pwd)/Tabforge-$version-dlls.zip"
(cd "$stage/zip" && find x86 x64 -type f | sort | zip -q -X -D "$zip" -@)

sed "s/@VERSION@/$version/g" packaging/INSTALL.txt > "$dist/INSTALL.txt"
find "$dist" -type f -exec chmod 644 {} +
find "$dist" -exec touch -d "@$SOURCE_DATE_EPOCH" {} +
(cd "$dist" && find . -type f ! -name SHA256SUMS | sed 's|^\./||' | sort | xargs sha256sum -- \
    > SHA256SUMS)
touch -d "@$SOURCE_DATE_EPOCH" "$dist/SHA256SUMS"
state=unsigned
[ -z "$sign" ] || state=signed
echo "package: wrote $dist/ for Tabforge $version, $state"
ls -lR "$dist"
