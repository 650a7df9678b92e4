#!/usr/bin/env bash
# Installs what the Linux build, its tests and its benchmarks need on a Debian machine.
set -euo pipefail
exec "$(dirname "$0")/apt-install.sh" cmake ninja-build g++ clang clang-format googletest \
    libgtest-dev libgmock-dev libbenchmark-dev libstb-dev libjpeg62-turbo-dev libxml2-dev \
    zlib1g-dev python3 chromium
