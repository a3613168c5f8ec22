#!/usr/bin/env python3
"""Runs hemiray_embree_bench and prints this library's rays per second as a ratio
against Embree's, both measured in the same run on the same rays.

    scripts/embree-ratio.py [BUILD_DIR] [extra benchmark arguments...]

Uses the medians of five repetitions of rays per second over wall time; Google
Benchmark sums the rate over the benchmark's threads, so it is divided by the
thread count here.
"""
import json
import os
import subprocess
import sys

build = sys.argv[1] if len(sys.argv) > 1 else "build"
binary = os.path.join(build, "bench", "hemiray_embree_bench")
if not os.path.exists(binary):
    sys.exit(f"{binary} not found: configure with Debian's libembree-dev installed")
command = [binary, "--benchmark_format=json", "--benchmark_repetitions=5",
           "--benchmark_report_aggregates_only=true"] + sys.argv[2:]
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
        alternating[(int(parts[1]), int(parts[2]))] = (
            bench["faces"], bench["hemirayRate"], bench["embreeRate"], bench["ratio"])
        continue
    engine, model, faces = parts[0][3:], int(parts[1]), int(parts[2])
    threads = int(parts[-1].split(":")[1])
    key = (engine, model, faces, threads)
    rates[key] = bench["items_per_second"] / threads
    extras[key] = (bench.get("faces", 0), bench.get("hitShare", 0), bench.get("agreement", 0))

names = {0: "sphere (triangles)", 1: "room (quads)"}
print("Alternating in one benchmark (BM_Ratio, one thread, median of 5):\n")
print("| model | faces | hemiray rays/s | Embree rays/s | ratio |")
print("|---|---:|---:|---:|---:|")
for (model, _), (faces, ours, embree, ratio) in sorted(alternating.items()):
    print(f"| {names[model]} | {int(faces)} | {ours / 1e3:.0f} k | {embree / 1e3:.0f} k | {ratio:.3f} |")
print("\nSeparate benchmarks per engine (medians of 5, rays/s per thread):\n")
print("| model | faces | threads | hemiray rays/s/thread | Embree rays/s/thread | ratio | same face |")
print("|---|---:|---:|---:|---:|---:|---:|")
for (engine, model, faces, threads), rate in sorted(rates.items(), key=lambda kv: kv[0][1:]):
    if engine != "Hemiray":
        continue
    embree = rates.get(("Embree", model, faces, threads))
    if not embree:
        continue
    actual_faces, _, _ = extras[(engine, model, faces, threads)]
    agreement = extras[("Embree", model, faces, threads)][2]
    print(f"| {names[model]} | {int(actual_faces)} | {threads} | {rate / 1e3:.0f} k | "
          f"{embree / 1e3:.0f} k | {rate / embree:.3f} | {100 * agreement:.3f} % |")
