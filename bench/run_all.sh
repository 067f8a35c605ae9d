#!/usr/bin/env bash
# Runs every benchmark program; results go to standard output and build-bench/<name>.json.
set -euo pipefail
build_dir=${1:-build-bench}
for program in "$build_dir"/benchmarks/*_bench; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program")"
  "$program" --benchmark_out="$build_dir/$(basename "$program").json" --benchmark_out_format=json
done
