"""mvda.linkage, mvda.control_chart, mvda.save and mvda.load: the tool's cluster analysis,
control charts and model file."""

import numpy as np
from sklearn.utils.validation import check_array

from . import _core
from ._estimators import PCA, PLS, SCALINGS, as_float32

# The tool's `cluster --method` names, each with what turns the library's merge height into
# SciPy's: Ward's heights are the increase of the error sum of squares (ESS), SciPy's are
# sqrt(2 * increase), which is the Euclidean distance when two rows merge. A method that joins
# the tool joins here with one line.
LINKAGE_METHODS = {
    "ward": lambda h: np.sqrt(2.0 * h),
    "ward-sqrt": lambda h: np.sqrt(2.0) * h,  # the library reports sqrt(increase of ESS)
    "single": lambda h: h,
    # The exact linkages store SciPy's heights already (Ward: sqrt(2 * increase of the ESS)).
    "ward-exact": lambda h: h,
    "average": lambda h: h,
    "complete": lambda h: h,
    "weighted": lambda h: h,
    "single-exact": lambda h: h,
}

# The tool's `chart --type` names.
CHART_KINDS = ("individual", "mean-range", "mean-stddev", "cusum", "ewma")


def _threads(n_threads):
    if n_threads is None:
        return 0
    if isinstance(n_threads, bool) or not isinstance(n_threads, (int, np.integer)) or n_threads < 1:
        raise ValueError(f"n_threads={n_threads!r}: None (every processor) or an int >= 1")
    return int(n_threads)


def linkage(X, method="ward", scaling="uv", cache=None, n_threads=None, progress=None):
    """Hierarchical clustering of the rows of X (NaN = missing) as an (N-1) x 4 linkage matrix in
    SciPy's convention: row i joins clusters Z[i, 0] and Z[i, 1] (rows are 0..N-1, the cluster
    made by row i is N + i) at height Z[i, 2] in SciPy's units, into Z[i, 3] rows.

    method: a name the tool's `cluster --method` takes (LINKAGE_METHODS). scaling: as for PCA.
    cache: a folder where trees are kept and found again by the data they were made from.
    """
    if method not in LINKAGE_METHODS:
        raise ValueError(f"method={method!r}: expected one of {', '.join(LINKAGE_METHODS)}")
    if scaling not in SCALINGS:
        raise ValueError(f"scaling={scaling!r}: expected one of {', '.join(SCALINGS)}")
    if progress is not None and not callable(progress):
        raise ValueError("progress: a callable progress(text, fraction), or None")
    X = check_array(X, dtype=(np.float32, np.float64), force_all_finite="allow-nan",
                    ensure_min_samples=2)
    Z = _core.linkage(as_float32(X), method, scaling, "" if cache is None else str(cache),
                      _threads(n_threads), progress)
    Z[:, 2] = LINKAGE_METHODS[method](Z[:, 2])
    return Z


def control_chart(values, kind="individual", subgroup=None, baseline=None, target=None,
                  sigma=None, lambda_=None):
    """A control chart of a series (NaN = missing), as the tool's `chart` makes it.

    kind: a `chart --type` name (CHART_KINDS). subgroup: values per subgroup (1 for individual,
    5 otherwise by default). baseline: the first subgroups, which set the limits (all by
    default). target, sigma, lambda_: given instead of estimated.

    Returns a dict with the fields of the tool's JSON: type, subgroup_size, subgroups,
    baseline_subgroups, target, sigma, lambda (the EWMA weight, estimated unless given) and
    panels, one per statistic with statistic, values, centre, lcl, ucl (None where the chart has
    none) and outside (the 1-based subgroups beyond the limits); CuSum panels add low_sums and
    EWMA panels the subgroup means.
    """
    if kind not in CHART_KINDS:
        raise ValueError(f"kind={kind!r}: expected one of {', '.join(CHART_KINDS)}")
    v = check_array(values, ensure_2d=False, dtype=(np.float32, np.float64),
                    force_all_finite="allow-nan", input_name="values")
    if v.ndim != 1:
        raise ValueError(f"values: a 1-D series expected, got shape {v.shape}")

    def given(x, name):
        if x is None:
            return -99.0
        x = float(x)
        if not np.isfinite(x) or x == -99.0:
            raise ValueError(f"{name}={x!r}: a finite number other than -99")
        return x

    def count(x, name):
        if x is None:
            return 0
        if isinstance(x, bool) or not isinstance(x, (int, np.integer)) or x < 1:
            raise ValueError(f"{name}={x!r}: an int >= 1")
        return int(x)

    return _core.control_chart(as_float32(v.reshape(-1, 1)), kind, count(subgroup, "subgroup"),
                               count(baseline, "baseline"), given(target, "target"),
                               given(sigma, "sigma"), given(lambda_, "lambda_"))


def save(model, path):
    """Writes a fitted mvda.PCA or mvda.PLS as the tool's model file (`mvda predict --model`
    reads it). The file is written whole or not at all."""
    if not isinstance(model, (PCA, PLS)) or not hasattr(model, "_model"):
        raise ValueError("save: a fitted mvda.PCA or mvda.PLS is expected")
    _core.save(model._model, str(path))


def load(path):
    """Reads a model file written by mvda.save or by the tool (`pca --save`, `pls --save`) as a
    fitted mvda.PCA or mvda.PLS. The file holds the model, not the cross-validation, so q2_,
    verdicts_ and the other figures of the fit are not there."""
    model = _core.load(str(path))
    if model.kind == "pca":
        est = PCA(n_components=model.components, scaling=model.scaling)
    else:
        est = PLS(n_components=model.components, scaling=model.scaling)
    names = model.x_names
    est.n_features_in_ = len(names)
    # Names that the Python side made up for an array are not column names of the caller's.
    if names != [f"x{j + 1}" for j in range(len(names))]:
        est.feature_names_in_ = np.asarray(names, dtype=object)
    est._set_model(model)
    if model.kind == "pls":
        y_names = model.y_names
        est._y_1d = len(y_names) == 1
        est._coefficients_from_model()
    return est
