#!/usr/bin/env bash
# Builds both DLLs, both tabforge.exe and both installer packages, and writes the release folder:
#
#   dist/Tabforge-VERSION-x86.msi      the 32-bit DLL (what a 32-bit word processor loads)
#   dist/Tabforge-VERSION-x64.msi      the 64-bit DLL
#   dist/Tabforge-VERSION-dlls.zip     x86/Tabforge.dll and x64/Tabforge.dll, for regsvr32 or
#                                      `tabforge register`
#   dist/tabforge-x86.exe, dist/tabforge-x64.exe
#   dist/INSTALL.txt                   how to install, check and remove
#   dist/SHA256SUMS
#
# The version is the project's (CMakeLists.txt). scripts/test-install.sh tests the folder.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-windows-deps.sh

for preset in win32 win64; do
    echo "== $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --target Tabforge tabforge tabforge_msi
done
python3 tools/check_pe.py build/win32/server/Tabforge.dll --arch i686 >/dev/null
python3 tools/check_pe.py build/win64/server/Tabforge.dll --arch x86_64 >/dev/null

version=$(sed -n 's/^project(Tabforge VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "package: no project version in CMakeLists.txt" >&2; exit 1; }
rm -rf dist
mkdir -p dist/.zip/x86 dist/.zip/x64
cp "build/win32/Tabforge-$version-x86.msi" "build/win64/Tabforge-$version-x64.msi" dist/
cp build/win32/server/Tabforge.dll dist/.zip/x86/
cp build/win64/server/Tabforge.dll dist/.zip/x64/
(cd dist/.zip && zip -q -X -r "../Tabforge-$version-dlls.zip" x86 x64)
rm -rf dist/.zip
cp build/win32/tools/tabforge.exe dist/tabforge-x86.exe
cp build/win64/tools/tabforge.exe dist/tabforge-x64.exe
sed "s/@VERSION@/$version/g" server/packaging/INSTALL.txt > dist/INSTALL.txt
(cd dist && sha256sum -- *.msi *.zip *.exe INSTALL.txt > SHA256SUMS)
echo "package: wrote dist/ for Tabforge $version"
ls -l dist
