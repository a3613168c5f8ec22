#!/usr/bin/env python3
"""Runs hemiray_embree_bench and prints this library's rays per second (through the
BSP tree's flat copy and through the BVH of 3D runs, two rays at a time as runs
trace them, and one at a time) as a ratio against Embree's,
all measured in the same run on the same rays, with the BVH's fallbacks to the
tree, build times and bytes per face.

    scripts/embree-ratio.py [BUILD_DIR] [--plot OUT.png] [extra benchmark arguments...]

--plot draws BM_Ratio's rates against faces with gnuplot (apt-get install
gnuplot-nox): BSP, the BVH two rays and one ray at a time, and Embree.

Uses the medians of the repetitions (five unless --benchmark_repetitions is given);
BM_Ratio's rates are rays per CPU second of its one thread; the separate
benchmarks' rates are over wall time, summed by Google Benchmark over the threads,
so they are divided by the thread count here.
"""
import json
import os
import subprocess
import sys

build = sys.argv[1] if len(sys.argv) > 1 else "build"
binary = os.path.join(build, "bench", "hemiray_embree_bench")
if not os.path.exists(binary):
    sys.exit(f"{binary} not found: configure with Debian's libembree-dev installed")
extra = sys.argv[2:]
plot = None
if "--plot" in extra:
    at = extra.index("--plot")
    plot = extra[at + 1]
    del extra[at:at + 2]
repetitions = [] if any(a.startswith("--benchmark_repetitions") for a in extra) else [
    "--benchmark_repetitions=5"]
command = [binary, "--benchmark_format=json", "--benchmark_report_aggregates_only=true"] + \
    repetitions + extra
report = json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)

alternating = {}  # (model, faces) -> (hemiray rays/s, Embree rays/s, ratio), one thread
rates = {}    # (engine, model, faces, threads) -> rays/s per thread
extras = {}   # same key -> (faces, hit share, agreement)
for bench in report["benchmarks"]:
    if bench.get("aggregate_name") != "median":
        continue
    # BM_Hemiray/0/100000/real_time/threads:1_median, BM_Ratio/0/100000
    parts = bench["run_name"].split("/")
    if parts[0] == "BM_Ratio":
        alternating[(int(parts[1]), int(parts[2]))] = bench
        continue
    engine, model, faces = parts[0][3:], int(parts[1]), int(parts[2])
    threads = int(parts[-1].split(":")[1])
    key = (engine, model, faces, threads)
    rates[key] = bench["items_per_second"] / threads
    extras[key] = (bench.get("faces", 0), bench.get("hitShare", 0), bench.get("agreement", 0))

names = {0: "sphere (triangles)", 1: "room (quads)"}
print("Alternating in one benchmark (BM_Ratio, one thread, rays per CPU second, medians):\n")
print("| model | faces | BSP rays/s | BVH rays/s | Embree rays/s | BSP / Embree | BVH / Embree "
      "| BVH one ray at a time / Embree | BVH / BSP | fallbacks per ray | BVH hits unlike BSP's "
      "| build BSP / BVH / Embree (s) | bytes per face BSP / BVH |")
print("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
for (model, _), b in sorted(alternating.items()):
    print(f"| {names[model]} | {int(b['faces'])} | {b['bspRate'] / 1e3:.0f} k | {b['bvhRate'] / 1e3:.0f} k "
          f"| {b['embreeRate'] / 1e3:.0f} k | {b['bspRatio']:.3f} | {b['bvhRatio']:.3f} "
          f"| {b['bvhSingleRatio']:.3f} "
          f"| {b['bvhRate'] / b['bspRate']:.2f} | {b['fallbackShare']:.2e} | {int(b['mismatches'])} "
          f"| {b['bspBuildS']:.3f} / {b['bvhBuildS']:.3f} / {b['embreeBuildS']:.3f} "
          f"| {b['bspBytesPerFace']:.0f} / {b['bvhBytesPerFace']:.0f} |")
print("\nSeparate benchmarks per engine (medians, rays/s per thread):\n")
print("| model | faces | threads | BSP rays/s/thread | BVH rays/s/thread | Embree rays/s/thread "
      "| BVH / Embree | same face |")
print("|---|---:|---:|---:|---:|---:|---:|---:|")
for (engine, model, faces, threads), rate in sorted(rates.items(), key=lambda kv: kv[0][1:]):
    if engine != "Hemiray":
        continue
    embree = rates.get(("Embree", model, faces, threads))
    bvh = rates.get(("Bvh", model, faces, threads))
    if not embree or not bvh:
        continue
    actual_faces, _, _ = extras[(engine, model, faces, threads)]
    agreement = extras[("Embree", model, faces, threads)][2]
    print(f"| {names[model]} | {int(actual_faces)} | {threads} | {rate / 1e3:.0f} k | {bvh / 1e3:.0f} k | "
          f"{embree / 1e3:.0f} k | {bvh / embree:.3f} | {100 * agreement:.3f} % |")

if plot:
    curves = [("bspRate", "BSP walk", 6, 2), ("bvhSingleRate", "BVH, one ray at a time", 4, 2),
              ("bvhRate", "BVH, two rays at a time (runs)", 7, 1), ("embreeRate", "Embree rtcIntersect1", 5, 1)]
    colors = {0: "#1b6ca8", 1: "#c0392b"}
    data, plots = [], []
    for model in (0, 1):
        for key, title, point, dash in curves:
            points = sorted((int(b["faces"]), b[key]) for (m, _), b in alternating.items() if m == model)
            if not points:
                continue
            data.append("\n".join(f"{f} {r}" for f, r in points) + "\ne\n")
            plots.append(f"'-' using 1:2 with linespoints lw 2 dt {dash} pt {point} "
                         f"lc rgb '{colors[model]}' title '{names[model]}: {title}'")
    script = (f"set terminal pngcairo size 900,620 font ',11' noenhanced\nset output '{plot}'\n"
              "set logscale xy\nset grid xtics ytics mxtics mytics lc rgb '#dddddd'\n"
              "set xlabel 'faces'\nset ylabel 'rays per CPU second, one thread'\n"
              "set key outside below\n"
              "plot " + ", ".join(plots) + "\n" + "".join(data))
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
