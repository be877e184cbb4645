#!/usr/bin/python3
"""`mvda cluster --method <exact linkage> --json` against scipy.cluster.hierarchy.linkage.

Usage: exact_linkage_scipy.py MVDA_EXECUTABLE

On complete data without ties, each exact method must give SciPy's heights to float precision and
the same partition at a cut between every two distinct heights. Prints one line per method and
'N passed, N failed' at the end; exits 1 on any failure.
"""
import json
import os
import subprocess
import sys
import tempfile

import numpy as np
from scipy.cluster.hierarchy import linkage

METHODS = {"ward-exact": "ward", "average": "average", "complete": "complete",
           "weighted": "weighted", "single-exact": "single"}


def write_csv(path, x):
    with open(path, "w") as f:
        f.write("Obs," + ",".join("V%d" % (j + 1) for j in range(x.shape[1])) + "\n")
        for i, row in enumerate(x):
            # float32 values printed exactly: the tool reads floats, SciPy gets the same numbers.
            f.write("O%d," % (i + 1) + ",".join(repr(float(v)) for v in row) + "\n")


def labels(n, merges, height):
    """Per row, a representative of its cluster after the merges (a, b, h) with h <= height;
    a and b are 0-based rows or n + k for merge k (0-based)."""
    parent = list(range(2 * n))

    def find(i):
        while parent[i] != i:
            parent[i] = parent[parent[i]]
            i = parent[i]
        return i

    for k, (a, b, h) in enumerate(merges):
        if h <= height:
            parent[find(a)] = n + k
            parent[find(b)] = n + k
    roots = [find(i) for i in range(n)]
    first = {}
    return [first.setdefault(r, i) for i, r in enumerate(roots)]


def check(mvda, path, x, method):
    out = subprocess.run([mvda, "cluster", path, "--method", method, "--scale", "none", "--json"],
                         check=True, capture_output=True, text=True).stdout
    result = json.loads(out)
    n = x.shape[0]
    # The tool numbers rows from 1 and merge k (from 1) as n + k: one less is SciPy's numbering.
    ours = [(m["joined"][0] - 1, m["joined"][1] - 1, m["height"]) for m in result["merges"]]
    z = linkage(x.astype(np.float64), method=METHODS[method])
    theirs = [(int(a), int(b), float(h)) for a, b, h, _ in z]
    if len(ours) != len(theirs):
        return "%d merges, SciPy %d" % (len(ours), len(theirs))
    h_ours = np.sort([m[2] for m in ours])
    h_theirs = np.sort([m[2] for m in theirs])
    worst = np.max(np.abs(h_ours - h_theirs) / (1.0 + h_theirs))
    if worst > 2e-6:
        return "heights differ by %.3g (relative)" % worst
    cuts = [-1.0] + [0.5 * (lo + hi) for lo, hi in zip(h_theirs, h_theirs[1:])
                     if hi - lo > 1e-4 * (1.0 + hi)]
    for h in cuts:
        if labels(n, ours, h) != labels(n, theirs, h):
            return "partitions differ at the cut at %.6g" % h
    return None


def main():
    mvda = sys.argv[1]
    rng = np.random.default_rng(20261125)
    sets = []
    centres = rng.normal(scale=5.0, size=(5, 6))
    sets.append(("blobs", (centres[rng.integers(0, 5, 300)] + rng.normal(size=(300, 6)) + 50.0)
                 .astype(np.float32)))
    sets.append(("normal", rng.normal(size=(200, 3)).astype(np.float32)))
    passed = failed = 0
    with tempfile.TemporaryDirectory() as folder:
        for name, x in sets:
            path = os.path.join(folder, name + ".csv")
            write_csv(path, x)
            for method in METHODS:
                problem = check(mvda, path, x, method)
                print("%s %s: %s" % (name, method, problem or "same as SciPy"))
                if problem:
                    failed += 1
                else:
                    passed += 1
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
