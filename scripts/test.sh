#!/usr/bin/env bash
# Builds the library and runs every test.
# Usage: scripts/test.sh [BUILD_DIR [CMAKE_OPTION...]]
#   scripts/test.sh                                   host build in ./build
#   scripts/test.sh build-asan -DANALYTICSDB_SANITIZE=ON
#   scripts/test.sh build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=${1:-build}
shift || true
cmake -S . -B "$build" "$@"
cmake --build "$build" -j2
ctest --test-dir "$build" --output-on-failure -j2
