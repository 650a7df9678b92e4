#!/usr/bin/env bash
# Installs what the Windows build and its tests need on Debian 12: the mingw-w64 cross compilers,
# widl, the Wine IDL files and stdole2.tlb (libwine-dev), Wine for both bitnesses (wine64, and
# wine32 from the i386 architecture, since the shipping DLL is 32-bit), wixl for the Windows
# Installer packages, zip for the release folder, and GoogleTest's sources.
#
# wine32 pulls in the i386 builds of libraries whose amd64 builds are already installed, and the
# two must be the same version. When the i386 index of the security suite could not be fetched,
# the amd64 library comes from the security suite and the i386 one cannot, and apt refuses with
# broken dependencies. Then the security suite is pinned below the main suite for this install, so
# that both sides agree on the main suite's version, and the install is tried again.
set -euo pipefail
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
need=(g++-mingw-w64-i686 g++-mingw-w64-x86-64 mingw-w64-tools libwine-dev wine wine64 wine32:i386
      icoutils wixl zip googletest cmake ninja-build python3)
missing=()
for p in "${need[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -gt 0 ] || exit 0

export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -qx i386; then
    $SUDO dpkg --add-architecture i386
fi
$SUDO apt-get update -q || true
install() { $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"; }
if ! install; then
    pin=/etc/apt/preferences.d/tabforge-security-below-main
    echo "install-windows-deps: apt refused; pinning the security suite below the main suite" >&2
    printf 'Package: *\nPin: release l=Debian-Security\nPin-Priority: 100\n' | $SUDO tee "$pin" >/dev/null
    $SUDO apt-get update -q || true
    # Allow downgrades: an amd64 library may have to step back to the main suite's version to
    # match its i386 twin.
    $SUDO apt-get install -y -q --no-install-recommends --allow-downgrades "${missing[@]}"
fi
