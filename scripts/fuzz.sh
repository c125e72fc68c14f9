#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for N seconds
# (default 60) on a copy of its seed corpus, two at a time. Prints each
# target's final statistics, and fails when any target found a crash, a leak,
# undefined behaviour or an input that runs longer than 10 s; the input that
# did it is kept in build-fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
parallel=2
bash scripts/install-deps.sh >/dev/null
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DNDPX_BUILD_FUZZ=ON \
  -DNDPX_BUILD_TESTS=OFF -DNDPX_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j2 --target fuzz_all

artifacts=build-fuzz/artifacts
mkdir -p "$artifacts"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The targets build real managers: their settings and stores go under a root
# of the run's own, never the machine's.
export NDPX_ROOT="$work/root"
mkdir -p "$NDPX_ROOT"

# Runs one target; its output goes to $work/NAME.log, its exit status to
# $work/NAME.status.
fuzz_one() {
  local target=$1 name corpus status=0
  name=$(basename "$target")
  corpus="fuzz/corpus/${name%_fuzz}"
  mkdir -p "$work/$name"
  if [[ -d "$corpus" ]]; then
    cp -r "$corpus"/. "$work/$name"/
  fi
  "$target" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$artifacts/$name-" "$work/$name" >"$work/$name.log" 2>&1 || status=$?
  echo "$status" >"$work/$name.status"
}

targets=(build-fuzz/fuzz/*_fuzz)
for target in "${targets[@]}"; do
  while (($(jobs -rp | wc -l) >= parallel)); do
    wait -n || true
  done
  echo "fuzz: $(basename "$target") for ${seconds}s"
  fuzz_one "$target" &
done
wait

failed=0
for target in "${targets[@]}"; do
  name=$(basename "$target")
  status=$(cat "$work/$name.status")
  echo "::: $name (exit $status)"
  grep -a -E '^(stat::|Done )' "$work/$name.log" || true
  if [[ "$status" != 0 ]]; then
    failed=1
    cp "$work/$name.log" "$artifacts/$name.log"
    report=$(grep -a -E '(ERROR|runtime error|invariant broken|ALARM|SUMMARY)' \
      "$work/$name.log" | head -n 20 || true)
    echo "${report:-$(tail -n 30 "$work/$name.log")}"
    grep -a -E 'Test unit written to' "$work/$name.log" || true
    echo "full log: $artifacts/$name.log"
  fi
done
exit "$failed"
