"""The cost of computing through Python against the hemiray tool, on one model.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_vs_tool.py \
        --tool build/bin/hemiray --model room.msh --threads 2 --repeats 5

Each repeat runs both, in alternating order, as fresh processes:
  tool:   hemiray run MODEL -o RESULT --threads T  (reads the text model, computes,
          writes the text result)
  python: python3 -c "import hemiray; hemiray.view_factors(hemiray.read_model(MODEL),
          threads=T)"  (imports numpy and scipy, reads the model, computes into a
          scipy matrix)
and reports the median wall times, the ratio python / tool, and the median time
inside Python of read_model + view_factors alone.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

CHILD = """
import sys, time
import hemiray
start = time.perf_counter()
result = hemiray.view_factors(hemiray.read_model(sys.argv[1]), threads=int(sys.argv[2]))
print(time.perf_counter() - start)
"""


def timed(command, env=None):
    start = time.perf_counter()
    done = subprocess.run(command, check=True, capture_output=True, text=True, env=env)
    return time.perf_counter() - start, done.stdout


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--model", required=True)
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--repeats", type=int, default=5)
    args = parser.parse_args()

    tool, python, inside = [], [], []
    with tempfile.TemporaryDirectory() as folder:
        result = os.path.join(folder, "result.vf")
        for repeat in range(args.repeats):
            runs = ["tool", "python"] if repeat % 2 == 0 else ["python", "tool"]
            for which in runs:
                if which == "tool":
                    seconds, _ = timed([args.tool, "run", args.model, "-o", result, "--threads",
                                        str(args.threads), "--force"])
                    tool.append(seconds)
                else:
                    seconds, out = timed([sys.executable, "-c", CHILD, args.model,
                                          str(args.threads)])
                    python.append(seconds)
                    inside.append(float(out.strip().splitlines()[-1]))
    tool_median, python_median = statistics.median(tool), statistics.median(python)
    print(f"tool:   median {tool_median:.3f} s  ({', '.join(f'{t:.3f}' for t in tool)})")
    print(f"python: median {python_median:.3f} s  ({', '.join(f'{t:.3f}' for t in python)})")
    print(f"python inside (read_model + view_factors): median {statistics.median(inside):.3f} s")
    print(f"ratio python / tool: {python_median / tool_median:.3f}")


if __name__ == "__main__":
    main()
