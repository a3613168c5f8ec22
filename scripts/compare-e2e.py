#!/usr/bin/env python3
"""Before/after comparison of two hemiray_e2e binaries on a shared machine.

    scripts/compare-e2e.py BEFORE_E2E AFTER_E2E [--models sphere,room,ring,ring-axi]
        [--faces 1000,10000,100000,1000000] [--threads 1] [--resolution 8]
        [--rounds 2] [--csv PREFIX]

Each configuration runs alternately in the two binaries (one process each,
hemiray_e2e --one), --rounds times, and the best rate of each is kept: other
work on the machine can only slow a run down. Rates are rays per CPU second of
the row phase of the library's run loop (hemiray_e2e's rays_per_cpu_s). With --csv the kept runs
are written as PREFIX-before.csv and PREFIX-after.csv in hemiray_e2e's CSV form,
ready for scripts/plot-performance.sh.
"""
import argparse
import subprocess

parser = argparse.ArgumentParser()
parser.add_argument("before")
parser.add_argument("after")
parser.add_argument("--models", default="sphere,room,ring,ring-axi")
parser.add_argument("--faces", default="1000,10000,100000,1000000")
parser.add_argument("--threads", default="1")
parser.add_argument("--resolution", default="8")
parser.add_argument("--rounds", type=int, default=2)
parser.add_argument("--csv")
args = parser.parse_args()

COLUMNS = ("model,dimension,faces,threads,resolution,directions,rays,model_s,geometry_s,"
           "tree_build_s,rows_s,run_s,rays_per_s,rows_cpu_s,rays_per_cpu_s,row_sum_mean,"
           "peak_rss_mib,base_rss_mib").split(",")


def run(binary, model, faces, threads):
    resolution = str(12 * int(args.resolution)) if model == "ring" else args.resolution
    line = subprocess.run([binary, "--one", model, faces, threads, resolution],
                          check=True, capture_output=True, text=True).stdout.strip()
    return dict(zip(COLUMNS, line.split(",")))


def memory(r):
    """Peak resident size above the one at start (ru_maxrss survives exec, so a
    child started from a large parent starts high)."""
    return float(r["peak_rss_mib"]) - float(r["base_rss_mib"])


rows = []
print("| model | faces | threads | before rays/CPU-s | after rays/CPU-s | after/before | "
      "tree build before (s) | after (s) | memory before (MiB) | after (MiB) |")
print("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
for model in args.models.split(","):
    for faces in args.faces.split(","):
        for threads in args.threads.split(","):
            best = {}
            for _ in range(args.rounds):
                for tag, binary in (("before", args.before), ("after", args.after)):
                    r = run(binary, model, faces, threads)
                    if tag not in best or float(r["rays_per_cpu_s"]) > float(best[tag]["rays_per_cpu_s"]):
                        best[tag] = r
            b, a = best["before"], best["after"]
            rb, ra = float(b["rays_per_cpu_s"]), float(a["rays_per_cpu_s"])
            rows.append((model, a["faces"], threads, rb, ra, b, a))
            print(f"| {model} | {a['faces']} | {threads} | {rb / 1e3:.0f} k | {ra / 1e3:.0f} k | "
                  f"{ra / rb:.2f} | {float(b['tree_build_s']):.3f} | {float(a['tree_build_s']):.3f} | "
                  f"{memory(b):.0f} | {memory(a):.0f} |", flush=True)

if args.csv:
    for tag, index in (("before", -2), ("after", -1)):
        with open(f"{args.csv}-{tag}.csv", "w") as out:
            out.write(",".join(COLUMNS) + "\n")
            for row in rows:
                out.write(",".join(row[index].get(c, "") for c in COLUMNS) + "\n")
