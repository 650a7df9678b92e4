#!/usr/bin/env bash
# Installs what the Linux build, its tests and its benchmarks need on a Debian machine.
set -euo pipefail
packages=(cmake ninja-build g++ clang clang-format googletest libgtest-dev libgmock-dev
          libbenchmark-dev libstb-dev libjpeg62-turbo-dev libxml2-dev zlib1g-dev python3 chromium)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
