"""What the Python call adds to the C++ fit: mvda.PCA(n_components=5).fit on a 10000 x 500
float32 matrix against the tool's FitPca on the same matrix (python_fit_bench, Google
Benchmark), both timed in one run of this script.

    python python/bench/pca_call_cost.py BUILD_DIR [REPETITIONS]

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
    repetitions = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    sys.path.insert(0, str(build / "python"))
    import mvda

    X = latent_data()
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "x.bin"
        with open(path, "wb") as f:
            np.array([ROWS, COLUMNS], dtype=np.int32).tofile(f)
            X.tofile(f)
        out = subprocess.run(
            [str(build / "python" / "python_fit_bench"), "--benchmark_format=json",
             f"--benchmark_repetitions={repetitions}", "--benchmark_min_time=0.01"],
            env={**os.environ, "MVDA_BENCH_DATA": str(path)}, check=True, capture_output=True,
            text=True)
    runs = [b["real_time"] for b in json.loads(out.stdout)["benchmarks"]
            if b.get("run_type") == "iteration"]
    cxx = float(np.median(runs))

    seconds = []
    for _ in range(repetitions):
        began = time.perf_counter()
        mvda.PCA(n_components=COMPONENTS).fit(X)
        seconds.append(time.perf_counter() - began)
    py = float(np.median(seconds)) * 1000.0
    print(f"C++ FitPca      {ROWS}x{COLUMNS}, {COMPONENTS} components: {cxx:9.1f} ms "
          f"(median of {len(runs)}: {', '.join(f'{r:.0f}' for r in runs)})")
    print(f"Python PCA.fit  {ROWS}x{COLUMNS}, {COMPONENTS} components: {py:9.1f} ms "
          f"(median of {repetitions}: {', '.join(f'{s * 1000:.0f}' for s in seconds)})")
    print(f"Python / C++: {py / cxx:.3f}")


if __name__ == "__main__":
    main()
