#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for N seconds
# (default 60) on its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
bash scripts/install-deps.sh >/dev/null
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DNDPX_BUILD_FUZZ=ON \
  -DNDPX_BUILD_TESTS=OFF -DNDPX_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j2 --target fuzz_all
for target in build-fuzz/fuzz/*_fuzz; do
  name=$(basename "$target")
  corpus="fuzz/corpus/${name%_fuzz}"
  work=$(mktemp -d)
  [[ -d "$corpus" ]] && cp -r "$corpus"/. "$work"/
  echo "fuzz: $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -print_final_stats=1 "$work" 2>&1 | tail -n 5
  rm -rf "$work"
done
