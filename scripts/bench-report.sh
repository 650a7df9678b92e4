#!/usr/bin/env bash
# Runs every Google Benchmark target and writes bench/REPORT.md: each operation beside its floor
# measured in the same run, medians of repeated runs, the ratios, and the Wine figures (late
# binding, cold start) when scripts/test-windows.sh has measured them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-linux-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux --target tabforge_bench
./build/linux/bench/tabforge_bench --benchmark_repetitions=5 --benchmark_min_time=0.2 \
  --benchmark_report_aggregates_only=true --benchmark_out=build/linux/bench.json \
  --benchmark_out_format=json
python3 bench/report.py build/linux/bench.json bench/REPORT.md build/win64/bench-wine.txt \
  build/win64/cold-start-wine.txt
echo "wrote bench/REPORT.md"
