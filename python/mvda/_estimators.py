"""mvda.PCA and mvda.PLS: the tool's fits (component by component, each cross-validated and
judged by the library's significance rules) as scikit-learn estimators."""

import numbers

import numpy as np
from sklearn.base import BaseEstimator, RegressorMixin, TransformerMixin
from sklearn.utils.validation import check_array, check_consistent_length, check_is_fitted

from . import _core

SCALINGS = ("none", "center", "centre", "pareto", "uv")
# NIPALS stops when the scores change by less than this between two iterations; the library has
# no other setting, so `tol` only documents it (see docs/python.md).
LIBRARY_TOL = 1e-10

def as_float32(X):
    """The array the extension reads: float32, C-contiguous; X itself when it already is one."""
    return np.asarray(X, dtype=np.float32, order="C")


def _rows(rows, field):
    return np.array([r[field] for r in rows], dtype=float)


class _Fit(BaseEstimator):
    """What PCA and PLS share: parameter checks, input conversion and the model's parts."""

    def _more_tags(self):
        return {"allow_nan": True}

    def _check_params(self):
        n = self.n_components
        if n is not None and (not isinstance(n, numbers.Integral) or isinstance(n, bool) or n < 1):
            raise ValueError(f"n_components={n!r}: None (cross-validation decides) or an int >= 1")
        if self.scaling not in SCALINGS:
            raise ValueError(f"scaling={self.scaling!r}: expected one of {', '.join(SCALINGS)}")
        g = self.cv_groups
        if not isinstance(g, numbers.Integral) or isinstance(g, bool) or g < 2:
            raise ValueError(f"cv_groups={g!r}: an int >= 2")
        m = self.max_iter
        if not isinstance(m, numbers.Integral) or isinstance(m, bool) or m < 1:
            raise ValueError(f"max_iter={m!r}: an int >= 1")
        if self.tol != LIBRARY_TOL:
            raise ValueError(f"tol={self.tol!r}: the library's NIPALS converges at a change of "
                             f"{LIBRARY_TOL:g} in the scores and takes no other tolerance")
        t = self.n_threads
        if t is not None and (not isinstance(t, numbers.Integral) or isinstance(t, bool) or t < 1):
            raise ValueError(f"n_threads={t!r}: None (every processor) or an int >= 1")
        if self.progress is not None and not callable(self.progress):
            raise ValueError("progress: a callable progress(text, fraction), or None")

    def _validate_X(self, X, reset):
        # float32 and float64 arrays pass the check untouched; as_float32 then hands a float32
        # C-contiguous array on as it is, so the extension reads the caller's own buffer.
        X = self._validate_data(X, reset=reset, dtype=(np.float32, np.float64),
                                force_all_finite="allow-nan")
        return as_float32(X)

    def _x_names(self, n_features):
        # The names go into the model file, where the tool finds a model's variables by name.
        names = getattr(self, "feature_names_in_", None)
        if names is None:
            return [f"x{j + 1}" for j in range(n_features)]
        names = [str(n) for n in names]
        _check_unique(names, "X")
        return names

    def _run_args(self):
        return dict(components=self.n_components or 0, scaling=self.scaling,
                    groups=self.cv_groups, max_iter=self.max_iter, threads=self.n_threads or 0,
                    callback=self.progress)

    def _set_rows(self, rows):
        """The component table of the fit: figures of the kept components, every verdict."""
        kept = [r for r in rows if r["kept"]]
        self.q2_ = _rows(kept, "q2")
        self.q2_cum_ = _rows(kept, "q2_cum")
        self.verdicts_ = [r["verdict"] for r in rows]
        self.n_iter_ = np.array([r["iterations"] for r in kept], dtype=int)
        return kept

    def _set_diagnostics(self, model):
        """T2 and SPE of the training rows (the residuals the model file keeps)."""
        d = _core.training_diagnostics(model)
        self.t2_ = d["t2"]
        self.spe_ = d["spe"]

    def t2_limit(self, alpha=0.95, new_rows=False):
        """The alpha quantile of Hotelling's T2 for the training rows (t2_), or with
        new_rows=True for rows scored later (diagnostics(X))."""
        check_is_fitted(self)
        return _core.t2_limit(self._model.scores.shape[0], self.n_components_, float(alpha),
                              bool(new_rows))

    def spe_limit(self, alpha=0.95):
        """The alpha quantile of SPE (Box's approximation from the training SPE), for training
        and new rows alike."""
        check_is_fitted(self)
        return _core.spe_limit(list(self.spe_), float(alpha))

    def diagnostics(self, X):
        """Scores, T2 and SPE of new rows as a dict of arrays ("scores", "t2", "spe"); NaN for a
        row with more than half of its values missing, which gets no scores."""
        check_is_fitted(self)
        return _core.diagnostics(self._model, self._validate_X(X, reset=False))

    def _scores(self, X):
        check_is_fitted(self)
        X = self._validate_X(X, reset=False)
        if self.n_components_ == 0:
            return np.zeros((X.shape[0], 0))
        return _core.predict(self._model, X)["scores"]


def _check_unique(names, what):
    seen = set()
    for name in names:
        if name in seen:
            raise ValueError(f"{what}: the column name {name!r} appears twice; the model file "
                             "finds variables by name")
        seen.add(name)


class PCA(TransformerMixin, _Fit):
    """Principal component analysis by NIPALS with missing values (NaN) and cross-validation.

    n_components=None lets cross-validation decide with the library's significance rules; an
    int fixes the count. Cross-validation runs either way, so q2_ is always there.
    """

    def __init__(self, n_components=None, scaling="uv", cv_groups=7, max_iter=500,
                 tol=LIBRARY_TOL, n_threads=None, progress=None):
        self.n_components = n_components
        self.scaling = scaling
        self.cv_groups = cv_groups
        self.max_iter = max_iter
        self.tol = tol
        self.n_threads = n_threads
        self.progress = progress

    def fit(self, X, y=None):
        self._check_params()
        X = self._validate_X(X, reset=True)
        n, k = X.shape
        if n < 3:
            raise ValueError(f"PCA needs at least 3 observations; got n_samples = {n}")
        if k < 2:
            raise ValueError(f"PCA needs at least 2 variables; got n_features = {k}")
        result = _core.fit_pca(X, self._x_names(k), **self._run_args())
        kept = self._set_rows(result["rows"])
        self._set_model(result["model"])
        self.explained_variance_ratio_ = _rows(kept, "r2x")
        self.r2x_cum_ = _rows(kept, "r2x_cum")
        return self

    def _set_model(self, model):
        self._model = model
        self.n_components_ = model.components
        self.scores_ = model.scores
        self.loadings_ = model.loadings
        self.mean_ = model.x_mean
        self.scale_ = model.x_divisor
        self._set_diagnostics(model)

    def fit_transform(self, X, y=None):
        return self.fit(X).scores_.copy()

    def transform(self, X):
        """Scores of new rows; a row with gaps gets estimated scores, and NaN when more than half
        of its values are missing (the tool's rule)."""
        return self._scores(X)

    def inverse_transform(self, X):
        """The rows that scores X stand for, in the units of the data."""
        check_is_fitted(self)
        T = check_array(X, ensure_min_features=0)
        if T.shape[1] != self.n_components_:
            raise ValueError(f"inverse_transform: {T.shape[1]} columns of scores, the model has "
                             f"{self.n_components_} components")
        return (T @ self.loadings_.T) * self.scale_ + self.mean_


class PLS(RegressorMixin, TransformerMixin, _Fit):
    """Projection to latent structures (PLS regression) by NIPALS with missing values (NaN) in X
    and y, components chosen by cross-validation unless n_components fixes the count. The
    scaling applies to X and y alike."""

    def __init__(self, n_components=None, scaling="uv", cv_groups=7, max_iter=500,
                 tol=LIBRARY_TOL, n_threads=None, progress=None):
        self.n_components = n_components
        self.scaling = scaling
        self.cv_groups = cv_groups
        self.max_iter = max_iter
        self.tol = tol
        self.n_threads = n_threads
        self.progress = progress

    def _more_tags(self):
        return {**super()._more_tags(), "multioutput": True}

    def fit(self, X, y):
        self._check_params()
        if y is None:
            raise ValueError("PLS requires y to be passed, but the target y is None")
        y_names = None
        if hasattr(y, "columns"):
            y_names = [str(c) for c in y.columns]
        elif getattr(y, "name", None) is not None:
            y_names = [str(y.name)]
        X = self._validate_X(X, reset=True)
        y = check_array(y, ensure_2d=False, dtype=(np.float32, np.float64),
                        force_all_finite="allow-nan", input_name="y")
        check_consistent_length(X, y)
        if y.ndim > 2:
            raise ValueError(f"y: 1-D or 2-D expected, got {y.ndim} dimensions")
        n, k = X.shape
        if n < 3:
            raise ValueError(f"PLS needs at least 3 observations; got n_samples = {n}")
        self._y_1d = y.ndim == 1
        Y = y.reshape(-1, 1) if self._y_1d else y
        if y_names is None:
            y_names = [f"y{r + 1}" for r in range(Y.shape[1])]
        x_names = self._x_names(k)
        _check_unique(y_names, "y")
        clash = set(x_names) & set(y_names)
        if clash:
            raise ValueError(f"the name {sorted(clash)[0]!r} is both an X and a y column")
        result = _core.fit_pls(X, as_float32(Y), x_names, y_names, **self._run_args())
        kept = self._set_rows(result["rows"])
        self.r2x_ = _rows(kept, "r2x")
        self.r2y_ = _rows(kept, "r2y")
        self.r2y_cum_ = _rows(kept, "r2y_cum")
        self._set_model(result["model"])
        self.rmsecv_ = (_core.rmsecv(self._model, as_float32(Y), kept[-1]["q2_y"]) if kept
                        else np.full(Y.shape[1], np.nan))
        # The tool's coefficients in the units of the data.
        self.coef_ = result["coefficients"]
        self.intercept_ = np.asarray(result["intercepts"], dtype=float)
        return self

    def _set_model(self, model):
        self._model = model
        self.n_components_ = model.components
        self.x_scores_ = model.scores
        self.x_loadings_ = model.loadings
        self.x_weights_ = model.weights
        self.x_rotations_ = model.weights_star
        self.y_loadings_ = model.y_loadings
        self.x_mean_ = model.x_mean
        self.x_scale_ = model.x_divisor
        self.y_mean_ = model.y_mean
        self.y_scale_ = model.y_divisor
        self._set_diagnostics(model)
        self.vip_ = _core.vip(model) if model.components else np.full(len(model.x_names), np.nan)

    def _coefficients_from_model(self):
        """coef_ and intercept_ of a model read from a file: the library's coefficients of the
        scaled data, y_s = B' x_s, brought back to the units of the data."""
        b = self._model.scaled_coefficients
        self.coef_ = b * self.y_scale_[np.newaxis, :] / self.x_scale_[:, np.newaxis]
        self.intercept_ = self.y_mean_ - self.x_mean_ @ self.coef_

    def predict(self, X):
        """Responses of new rows in the units of y; NaN for a row with more than half of its
        values missing (the tool's rule). 1-D when the model was fitted on a 1-D y."""
        check_is_fitted(self)
        X = self._validate_X(X, reset=False)
        if self.n_components_ == 0:
            Y = np.tile(self.intercept_, (X.shape[0], 1))
        else:
            Y = _core.predict(self._model, X)["y"]
        return Y[:, 0] if self._y_1d else Y

    def transform(self, X):
        """X scores of new rows (estimated for rows with gaps)."""
        return self._scores(X)
