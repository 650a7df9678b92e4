#!/usr/bin/env bash
# Installs what the Windows build and its tests need on Debian 12: the mingw-w64 cross compilers,
# widl, the Wine IDL files and stdole2.tlb (libwine-dev), Wine for both bitnesses (wine64, and
# wine32 from the i386 architecture, since the shipping DLL is 32-bit), wixl for the Windows
# Installer packages, zip for the release folder, osslsigncode to sign it, GoogleTest's sources,
# zlib for both cross compilers (libz-mingw-w64-dev), which the doctor's template reader needs, and
# the Python modules that the helpers in packaging/ read PE files (python3-pefile) and compound
# files (python3-olefile) with.
set -euo pipefail
exec "$(dirname "$0")/apt-install.sh" g++-mingw-w64-i686 g++-mingw-w64-x86-64 mingw-w64-tools \
    libz-mingw-w64-dev libwine-dev wine wine64 wine32:i386 icoutils wixl zip osslsigncode googletest \
    cmake ninja-build python3 python3-pefile python3-olefile
