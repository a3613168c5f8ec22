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

MODES = ["3d", "planar", "axisymmetric"]  # the modes whose error laws are fitted
# 3D enclosures measured besides the cube, for the goal of repair (not fitted).
EXTRA = ["sphere", "room"]
CASES = [("cube", "3d"), ("sphere", "sphere"), ("room", "room")]
GOAL_RESOLUTIONS = [10, 16, 20]


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


def goal(rows):
    """Change of the mean factor error by repair (plain mean / weighted) at the goal's
    resolutions, with the symmetric share of the error before repair in brackets."""
    out = ["| case | faces per glob | globs | " + " | ".join(f"R = {R}" for R in GOAL_RESOLUTIONS) + " |",
           "|---|---|---|" + "---|" * len(GOAL_RESOLUTIONS)]
    for case, mode in CASES:
        for n in sorted({int(r["faces_per_glob"]) for r in rows if r["mode"] == mode}):
            sel = {int(r["resolution"]): r for r in rows if r["mode"] == mode and int(r["faces_per_glob"]) == n}
            cells = []
            for R in GOAL_RESOLUTIONS:
                r = sel[R]
                before = float(r["mean_error"])
                change = [100 * (float(r[c]) / before - 1) for c in ("repaired_mean_error", "weighted_mean_error")]
                cells.append(" / ".join(f"{c:+.0f} %" for c in change) + f" ({float(r['symmetric_share']):.2f})")
            out.append(f"| {case} | {n} | {sel[GOAL_RESOLUTIONS[0]]['globs']} | " + " | ".join(cells) + " |")
    return "\n".join(out)


def reference(rows):
    """The sphere's reference: how closed and reciprocal the quadrature's exact factors
    are, and how far they lie from the true sphere's A_j / A."""
    out = ["| faces per glob | globs | largest closure gap | largest reciprocity gap | mean abs(F_exact - A_j/A) | mean error before repair, R = 20 |",
           "|---|---|---|---|---|---|"]
    for n in sorted({int(r["faces_per_glob"]) for r in rows if r["mode"] == "sphere"}):
        r = next(r for r in rows if r["mode"] == "sphere" and int(r["faces_per_glob"]) == n and r["resolution"] == "20")
        out.append(f"| {n} | {r['globs']} | {float(r['exact_closure']):.1e} | {float(r['exact_reciprocity']):.1e} | "
                   f"{float(r['closed_form_gap']):.1e} | {float(r['mean_error']):.1e} |")
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
    for mode in EXTRA:
        blocks[f"factors-{mode}"] = table(rows, mode, ["mean_error", "repaired_mean_error", "weighted_mean_error"])
        blocks[f"largest-{mode}"] = table(rows, mode, ["max_error", "repaired_max_error", "weighted_max_error"])
        blocks[f"reciprocity-{mode}"] = table(rows, mode, ["reciprocity"])
    blocks["goal"] = goal(rows)
    blocks["reference-sphere"] = reference(rows)
    blocks["laws"] = "\n".join(laws)
    if len(sys.argv) > 3:
        text = open(sys.argv[3]).read()
        for name, body in blocks.items():
            text = re.sub(f"(<!-- BEGIN GENERATED {name} -->\n).*?(<!-- END GENERATED {name} -->)",
                          lambda m: m.group(1) + body + "\n" + m.group(2), text, flags=re.S)
        open(sys.argv[3], "w").write(text)


if __name__ == "__main__":
    main()
