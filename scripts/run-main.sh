#!/usr/bin/env bash
# Sets up a fresh machine, builds, and runs the main job: the tabforge command.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-linux-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux --target tabforge
./build/linux/tools/tabforge "$@"
