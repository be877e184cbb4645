#!/usr/bin/python3
"""Times scikit-learn on the shapes of mvda's model benchmarks, for the side-by-side figures.

    /usr/bin/python3 bench/compare_sklearn.py [--repeats 7]

PCA: 10000 x 500 float32, 5 components, randomized SVD (the default solver at this size) and
the full SVD; beside build/release/bench/models_bench --benchmark_filter=Pca5Components.
PLS2: 10000 x 500 X and 10000 x 4 Y, 5 components, PLSRegression (NIPALS, scale=False as the
data are on one scale); beside build/release/bench/pls_bench --benchmark_filter=PlsFit/0/.
The data follow bench/latent_data.h (same generators, numpy's random numbers). The medians and
the fastest of the repeats are printed, with the BLAS that threadpoolctl reports and its thread
count. Run it in the same session as the benchmark, so that both see the same machine load.
"""
import argparse
import statistics
import time

import numpy as np
from sklearn.cross_decomposition import PLSRegression
from sklearn.decomposition import PCA
from threadpoolctl import threadpool_info

ROWS, COLUMNS, RESPONSES, COMPONENTS = 10000, 500, 4, 5


def latent_data(rng):
    """x_ij = sum_k 0.78^k t_ik p_jk + 0.1 z_ij, 8 latent directions (MakeLatentData)."""
    t = rng.standard_normal((ROWS, 8))
    p = rng.standard_normal((COLUMNS, 8))
    x = (t * 0.78 ** np.arange(8)) @ p.T + 0.1 * rng.standard_normal((ROWS, COLUMNS))
    return x.astype(np.float32)


def calibration_data(rng):
    """Eight latent directions of falling strength drive X and Y (MakeCalibrationData)."""
    p = rng.standard_normal((8, COLUMNS))
    c = rng.standard_normal((8, RESPONSES))
    t = rng.standard_normal((ROWS, 8)) * (8 - np.arange(8))
    x = t @ p / 8 + 0.5 * rng.standard_normal((ROWS, COLUMNS))
    y = t @ c / 8 + 0.5 * rng.standard_normal((ROWS, RESPONSES))
    return x.astype(np.float32), y.astype(np.float32)


def timed(label, fit, repeats):
    fit()  # warm up: first-touch of the memory, BLAS initialisation
    times = []
    for _ in range(repeats):
        start = time.perf_counter()
        fit()
        times.append(time.perf_counter() - start)
    print(f"{label:<34} median {statistics.median(times) * 1e3:8.1f} ms   "
          f"fastest {min(times) * 1e3:8.1f} ms")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeats", type=int, default=7)
    args = parser.parse_args()
    for pool in threadpool_info():
        print(f"{pool['user_api']}: {pool['internal_api']} {pool.get('version', '')} "
              f"threads={pool['num_threads']} kernel={pool.get('architecture', '?')}")
    rng = np.random.default_rng(29)
    x = latent_data(rng)
    timed("PCA randomized, 5 components",
          lambda: PCA(COMPONENTS, svd_solver="randomized", random_state=0).fit(x), args.repeats)
    timed("PCA full SVD, 5 components",
          lambda: PCA(COMPONENTS, svd_solver="full").fit(x), args.repeats)
    cx, cy = calibration_data(rng)
    timed("PLSRegression, 5 components",
          lambda: PLSRegression(COMPONENTS, scale=False).fit(cx, cy), args.repeats)


if __name__ == "__main__":
    main()
