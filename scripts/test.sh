#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds everything and runs every test
# (unit, integration and end-to-end).
#   BUILD_DIR   build directory (default: build)
#   CMAKE_ARGS  extra CMake arguments, e.g. -DNDPX_SANITIZE=address
#   CTEST_ARGS  extra ctest arguments, e.g. -L unit
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

build=${BUILD_DIR:-build}
# Only read by a race-detector build (-DNDPX_SANITIZE=thread).
export TSAN_OPTIONS=${TSAN_OPTIONS:-suppressions=$PWD/tests/tsan.supp}
# shellcheck disable=SC2086
cmake -S . -B "$build" -G Ninja ${CMAKE_ARGS:-}
cmake --build "$build" -j2
# shellcheck disable=SC2086
ctest --test-dir "$build" --output-on-failure -j2 --timeout 300 ${CTEST_ARGS:-}
