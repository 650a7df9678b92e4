#!/usr/bin/env bash
# Sets up a fresh machine, builds, and passes every test: formatting, the Linux build with
# warnings as errors, and the same tests under AddressSanitizer and UndefinedBehaviorSanitizer.
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
