#!/usr/bin/env bash
# Sets up a fresh machine, builds, and passes every test: formatting, the Linux build with
# warnings as errors, the same tests under AddressSanitizer and UndefinedBehaviorSanitizer, and a
# plain Release build (GCC warns differently at -O3, and a user's first build is often this one).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-linux-deps.sh

echo "== clang-format"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

echo "== linux"
cmake --preset linux >/dev/null
cmake --build --preset linux
ctest --preset linux

echo "== linux-asan"
cmake --preset linux-asan >/dev/null
cmake --build --preset linux-asan
ctest --preset linux-asan

echo "== release"
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j2
