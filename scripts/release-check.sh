#!/usr/bin/env bash
# Checks the release folder that scripts/package.sh wrote (default dist/) for what a deployer is
# promised:
#
#   reproducible  the same commit, fetched into another folder and built there again later (the
#                 two DLLs and the two tabforge.exe only, compiled afresh: no compiler cache, so
#                 that a compiler that does not give the same bytes twice is caught), gives the
#                 same bytes in every file; the files that differ are named
#   signed        with a throw-away code-signing certificate made here with openssl, package.sh
#                 signs every DLL and EXE (inside the packages and the zip too) and both packages;
#                 osslsigncode verifies each against that certificate, and each DLL and EXE
#                 without its signature is the unsigned file
#   installable   scripts/test-install.sh passes on the signed folder: a signed DLL registers,
#                 loads and works under Wine
#
#   release-check.sh [DIST]
#
# The folder must have been built from the commit checked out, with no changes to tracked files.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
dist=$(cd "${1:-dist}" && pwd)
scripts/apt-install.sh openssl osslsigncode msitools git python3-pefile
if ! git diff --quiet HEAD --; then
    echo "release-check: the working tree has changes; commit them, then package and check" >&2
    exit 1
fi
# package.sh dates every file with the commit it built; both builds here take that time.
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)}
if [ "$(stat -c %Y "$dist/SHA256SUMS")" != "$SOURCE_DATE_EPOCH" ]; then
    echo "release-check: $dist was not built from this commit; run scripts/package.sh" >&2
    exit 1
fi
work=$(mktemp -d /tmp/tabforge-release-check.XXXXXX)
trap 'rm -rf "$work"' EXIT
failed=0

echo "== reproducible: a second build of $(git rev-parse --short HEAD) in $work/src"
git init -q "$work/src"
git -C "$work/src" fetch -q "$repo" HEAD
git -C "$work/src" checkout -q --detach FETCH_HEAD
start=$SECONDS
# Another folder, another time zone and umask, no compiler cache.
(cd "$work/src" && env -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER TZ=Asia/Kolkata \
    bash -c 'umask 027 && scripts/package.sh' >"$work/build.log" 2>&1) ||
    { tail -30 "$work/build.log"; echo "release-check: the second build failed" >&2; exit 1; }
echo "   built in $((SECONDS - start)) s"
second=$work/src/dist
(cd "$dist" && find . -type f | sort) > "$work/first.txt"
(cd "$second" && find . -type f | sort) > "$work/second.txt"
if ! diff -u "$work/first.txt" "$work/second.txt" | sed 's/^/   /'; then
    echo "FAIL: the two folders hold different files"
    failed=1
fi
while read -r file; do
    [ -f "$second/$file" ] || continue
    if cmp -s "$dist/$file" "$second/$file"; then
        echo "   same      $file"
    else
        echo "FAIL: differs $file ($(cmp -l "$dist/$file" "$second/$file" | wc -l) bytes)"
        failed=1
    fi
done < "$work/first.txt"

echo "== signed: a throw-away certificate"
start=$SECONDS
openssl req -x509 -newkey rsa:3072 -nodes -days 2 -keyout "$work/signer.key" \
    -out "$work/signer.pem" -subj "/CN=Tabforge release check/O=Morvelin Inc." \
    -addext "keyUsage=critical,digitalSignature" -addext "extendedKeyUsage=codeSigning" \
    2>/dev/null
password=check-$RANDOM$RANDOM
openssl pkcs12 -export -inkey "$work/signer.key" -in "$work/signer.pem" \
    -out "$work/signer.pfx" -passout "pass:$password"
signed=$work/signed
TABFORGE_SIGN_PFX=$work/signer.pfx TABFORGE_SIGN_PASSWORD=$password scripts/package.sh "$signed" \
    >"$work/sign.log" 2>&1 ||
    { tail -30 "$work/sign.log"; echo "release-check: signing failed" >&2; exit 1; }
python3 -m zipfile -e "$signed"/Tabforge-*-dlls.zip "$work/zip"
python3 -m zipfile -e "$dist"/Tabforge-*-dlls.zip "$work/unsigned"
# check_signed FILE UNSIGNED: FILE verifies against the certificate and, for a DLL or an EXE, is
# UNSIGNED once its signature is taken off.
check_signed() {
    local name=${1#"$work"/}
    if ! osslsigncode verify -CAfile "$work/signer.pem" -in "$1" >"$work/verify.log" 2>&1; then
        sed 's/^/   /' "$work/verify.log" | tail -8
        echo "FAIL: not verified $name"
        failed=1
        return
    fi
    # Signing pads the file to a multiple of 8 bytes and updates the PE checksum; taking the
    # signature off leaves both.
    if [ "${1%.msi}" = "$1" ]; then
        rm -f "$work/bare"
        osslsigncode remove-signature -in "$1" -out "$work/bare" >/dev/null
        if ! packaging/same_without_signature.py "$work/bare" "$2"; then
            echo "FAIL: $name without its signature is not the unsigned file"
            failed=1
            return
        fi
    fi
    echo "   verified  $name"
}
for arch in x86 x64; do
    check_signed "$signed/tabforge-$arch.exe" "$dist/tabforge-$arch.exe"
    check_signed "$work/zip/$arch/Tabforge.dll" "$work/unsigned/$arch/Tabforge.dll"
    msi=$(ls "$signed"/Tabforge-*-"$arch".msi)
    check_signed "$msi" ""
    msiextract -C "$work/msi-$arch" "$msi" >/dev/null
    check_signed "$(find "$work/msi-$arch" -name Tabforge.dll)" "$work/unsigned/$arch/Tabforge.dll"
done

echo "   signed and verified in $((SECONDS - start)) s"

echo "== installable: the signed folder under Wine"
start=$SECONDS
scripts/test-install.sh "$signed" || failed=1
echo "   tested in $((SECONDS - start)) s"

[ "$failed" = 0 ] && echo "release-check: passed" || echo "release-check: FAILED"
[ "$failed" = 0 ]
