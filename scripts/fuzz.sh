#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang++ under ASan and UBSan, makes a
# starting corpus from the example models and runs every target.
#   scripts/fuzz.sh --smoke            45 s per target (CI)
#   scripts/fuzz.sh [SECONDS]          SECONDS per target (default 600)
#   scripts/fuzz.sh --target NAME [SECONDS]
# An input that fails is copied to fuzz/regressions/<target>/, where the ordinary
# test run replays it from then on. docs/fuzzing.md has the details.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(model_text block result_text)
seconds=600
while [[ $# -gt 0 ]]; do
  case "$1" in
    --smoke) seconds=45 ;;
    --target) targets=("$2"); shift ;;
    *) seconds="$1" ;;
  esac
  shift
done
build=${HEMIRAY_FUZZ_BUILD:-build-fuzz}

# Skipped, not failed, where the toolchain lacks clang or its fuzzer runtime.
probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' \
  > "$probe/probe.cpp"
if ! command -v clang++ > /dev/null ||
   ! clang++ -fsanitize=fuzzer "$probe/probe.cpp" -o "$probe/probe" 2> /dev/null; then
  echo "fuzz: skipped: clang++ with its libFuzzer runtime is missing (Debian: clang libclang-rt-dev)"
  exit 0
fi

launcher=()
command -v ccache > /dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHEMIRAY_FUZZ=ON -DHEMIRAY_BUILD_TESTS=OFF \
  -DHEMIRAY_BUILD_BENCH=OFF -DHEMIRAY_BUILD_TOOLS=OFF "${launcher[@]}" > /dev/null
cmake --build "$build" -j "${HEMIRAY_FUZZ_JOBS:-2}" --target hemiray_cli \
  $(printf 'fuzz_%s ' "${targets[@]}")

# Starting inputs: every example model, its packed block and its text and binary
# results, small enough for the fuzzer to mutate quickly.
corpus="$build/corpus"
if [[ ! -d "$corpus/result_text" ]]; then
  mkdir -p "$corpus"/{model_text,block,result_text}
  tool="$build/bin/hemiray"
  export ASAN_OPTIONS=detect_leaks=0
  for case in $("$tool" gen --list | awk '{print $1}'); do
    for n in 1 2; do
      model="$corpus/model_text/$case-$n.msh"
      "$tool" gen "$case" -o "$model" --n "$n" --res 2 > /dev/null
      "$tool" block "$model" -o "$corpus/block/$case-$n.blk" > /dev/null
      "$tool" run "$model" -o "$corpus/result_text/$case-$n.vf" --threads 1 > /dev/null
      "$tool" run "$model" -o "$corpus/result_text/$case-$n.bin.vf" --threads 1 --binary > /dev/null
    done
  done
  unset ASAN_OPTIONS
fi

status=0
for target in "${targets[@]}"; do
  artifacts="$build/artifacts/$target"
  mkdir -p "$artifacts" "fuzz/regressions/$target"
  log="$build/fuzz_$target.log"
  if ! "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -rss_limit_mb=2048 \
      -max_len=65536 -print_final_stats=1 -artifact_prefix="$artifacts/" \
      "$corpus/$target" "fuzz/regressions/$target" > "$log" 2>&1; then
    status=1
    for found in "$artifacts"/*; do
      [[ -f "$found" ]] && cp "$found" "fuzz/regressions/$target/"
    done
    echo "fuzz: $target FAILED; its input is now in fuzz/regressions/$target/ ($log):"
    grep -E "ERROR|SUMMARY|undefined input error" "$log" | head -5
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo 0)
  echo "fuzz: $target: $runs executions in ${seconds} s"
done
exit "$status"
