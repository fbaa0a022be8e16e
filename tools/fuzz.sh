#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for the given number of
# seconds (default 60), starting from its seed corpus in fuzz/seeds/<target>.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc 2>/dev/null || echo 2)"
shopt -s nullglob
for target in build/fuzz/fuzz/*_fuzz; do
  name=$(basename "$target")
  corpus=build/fuzz/corpus-$name
  mkdir -p "$corpus"
  seeds=()
  [ -d "fuzz/seeds/$name" ] && seeds=("fuzz/seeds/$name")
  echo "-- $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    "$corpus" "${seeds[@]}" 2>&1 | tail -n 12
done
