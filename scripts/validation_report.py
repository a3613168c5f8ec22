#!/usr/bin/env python3
"""Turns the CSV tables of hemiray_validate into the plots and tables of
docs/validation.md.

    validation_report.py DATA_DIR IMAGE_DIR [MARKDOWN]

Draws IMAGE_DIR/validation-<mode>.png with gnuplot (error against resolution,
sampling error against resolution, error against run time) and, when MARKDOWN is
given, rewrites the text between its "<!-- BEGIN GENERATED name -->" and
"<!-- END GENERATED name -->" lines. Standard library only.
"""

import csv
import math
import os
import re
import subprocess
import sys
import tempfile

MODES = [("planar", "Planar"), ("axisymmetric", "Axisymmetric"), ("3d", "Three-dimensional")]


def read(path):
    if not os.path.exists(path):
        return []
    with open(path, newline="") as f:
        return list(csv.DictReader(f))


def ordered(values):
    seen = []
    for v in values:
        if v not in seen:
            seen.append(v)
    return seen


def sci(value, digits=1):
    v = float(value)
    if v < 0:
        return "–"
    if v == 0:
        return "0"
    return f"{v:.{digits}e}".replace("e-0", "e-").replace("e+0", "e+")


def seconds(value):
    v = float(value)
    if v < 0.001:
        return "<0.001"
    if v < 10:
        return f"{v:.3f}"
    return f"{v:.1f}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" for _ in header) + "|"]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def by_case(rows, mode):
    cases = ordered(r["case"] for r in rows if r["mode"] == mode)
    return {c: [r for r in rows if r["mode"] == mode and r["case"] == c] for c in cases}


def resolution_table(rows, mode, field):
    cases = by_case(rows, mode)
    resolutions = ordered(r["resolution"] for r in rows if r["mode"] == mode)
    body = []
    for name, lines in cases.items():
        at = {r["resolution"]: r for r in lines}
        body.append([name] + [sci(at[res][field]) if res in at else "" for res in resolutions])
    return table(["case"] + [f"R = {res}" for res in resolutions], body)


def cost_table(rows, mode):
    cases = by_case(rows, mode)
    resolutions = ordered(r["resolution"] for r in rows if r["mode"] == mode)
    body = []
    for name, lines in cases.items():
        at = {r["resolution"]: r for r in lines}
        body.append([name, lines[0]["faces"]] + [seconds(at[res]["seconds"]) if res in at else ""
                                                   for res in resolutions])
    return table(["case", "faces"] + [f"R = {res}" for res in resolutions], body)


def summary_table(rows, mode):
    body = []
    for name, lines in by_case(rows, mode).items():
        last = lines[-1]
        closure = max(float(r["closure"]) for r in lines)
        body.append([name, last["faces"], sci(last["mesh_error"]),
                     sci(closure) if closure >= 0 else "open",
                     sci(last["reciprocity"]), last["resolution"]])
    return table(["case", "faces", "mesh error", "worst closure |row sum − 1|",
                  "reciprocity at the highest R", "highest R"], body)


def refinement_table(rows):
    body = [[r["mode"], r["case"], r["faces"], sci(r["max_abs_error"]), sci(r["mesh_error"]),
             sci(r["sampling_error"]), seconds(r["seconds"])] for r in rows]
    resolution = rows[0]["resolution"] if rows else "?"
    return table(["mode", "case", "faces", f"error at R = {resolution}", "mesh error",
                  "sampling error", "seconds"], body)


def equivalence_table(rows):
    models = ordered((r["mode"], r["model"]) for r in rows)
    resolutions = ordered(r["resolution"] for r in rows)
    body = []
    for mode, model in models:
        lines = [r for r in rows if r["mode"] == mode and r["model"] == model]
        at = {r["resolution"]: r for r in lines}
        worst = max(float(r["reduced_closure"]) for r in lines)
        body.append([mode, model] + [sci(at[res]["max_difference"]) if res in at else "" for res in resolutions]
                    + [sci(worst)])
    return table(["mode", "reduced model"] + [f"R = {res}" for res in resolutions]
                 + ["worst closure of the reduced model"], body)


def generated_sections(convergence, refinement, equivalence):
    sections = {}
    for mode, _ in MODES:
        if not any(r["mode"] == mode for r in convergence):
            continue
        sections[f"error-{mode}"] = resolution_table(convergence, mode, "max_abs_error")
        sections[f"sampling-{mode}"] = resolution_table(convergence, mode, "sampling_error")
        sections[f"seconds-{mode}"] = cost_table(convergence, mode)
        sections[f"summary-{mode}"] = summary_table(convergence, mode)
    if refinement:
        sections["refinement"] = refinement_table(refinement)
    if equivalence:
        sections["equivalence"] = equivalence_table(equivalence)
    return sections


def rewrite_markdown(path, sections):
    with open(path) as f:
        text = f.read()
    for name, body in sections.items():
        pattern = re.compile(r"(<!-- BEGIN GENERATED %s -->\n).*?(<!-- END GENERATED %s -->)"
                             % (re.escape(name), re.escape(name)), re.S)
        text, count = pattern.subn(lambda m: m.group(1) + body + "\n" + m.group(2), text)
        if count == 0:
            print(f"validation_report: no section '{name}' in {path}", file=sys.stderr)
    with open(path, "w") as f:
        f.write(text)


def plot(convergence, image_dir):
    os.makedirs(image_dir, exist_ok=True)
    with tempfile.TemporaryDirectory() as work:
        for mode, title in MODES:
            cases = by_case(convergence, mode)
            if not cases:
                continue
            files = []
            for k, (name, lines) in enumerate(cases.items()):
                path = os.path.join(work, f"{mode}-{k}.dat")
                with open(path, "w") as f:
                    for r in lines:
                        # Log axes: exact zeros and unmeasurably short times are floored.
                        f.write("%s %.6e %.6e %.6e\n" % (
                            r["resolution"], max(float(r["max_abs_error"]), 1e-16),
                            max(float(r["sampling_error"]), 1e-16), max(float(r["seconds"]), 1e-4)))
                files.append((path, name))
            # A decade of room below the data holds the key.
            values = [max(float(r[f]), 1e-16) for lines in cases.values() for r in lines
                      for f in ("max_abs_error", "sampling_error")]
            low = 10.0 ** (math.floor(math.log10(min(values))) - 1)
            high = 10.0 ** math.ceil(math.log10(max(values)))
            image = os.path.join(image_dir, f"validation-{mode}.png")
            script = [
                'set terminal pngcairo size 1800,620 font "DejaVu Sans,12" linewidth 1.5',
                f'set output "{image}"',
                f'set multiplot layout 1,3 title "{title}: view-factor error" font ",15"',
                # Colour-blind-safe, and dark enough on white.
                "set linetype 1 lc rgb '#0072b2'", "set linetype 2 lc rgb '#d55e00'",
                "set linetype 3 lc rgb '#009e73'", "set linetype 4 lc rgb '#cc79a7'",
                "set linetype 5 lc rgb '#7a5c00'", "set linetype 6 lc rgb '#56b4e9'",
                "set linetype 7 lc rgb '#000000'",
                "set logscale xy",
                "set grid xtics ytics mxtics mytics lc rgb '#dddddd'",
                "set format y '10^{%L}'",
                "set key bottom left font ',10' samplen 2 spacing 1.1",
                f"set yrange [{low:g}:{high:g}]",
                "set ylabel 'largest |F − F_{exact}|'",
                "set xlabel 'hemisphere resolution R'",
                "set xrange [3:260]",
                "set title 'error against the closed form'",
            ]

            def curves(columns, extra=""):
                parts = [f"'{p}' using {columns} with linespoints lw 2 pt {7 + i % 6} ps 1.1 title '{n}'"
                         for i, (p, n) in enumerate(files)]
                return "plot " + ", \\\n     ".join(parts) + extra

            script.append(curves("1:2"))
            script += ["set title 'sampling error: against the mean of the exact point factors'",
                       "set ylabel 'largest |F − F_{mesh}|'"]
            slopes = (", \\\n     0.3/x lw 1 dt 2 lc rgb '#888888' title '0.3 / R', "
                      "0.3/x**2 lw 1 dt 3 lc rgb '#444444' title '0.3 / R^2'")
            script.append(curves("1:3", slopes))
            script += ["set title 'error against run time'", "set xlabel 'CPU seconds for the rows (one core)'",
                       "set ylabel 'largest |F − F_{exact}|'", "set autoscale x",
                       "set format x '10^{%L}'"]
            script.append(curves("4:2"))
            script.append("unset multiplot")
            gp = os.path.join(work, f"{mode}.gp")
            with open(gp, "w") as f:
                f.write("\n".join(script) + "\n")
            subprocess.run(["gnuplot", gp], check=True)
            print(f"validation_report: wrote {image}")


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    data, images = sys.argv[1], sys.argv[2]
    convergence = read(os.path.join(data, "convergence.csv"))
    if not convergence:
        sys.exit(f"validation_report: no {data}/convergence.csv")
    plot(convergence, images)
    if len(sys.argv) == 4:
        sections = generated_sections(convergence, read(os.path.join(data, "refinement.csv")),
                                      read(os.path.join(data, "equivalence.csv")))
        rewrite_markdown(sys.argv[3], sections)
        print(f"validation_report: rewrote the tables of {sys.argv[3]}")


if __name__ == "__main__":
    main()
