"""What the Python call adds to the C++ fit: mvda.PCA(n_components=5).fit on a 10000 x 500
float32 matrix against the tool's FitPca on the same matrix (python_fit_bench, Google
Benchmark), both timed in one run of this script.

    python python/bench/pca_call_cost.py BUILD_DIR [REPETITIONS, default 5]

BUILD_DIR is a build configured with -DMVDA_BUILD_PYTHON=ON -DMVDA_BUILD_BENCHMARKS=ON (its
python/ folder holds the package, python/python_fit_bench the C++ half).
"""

import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

ROWS, COLUMNS, COMPONENTS = 10000, 500, 5


def latent_data(seed=1):
    """Eight latent directions of falling strength plus noise, as spectra are."""
    rng = np.random.default_rng(seed)
    t = rng.standard_normal((ROWS, 8)) * (0.7 ** np.arange(8))
    p = rng.standard_normal((COLUMNS, 8))
    return (t @ p.T + 0.3 * rng.standard_normal((ROWS, COLUMNS))).astype(np.float32)


def main():
    build = Path(sys.argv[1]).resolve()
    repetitions = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    sys.path.insert(0, str(build / "python"))
    import mvda

    X = latent_data()
    cxx, py = [], []
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "x.bin"
        with open(path, "wb") as f:
            np.array([ROWS, COLUMNS], dtype=np.int32).tofile(f)
            X.tofile(f)
        mvda.PCA(n_components=COMPONENTS).fit(X)  # warm, as the C++ half is before it times
        # The two halves take turns, so that a machine that gets busier or quieter during the
        # run weighs on both alike; the minimum is the figure least disturbed by other work.
        for _ in range(repetitions):
            out = subprocess.run(
                [str(build / "python" / "python_fit_bench"), "--benchmark_format=json",
                 "--benchmark_min_time=0.01"],
                env={**os.environ, "MVDA_BENCH_DATA": str(path)}, check=True,
                capture_output=True, text=True)
            cxx += [b["real_time"] for b in json.loads(out.stdout)["benchmarks"]]
            began = time.perf_counter()
            mvda.PCA(n_components=COMPONENTS).fit(X)
            py.append((time.perf_counter() - began) * 1000.0)

    def line(name, runs):
        return (f"{name} {ROWS}x{COLUMNS}, {COMPONENTS} components: min {min(runs):8.1f} ms, "
                f"median {np.median(runs):8.1f} ms  ({', '.join(f'{r:.0f}' for r in runs)})")

    print(line("C++ FitPca     ", cxx))
    print(line("Python PCA.fit ", py))
    print(f"Python / C++: min {min(py) / min(cxx):.3f}, median {np.median(py) / np.median(cxx):.3f}")


if __name__ == "__main__":
    main()
