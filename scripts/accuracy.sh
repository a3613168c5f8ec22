#!/usr/bin/env bash
# Reruns the study of docs/accuracy.md: builds hemiray_accuracy (tools/accuracy/),
# measures the error of factors and row sums against exact factors for globs of 1,
# 4, 16 and 64 faces in the three modes, before and after repair, keeps the CSV
# tables in docs/accuracy-data/ and rewrites the document's generated tables. It
# prints the fitted error laws; cli/ErrorBands.cpp holds them as constants.
# About 2 minutes of CPU.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build -G Ninja -DHEMIRAY_WERROR=ON -DHEMIRAY_BUILD_TOOLS=ON >/dev/null
cmake --build build --target hemiray_accuracy -j 2
build/bin/hemiray_accuracy --resolutions 4,8,10,16,20,32,64,128 \
  --bins docs/accuracy-data/bins.csv > docs/accuracy-data/accuracy.csv
/usr/bin/python3 scripts/accuracy_report.py docs/accuracy-data/accuracy.csv \
  docs/accuracy-data/bins.csv docs/accuracy.md
