#!/usr/bin/python3
"""`mvda cluster --method single` under an address-space limit (ulimit -v).

Usage: single_linkage_memory_limit.py MVDA_EXECUTABLE

The N(N-1)/2 distances of 3000 rows take 54 MB. Each limit leaves room for the data and a disk
segment of some megabytes, so the tool must give the tree it gives without a limit: with the
distances on the disk under the first two limits, in memory under the last. A failure must at
least be exit 2 with one line naming the memory missing, never a crash, a hang or exit 1; it
still fails the test. Not run in sanitizer builds: their shadow memory needs terabytes of
address space. Exits 1 on any failure.
"""
import os
import random
import subprocess
import sys
import tempfile

ROWS = 3000
# Limits in KiB: the distances on the disk (the first two) and in memory (the last).
LIMITS = [100_000, 150_000, 250_000]


def run(exe, csv, limit):
    command = [exe, "cluster", "--method", "single", csv, "--json"]
    if limit:
        command = ["sh", "-c", "ulimit -v %d; exec \"$@\"" % limit, "sh"] + command
    env = dict(os.environ)
    # OpenBLAS's worker thread takes a 128 MB buffer of the address space at a moment of its own
    # choosing (the tool makes no call that needs it); one thread takes none, so that what is left
    # to the clustering is the same from run to run.
    env["OPENBLAS_NUM_THREADS"] = "1"
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=300, env=env)
    except subprocess.TimeoutExpired:
        return None, "", "timed out after 300 s"
    return done.returncode, done.stdout, done.stderr


def main():
    exe = sys.argv[1]
    failures = 0
    with tempfile.TemporaryDirectory() as folder:
        csv = os.path.join(folder, "rows.csv")
        generator = random.Random(16)
        with open(csv, "w") as f:
            f.write("Obs,V1,V2,V3,V4\n")
            for i in range(ROWS):
                f.write("O%d,%s\n" % (i + 1, ",".join(
                    "%.4f" % generator.gauss(0.0, 1.0) for _ in range(4))))
        status, reference, error = run(exe, csv, 0)
        if status != 0:
            print("FAIL without a limit: status %s: %s" % (status, error.strip()))
            return 1
        for limit in LIMITS:
            status, out, error = run(exe, csv, limit)
            lines = [line for line in error.splitlines() if line.startswith("mvda:")]
            if status == 0 and out == reference:
                print("ok   ulimit -v %d: the same tree" % limit)
            else:
                failures += 1
                what = "a different tree" if status == 0 else "status %s" % status
                clear = status == 2 and len(lines) == 1 and "bad_alloc" not in error and \
                    "out of memory" not in lines[0]
                print("FAIL ulimit -v %d: %s%s: %s" % (
                    limit, what, "" if clear else " (and no clear message)", error.strip()[-400:]))
    print("%d passed, %d failed" % (len(LIMITS) - failures, failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
