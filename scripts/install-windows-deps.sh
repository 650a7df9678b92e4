#!/usr/bin/env bash
# Installs what the Windows build needs on Debian 12: the mingw-w64 cross compilers, widl, the
# Wine IDL files and stdole2.tlb (libwine-dev, wine64), the 64-bit Wine runtime, and GoogleTest's
# sources. Only 64-bit Wine is installed: 32-bit binaries are checked, never run.
set -euo pipefail
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
need=(g++-mingw-w64-i686 g++-mingw-w64-x86-64 mingw-w64-tools libwine-dev wine wine64 icoutils
      googletest cmake ninja-build python3)
missing=()
for p in "${need[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -q
    $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
