"""Long fits: progress reported to a callback, Ctrl-C (SIGINT) and a failing callback stop them
through the library's stop request, and the process goes on fitting afterwards."""

import os
import signal
import threading
import time

import numpy as np
import pytest

import mvda
from conftest import latent

# Long work when left alone (30 cross-validated components of 3000 x 400), so a stop that is not
# honoured shows as a test that takes that long, not as a pass.
LONG = dict(n=3000, k=400, a=30, seed=1)


@pytest.fixture(scope="module")
def long_data():
    return latent(LONG["n"], LONG["k"], LONG["a"], LONG["seed"]).astype(np.float32)


@pytest.fixture(scope="module")
def long_gappy_data(long_data):
    # A tenth of the values missing: the fit takes the path for data with gaps, seconds long.
    gappy = long_data.copy()
    gappy[np.random.default_rng(2).random(gappy.shape) < 0.1] = np.nan
    return gappy


@pytest.fixture(scope="module")
def small_fit():
    X = latent(60, 6, 2, seed=5)
    return X, mvda.PCA(n_components=2).fit(X).scores_


def test_ctrl_c_stops_a_long_fit_and_the_next_fit_works(long_gappy_data, small_fit):
    sent = {}

    def interrupt_soon(text, fraction):
        # The first report (they come every 0.2 s) proves the fit is under way, seconds from its
        # end on data with gaps; the signal comes at once from another thread, as a terminal's
        # Ctrl-C reaches a process while its main thread is busy. A fixed delay instead would race
        # against a fit that gets faster.
        if not sent:
            sent["at"] = None

            def send():
                sent["at"] = time.monotonic()
                os.kill(os.getpid(), signal.SIGINT)

            threading.Thread(target=send).start()

    with pytest.raises(KeyboardInterrupt):
        mvda.PCA(n_components=LONG["a"], progress=interrupt_soon).fit(long_gappy_data)
    stopped = time.monotonic()
    assert sent.get("at") is not None, "the fit ended before the signal was sent"
    assert stopped - sent["at"] < 2.0

    X, scores = small_fit
    np.testing.assert_array_equal(mvda.PCA(n_components=2).fit(X).scores_, scores)


def test_progress_reaches_the_callback_and_its_exception_stops_the_fit(long_gappy_data, small_fit):
    seen = []

    class Enough(Exception):
        pass

    def callback(text, fraction):
        seen.append((text, fraction))
        if text.startswith("Computing PLS component"):
            raise Enough()

    # Responses of noise: no component explains them, so every component is fitted and
    # cross-validated, seconds of work reported every 0.2 s.
    y = np.random.default_rng(3).normal(size=(LONG["n"], 3))
    began = time.monotonic()
    with pytest.raises(Enough):
        mvda.PLS(n_components=LONG["a"], progress=callback).fit(long_gappy_data, y)
    assert time.monotonic() - began < 60  # far less than the whole fit
    # Reports until the fit names its step, none after the callback failed.
    assert [t for t, _ in seen if t.startswith("Computing PLS component")] == [seen[-1][0]]
    for text, fraction in seen:
        assert isinstance(text, str) and 0.0 <= fraction <= 1.0

    X, scores = small_fit
    np.testing.assert_array_equal(mvda.PCA(n_components=2).fit(X).scores_, scores)
