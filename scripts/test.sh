#!/usr/bin/env bash
# Installs what is missing, configures, builds everything and runs every test.
#   scripts/test.sh              release build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

build=build
flags=(-DCMAKE_BUILD_TYPE=Release)
if [[ "${1:-}" == "--sanitize" ]]; then
  build=build-asan
  flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DHEMIRAY_SANITIZE=ON -DHEMIRAY_BUILD_BENCH=OFF)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi

jobs=$(nproc)
cmake -S . -B "$build" -G Ninja -DHEMIRAY_WERROR=ON "${flags[@]}"
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" --output-on-failure -j "$jobs"
