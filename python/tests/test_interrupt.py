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

# Minutes of work when left alone (30 cross-validated components of 3000 x 400), so a stop that
# is not honoured shows as a test that takes that long, not as a pass.
LONG = dict(n=3000, k=400, a=30, seed=1)


@pytest.fixture(scope="module")
def long_data():
    return latent(LONG["n"], LONG["k"], LONG["a"], LONG["seed"]).astype(np.float32)


@pytest.fixture(scope="module")
def small_fit():
    X = latent(60, 6, 2, seed=5)
    return X, mvda.PCA(n_components=2).fit(X).scores_


def test_ctrl_c_stops_a_long_fit_and_the_next_fit_works(long_data, small_fit):
    sent = {}

    def interrupt_soon(text, fraction):
        # The first report proves the fit is running; the signal comes from another thread, as
        # a terminal's Ctrl-C reaches a process while its main thread is busy.
        if not sent:
            sent["at"] = None

            def send():
                sent["at"] = time.monotonic()
                os.kill(os.getpid(), signal.SIGINT)

            threading.Timer(0.2, send).start()

    with pytest.raises(KeyboardInterrupt):
        mvda.PCA(n_components=LONG["a"], progress=interrupt_soon).fit(long_data)
    stopped = time.monotonic()
    assert sent.get("at") is not None, "the fit ended before the signal was sent"
    assert stopped - sent["at"] < 2.0

    X, scores = small_fit
    np.testing.assert_array_equal(mvda.PCA(n_components=2).fit(X).scores_, scores)


def test_progress_reaches_the_callback_and_its_exception_stops_the_fit(long_data, small_fit):
    seen = []

    class Enough(Exception):
        pass

    def callback(text, fraction):
        seen.append((text, fraction))
        if text.startswith("Computing PLS component"):
            raise Enough()

    began = time.monotonic()
    with pytest.raises(Enough):
        mvda.PLS(n_components=LONG["a"], progress=callback).fit(long_data, long_data[:, 0] * 2)
    assert time.monotonic() - began < 60  # far less than the whole fit
    # Reports until the fit names its step, none after the callback failed.
    assert [t for t, _ in seen if t.startswith("Computing PLS component")] == [seen[-1][0]]
    for text, fraction in seen:
        assert isinstance(text, str) and 0.0 <= fraction <= 1.0

    X, scores = small_fit
    np.testing.assert_array_equal(mvda.PCA(n_components=2).fit(X).scores_, scores)
