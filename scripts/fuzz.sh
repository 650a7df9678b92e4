#!/usr/bin/env bash
# Sets up a fresh machine, builds the fuzz targets (clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for FUZZ_SECONDS (30 by default) on a copy of its seed
# corpus in the build folder. Any crash, leak, timeout or broken check fails the script; the input
# that caused it is left in build/fuzz/findings/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-linux-deps.sh
scripts/apt-install.sh clang libclang-rt-14-dev

echo "== fuzz build"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

seconds="${FUZZ_SECONDS:-30}"
build=build/fuzz
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
failed=()
for target in fuzz_callbacks fuzz_pictures fuzz_replay fuzz_session fuzz_tabs fuzz_template; do
  echo "== $target (${seconds}s)"
  corpus="$build/corpus/$target"
  findings="$build/findings/$target"
  rm -rf "$corpus" "$findings"
  mkdir -p "$corpus" "$findings"
  cp fuzz/corpus/"$target"/* "$corpus"/
  # A unit that takes more than 10 s is a finding: one outside call may spend a fraction of a
  # second, and an input makes a few hundred of them.
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" 2>"$build/$target.log"; then
    failed+=("$target")
    tail -n 60 "$build/$target.log"
  fi
  grep -E '^(#[0-9]+[[:space:]]+DONE|stat::number_of_executed_units|stat::average_exec_per_sec)' \
    "$build/$target.log" || true
done
if ((${#failed[@]})); then
  echo "fuzzing failed: ${failed[*]} (inputs in $build/findings/)" >&2
  exit 1
fi
echo "fuzzing passed"
