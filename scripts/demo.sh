#!/usr/bin/env bash
# Installs what is missing, builds the tool, and runs the embedded example: a room
# with a box obstacle, computed on every core, with a short summary. It configures
# build/ exactly as scripts/test.sh does, so the tests after it rebuild nothing
# the demo built.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target hemiray_cli -j "$(nproc)"
build/bin/hemiray demo "$@"
