#!/usr/bin/env bash
# Sets up a fresh machine, builds, and runs the main job: a typical day of the add-in replayed
# against Main2 by the tabforge command. With arguments, runs `tabforge` with those instead.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-linux-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux --target tabforge
if (($#)); then
  exec ./build/linux/tools/tabforge "$@"
fi
exec ./build/linux/tools/tabforge session examples/typical-day.session
