#!/usr/bin/env bash
# Installs what is missing, builds everything, and runs the embedded example:
# a room with a box obstacle, computed on every core, with a short summary.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build -j "$(nproc)"
build/bin/hemiray demo "$@"
