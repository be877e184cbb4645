#!/usr/bin/python3
"""Exact Ward side by side: `mvda cluster --method ward-exact` against fastcluster's linkage_vector.

Usage: bench/compare_fastcluster.py [--mvda PATH] [--rows 20000] [--columns 20] [--repeats 3]
                                    [--large 60000]

Writes one CSV of Gaussian blobs (complete data, float32 values printed exactly) and times, as
whole processes under /usr/bin/time, alternately:
  mvda:        mvda cluster CSV --method ward-exact --scale none --json > file  (no cache)
  fastcluster: python3 loading the same CSV with numpy and running linkage_vector(x, 'ward')
Reports the median wall time, CPU time (user + system) and peak resident memory of each, their
ratio, and whether the sorted heights agree to float precision. With --large, also times mvda
alone on a CSV of that many rows. The machine may be shared: read the ratio of one run, not the
absolute times.
"""
import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile

import numpy as np

PEER = r"""
import sys, numpy as np, fastcluster
x = np.loadtxt(sys.argv[1], delimiter=',', skiprows=1,
               usecols=range(1, int(sys.argv[2]) + 1), dtype=np.float64)
z = fastcluster.linkage_vector(x, method='ward')
np.save(sys.argv[3], z[:, 2])
"""


def write_csv(path, rows, columns, seed):
    rng = np.random.default_rng(seed)
    centres = rng.normal(scale=6.0, size=(12, columns))
    x = (centres[rng.integers(0, 12, rows)] + rng.normal(size=(rows, columns))).astype(np.float32)
    with open(path, "w") as f:
        f.write("Obs," + ",".join("V%d" % (j + 1) for j in range(columns)) + "\n")
        for i, row in enumerate(x):
            f.write("O%d," % (i + 1) + ",".join(repr(float(v)) for v in row) + "\n")


def timed(command, stdout_path):
    """Wall seconds, CPU seconds and peak RSS (MiB) of one process, from /usr/bin/time -v."""
    with open(stdout_path, "w") as out:
        done = subprocess.run(["/usr/bin/time", "-v"] + command, stdout=out,
                              stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit("failed: %s\n%s" % (" ".join(command), done.stderr))
    text = done.stderr

    def field(name):
        return re.search(re.escape(name) + r":\s*(\S+)", text).group(1)

    wall = 0.0
    for part in field("Elapsed (wall clock) time (h:mm:ss or m:ss)").split(":"):
        wall = wall * 60 + float(part)
    cpu = float(field("User time (seconds)")) + float(field("System time (seconds)"))
    return wall, cpu, int(field("Maximum resident set size (kbytes)")) / 1024.0


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--mvda", default=os.path.join(here, "..", "build", "release", "apps",
                                                       "mvda", "mvda"))
    parser.add_argument("--rows", type=int, default=20000)
    parser.add_argument("--columns", type=int, default=20)
    parser.add_argument("--repeats", type=int, default=3)
    parser.add_argument("--large", type=int, default=0)
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as folder:
        csv = os.path.join(folder, "blobs.csv")
        write_csv(csv, args.rows, args.columns, 1)
        ours_json = os.path.join(folder, "mvda.json")
        theirs_npy = os.path.join(folder, "heights.npy")
        mvda = [args.mvda, "cluster", csv, "--method", "ward-exact", "--scale", "none", "--json"]
        peer = ["/usr/bin/python3", "-c", PEER, csv, str(args.columns), theirs_npy]
        ours, theirs = [], []
        for _ in range(args.repeats):
            ours.append(timed(mvda, ours_json))
            theirs.append(timed(peer, os.devnull))

        h_ours = np.sort([m["height"] for m in json.load(open(ours_json))["merges"]])
        h_theirs = np.sort(np.load(theirs_npy))
        agree = (h_ours.shape == h_theirs.shape and
                 np.max(np.abs(h_ours - h_theirs) / (1.0 + h_theirs)) < 2e-6)

        def median(runs, k):
            return statistics.median(r[k] for r in runs)

        print("Exact Ward, %d x %d, %d runs each, medians (one run of this script)"
              % (args.rows, args.columns, args.repeats))
        print("%-28s %9s %9s %10s" % ("", "wall s", "cpu s", "peak MiB"))
        for name, runs in (("mvda --method ward-exact", ours),
                           ("fastcluster linkage_vector", theirs)):
            print("%-28s %9.2f %9.2f %10.1f" % (name, median(runs, 0), median(runs, 1),
                                               max(r[2] for r in runs)))
        print("mvda / fastcluster: wall %.2f, cpu %.2f; heights agree: %s"
              % (median(ours, 0) / median(theirs, 0), median(ours, 1) / median(theirs, 1),
                 "yes" if agree else "NO"))

        if args.large:
            big = os.path.join(folder, "large.csv")
            write_csv(big, args.large, args.columns, 2)
            wall, cpu, rss = timed([args.mvda, "cluster", big, "--method", "ward-exact", "--scale",
                                    "none", "--json"], os.devnull)
            print("mvda --method ward-exact, %d x %d: wall %.2f s, cpu %.2f s, peak %.1f MiB"
                  % (args.large, args.columns, wall, cpu, rss))
        return 0 if agree else 1


if __name__ == "__main__":
    sys.exit(main())
