#!/usr/bin/env bash
# Plots rays per second against faces from hemiray_e2e CSV files (written with
# --csv): one line per model, one thread, rays per CPU second of the row
# computations (on a shared machine that rate depends least on the neighbours).
#   scripts/plot-performance.sh AFTER.csv [BEFORE.csv] [OUT.png]
# BEFORE, when given, is drawn dashed. Needs gnuplot (apt-get install gnuplot-nox).
set -euo pipefail
after=${1:?usage: plot-performance.sh AFTER.csv [BEFORE.csv] [OUT.png]}
before=${2:-}
out=${3:-docs/images/rays-per-second.png}
command -v gnuplot > /dev/null || { echo "gnuplot is not installed (apt-get install gnuplot-nox)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# model,dimension,faces,threads,...: column 15 is rays_per_cpu_s.
split_models() {  # csv tag
    awk -F, -v dir="$work" -v tag="$2" 'NR > 1 && $4 == 1 { print $3, $15 > (dir "/" tag "-" $1 ".dat") }' "$1"
}
split_models "$after" after
[[ -n "$before" ]] && split_models "$before" before

models=(sphere room ring ring-axi)
titles=("3D sphere (triangles)" "3D room with obstacles (quads)" "planar ring" "axisymmetric ring")
colors=("#1b6ca8" "#c0392b" "#27ae60" "#8e44ad")
plots=()
for i in "${!models[@]}"; do
    m=${models[$i]}
    [[ -f "$work/after-$m.dat" ]] &&
        plots+=("'$work/after-$m.dat' using 1:2 with linespoints lw 2 pt 7 lc rgb '${colors[$i]}' title '${titles[$i]}'")
    [[ -f "$work/before-$m.dat" ]] &&
        plots+=("'$work/before-$m.dat' using 1:2 with linespoints lw 1 dt 2 pt 6 lc rgb '${colors[$i]}' title '${titles[$i]}, before'")
done
mkdir -p "$(dirname "$out")"
gnuplot <<EOF
set terminal pngcairo size 900,620 font ",12" noenhanced
set output '$out'
set logscale xy
set xrange [600:1.6e6]
set grid xtics ytics mxtics mytics lc rgb '#dddddd'
set xlabel 'faces'
set ylabel 'rays per second, one thread (CPU time)'
set title 'Tracing rate against model size (hemiray_e2e, 192 directions per face)'
set key inside left bottom font ",10" spacing 1.1 box opaque
set format y '%.0s%c'
set format x '%.0s%c'
plot $(IFS=,; echo "${plots[*]}")
EOF
echo "wrote $out"
