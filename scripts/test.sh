#!/usr/bin/env bash
# Installs what is missing, configures, builds everything and runs every test.
#   scripts/test.sh              release build in build/ (preset "release")
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in
#                                build-asan/ (preset "asan")
# Extra CMake cache settings may follow, e.g. -DCMAKE_CXX_COMPILER_LAUNCHER=ccache.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

preset=release
if [[ "${1:-}" == "--sanitize" ]]; then
  preset=asan
  shift
fi

jobs=$(nproc)
cmake --preset "$preset" "$@"
cmake --build --preset "$preset" -j "$jobs"
ctest --preset "$preset" -j "$jobs"
