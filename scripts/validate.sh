#!/usr/bin/env bash
# Reruns the accuracy study of docs/validation.md: builds hemiray_validate, sweeps
# the hemisphere resolution from 4 to 200 over every validation case (two processes,
# one per core), keeps the CSV tables in docs/validation-data/, draws the plots into
# docs/images/ with gnuplot and rewrites the generated tables of docs/validation.md.
#   scripts/validate.sh           the full study (about five minutes on two cores)
#   scripts/validate.sh --quick   small meshes and three resolutions, written into
#                                 build/validation-quick/; the docs stay untouched
set -euo pipefail
cd "$(dirname "$0")/.."

quick=false
case "${1:-}" in
  "") ;;
  --quick) quick=true ;;
  *) echo "usage: scripts/validate.sh [--quick]" >&2; exit 2 ;;
esac

scripts/install-deps.sh
# gnuplot draws the plots and python3 writes the tables; only this study needs
# them, so they are installed here rather than by install-deps.sh.
missing=()
command -v gnuplot >/dev/null || missing+=(gnuplot-nox)
command -v python3 >/dev/null || missing+=(python3)
if [[ ${#missing[@]} -gt 0 ]]; then
  echo "installing: ${missing[*]}"
  sudo=()
  [[ $(id -u) -eq 0 ]] || sudo=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}" ||
    { "${sudo[@]}" apt-get update && "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; }
fi

cmake -S . -B build -G Ninja -DHEMIRAY_WERROR=ON -DHEMIRAY_BUILD_TOOLS=ON >/dev/null
cmake --build build --target hemiray_validate -j "$(nproc)"
bin=build/bin/hemiray_validate

flags=()
if $quick; then
  flags=(--quick --resolutions 4,16,64)
  data=build/validation-quick
  images=build/validation-quick
else
  data=docs/validation-data
  images=docs/images
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
start=$(date +%s)
# The 3D cases take about as long as everything else together.
"$bin" "${flags[@]}" --mode 3d --part cases --out "$work/3d" | sed -u 's/^/[3d] /' &
threeD=$!
{
  "$bin" "${flags[@]}" --mode planar,axisymmetric --part cases --out "$work/rest"
  "$bin" "${flags[@]}" --part refinement --out "$work/rest"
  "$bin" "${flags[@]}" --part equivalence --out "$work/rest"
} | sed -u 's/^/[2d] /'
wait "$threeD"
echo "sweep: $(( $(date +%s) - start )) s"

# One table each: planar and axisymmetric lines first, then the 3D ones.
mkdir -p "$data"
for table in convergence comparisons; do
  { cat "$work/rest/$table.csv"; tail -n +2 "$work/3d/$table.csv"; } > "$data/$table.csv"
done
cp "$work/rest/refinement.csv" "$work/rest/equivalence.csv" "$data/"

if $quick; then
  python3 scripts/validation_report.py "$data" "$images"
else
  python3 scripts/validation_report.py "$data" "$images" docs/validation.md
fi
echo "validation: tables in $data, plots in $images"
