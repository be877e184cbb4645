"""Shared fixtures: the embedded data sets and the command-line tool the model file is shared
with (MVDA_TOOL, else a build of this checkout)."""

import os
import subprocess
import json
from pathlib import Path

import numpy as np
import pandas as pd
import pytest

ROOT = Path(__file__).resolve().parents[2]
DATA = ROOT / "data"


@pytest.fixture(scope="session")
def wine():
    return pd.read_csv(DATA / "wine.csv", index_col="Sample").drop(columns="Cultivar")


@pytest.fixture(scope="session")
def diabetes():
    d = pd.read_csv(DATA / "diabetes.csv", index_col="Patient")
    return d.drop(columns="Progression"), d["Progression"]


@pytest.fixture(scope="session")
def tool():
    """Runs the tool with --json and returns the parsed output."""
    path = os.environ.get("MVDA_TOOL")
    candidates = [Path(path)] if path else [ROOT / "build" / b / "apps" / "mvda" / "mvda"
                                            for b in ("release", "python", "asan")]
    found = next((c for c in candidates if c.is_file()), None)
    if found is None:
        pytest.fail("the mvda tool was not found: set MVDA_TOOL or build it into build/release")

    def run(*args):
        out = subprocess.run([str(found), *map(str, args), "--json"], check=True,
                             capture_output=True, text=True)
        return json.loads(out.stdout)

    return run


def latent(n, k, a, seed, noise=0.1):
    """n x k rows driven by a latent directions of falling strength, plus noise."""
    rng = np.random.default_rng(seed)
    t = rng.normal(size=(n, a)) * (2.0 ** -np.arange(a))
    p = rng.normal(size=(k, a))
    return t @ p.T + noise * rng.normal(size=(n, k))
