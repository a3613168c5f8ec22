#!/usr/bin/python3
"""Tables and error laws of docs/accuracy.md from the accuracy study's CSV.

Usage: scripts/accuracy_report.py docs/accuracy-data/accuracy.csv docs/accuracy-data/bins.csv [docs/accuracy.md]
Prints the fitted error laws (the constants of cli/ErrorBands.cpp); with the
document's name, replaces the tables between its BEGIN GENERATED / END GENERATED
markers.
"""
import csv
import re
import sys

import numpy as np

MODES = ["3d", "planar", "axisymmetric"]


def fit(bins, mode):
    """log(mean error) = log C + a log F - p log R - q log n over the decades of exact
    factors F, resolutions R and glob sizes n, each decade weighted by the square root of its pair count. The scatter is
    exp(2 x the weighted rms of the log residuals): the law times it covers most points."""
    pts = [r for r in bins if r["mode"] == mode]
    X = np.array([[1, np.log(float(r["mean_factor"])), -np.log(int(r["resolution"])),
                   -np.log(int(r["faces_per_glob"]))] for r in pts])
    y = np.log([float(r["mean_error"]) for r in pts])
    w = np.sqrt([int(r["pairs"]) for r in pts])
    sol, *_ = np.linalg.lstsq(X * w[:, None], y * w, rcond=None)
    residual = y - X @ sol
    rms = np.sqrt(np.sum(w * w * residual ** 2) / np.sum(w * w))
    return np.exp(sol[0]), sol[1], sol[2], sol[3], max(3.0, np.exp(2 * rms))


def table(rows, mode, columns):
    res = sorted({int(r["resolution"]) for r in rows if r["mode"] == mode})
    out = ["| faces per glob | globs | " + " | ".join(f"R = {R}" for R in res) + " |",
           "|---|---|" + "---|" * len(res)]
    for n in sorted({int(r["faces_per_glob"]) for r in rows if r["mode"] == mode}):
        sel = {int(r["resolution"]): r for r in rows if r["mode"] == mode and int(r["faces_per_glob"]) == n}
        cells = []
        for R in res:
            vals = [float(sel[R][c]) for c in columns]
            cells.append(" / ".join(f"{v:.1e}" for v in vals))
        out.append(f"| {n} | {sel[res[0]]['globs']} | " + " | ".join(cells) + " |")
    return "\n".join(out)


def cost(rows, mode):
    """Rays per face and CPU seconds per 1000 faces, from the one-face globs."""
    res = sorted({int(r["resolution"]) for r in rows if r["mode"] == mode})
    sel = {int(r["resolution"]): r for r in rows if r["mode"] == mode and r["faces_per_glob"] == "1"}
    faces = int(sel[res[0]]["globs"])
    out = ["| | " + " | ".join(f"R = {R}" for R in res) + " |", "|---|" + "---|" * len(res)]
    out.append("| rays per face | " + " | ".join(f"{int(sel[R]['rays']) // faces:,}" for R in res) + " |")
    out.append("| CPU s per 1000 faces | " + " | ".join(
        f"{float(sel[R]['seconds']) * 1000 / faces:.3g}" for R in res) + " |")
    return "\n".join(out)


def main():
    rows = list(csv.DictReader(open(sys.argv[1])))
    bins = list(csv.DictReader(open(sys.argv[2])))
    blocks = {}
    laws = ["| mode | C | a (factor) | p (resolution) | q (faces) | scatter |", "|---|---|---|---|---|---|"]
    for mode in MODES:
        c, a, p, q, scatter = fit(bins, mode)
        print(f"{mode}: {{{c:.3g}, {a:.3g}, {p:.3g}, {q:.3g}, {scatter:.3g}}}")
        laws.append(f"| {mode} | {c:.2g} | {a:.2f} | {p:.2f} | {q:.2f} | {scatter:.1f} |")
        blocks[f"factors-{mode}"] = table(rows, mode, ["mean_error", "repaired_mean_error", "weighted_mean_error"])
        blocks[f"largest-{mode}"] = table(rows, mode, ["max_error", "repaired_max_error", "weighted_max_error"])
        blocks[f"rows-{mode}"] = table(rows, mode, ["max_row_error", "repaired_max_row_error"])
        blocks[f"reciprocity-{mode}"] = table(rows, mode, ["reciprocity"])
        blocks[f"cost-{mode}"] = cost(rows, mode)
    blocks["laws"] = "\n".join(laws)
    if len(sys.argv) > 3:
        text = open(sys.argv[3]).read()
        for name, body in blocks.items():
            text = re.sub(f"(<!-- BEGIN GENERATED {name} -->\n).*?(<!-- END GENERATED {name} -->)",
                          lambda m: m.group(1) + body + "\n" + m.group(2), text, flags=re.S)
        open(sys.argv[3], "w").write(text)


if __name__ == "__main__":
    main()
