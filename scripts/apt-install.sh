#!/usr/bin/env bash
# Installs the Debian packages named as arguments that are not installed yet, the same way for
# every script of the project:
#
#   apt-install.sh PACKAGE...
#
# With the i386 architecture added (32-bit Wine), an index of the security suite that could not be
# fetched for one architecture is no reason to stop: `apt-get update` keeps the other indexes. The
# i386 build of a library must then have the same version as its amd64 build, and when only the
# amd64 one comes from the security suite apt refuses with broken dependencies. Then the security
# suite is pinned below the main suite, so that both sides agree on the main suite's version, and
# the install is tried again.
set -euo pipefail
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
missing=()
for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -gt 0 ] || exit 0

export DEBIAN_FRONTEND=noninteractive
for p in "${missing[@]}"; do
    if [[ $p == *:i386 ]] && ! dpkg --print-foreign-architectures | grep -qx i386; then
        $SUDO dpkg --add-architecture i386
    fi
done
$SUDO apt-get update -q || echo "apt-install: some indexes could not be fetched; going on" >&2
if ! $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"; then
    pin=/etc/apt/preferences.d/tabforge-security-below-main
    echo "apt-install: apt refused; pinning the security suite below the main suite" >&2
    printf 'Package: *\nPin: release l=Debian-Security\nPin-Priority: 100\n' | $SUDO tee "$pin" >/dev/null
    $SUDO apt-get update -q || true
    # An amd64 library may have to step back to the main suite's version to match its i386 twin.
    $SUDO apt-get install -y -q --no-install-recommends --allow-downgrades "${missing[@]}"
fi
