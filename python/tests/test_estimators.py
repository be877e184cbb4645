"""mvda.PCA and mvda.PLS as scikit-learn estimators: agreement with scikit-learn on complete
data, missing values, the estimator checks, pipelines, column names and input handling."""

import tracemalloc

import numpy as np
import pandas as pd
import pytest
from sklearn.cross_decomposition import PLSRegression
from sklearn.decomposition import PCA as SkPCA
from sklearn.linear_model import LinearRegression
from sklearn.model_selection import GridSearchCV, KFold, cross_val_score
from sklearn.pipeline import Pipeline
from sklearn.utils.estimator_checks import parametrize_with_checks

import mvda
from conftest import latent


def standardised(X):
    X = np.asarray(X, dtype=float)
    return (X - X.mean(axis=0)) / X.std(axis=0, ddof=1)


def aligned(a, b):
    """b with each column's sign turned to agree with a's (components have no sign)."""
    return b * np.sign(np.sum(a * b, axis=0))


@parametrize_with_checks([mvda.PCA(), mvda.PLS()])
def test_scikit_learn_estimator_checks(estimator, check):
    check(estimator)


def test_pca_agrees_with_scikit_learn_on_complete_data(wine):
    ours = mvda.PCA(n_components=4).fit(wine)
    Xs = standardised(wine)
    theirs = SkPCA(n_components=4, svd_solver="full").fit(Xs)
    np.testing.assert_allclose(ours.explained_variance_ratio_, theirs.explained_variance_ratio_,
                               atol=2e-5)
    np.testing.assert_allclose(ours.r2x_cum_, np.cumsum(theirs.explained_variance_ratio_),
                               atol=2e-5)
    T = theirs.transform(Xs)
    np.testing.assert_allclose(aligned(T, ours.scores_), T, atol=2e-4 * np.abs(T).max())
    np.testing.assert_allclose(aligned(theirs.components_.T, ours.loadings_),
                               theirs.components_.T, atol=2e-4)
    # StandardScaler's form: what is subtracted and what the data are divided by.
    np.testing.assert_allclose(ours.mean_, wine.mean(axis=0), rtol=1e-6)
    np.testing.assert_allclose(ours.scale_, wine.std(axis=0, ddof=1), rtol=1e-5)
    # New rows are scored as the fitted ones were, and scores map back to the data.
    np.testing.assert_allclose(ours.transform(wine), ours.scores_, atol=1e-4)
    full = mvda.PCA(n_components=13).fit(wine)
    np.testing.assert_allclose(full.inverse_transform(full.transform(wine)), wine,
                               rtol=1e-3, atol=1e-3 * wine.abs().max().max())


@pytest.mark.parametrize("components", [1, 2, 4])
def test_pls_predictions_agree_with_pls_regression(diabetes, components):
    X, y = diabetes
    ours = mvda.PLS(n_components=components).fit(X, y)
    theirs = PLSRegression(n_components=components, scale=True).fit(X, y)
    expected = theirs.predict(X).ravel()
    np.testing.assert_allclose(ours.predict(X), expected, atol=1e-4 * np.abs(expected).max())
    # The coefficients in the units of the data give the same predictions.
    np.testing.assert_allclose(X.to_numpy() @ ours.coef_[:, 0] + ours.intercept_[0], expected,
                               atol=1e-4 * np.abs(expected).max())
    assert ours.score(X, y) == pytest.approx(theirs.score(X, y), abs=1e-5)
    assert ours.x_scores_.shape == (len(X), components)
    assert ours.coef_.shape == (X.shape[1], 1)


def test_pls_with_two_responses_is_one_model(diabetes):
    X, y = diabetes
    Y = pd.DataFrame({"Progression": y, "Half": y / 2 + X["BMI"]})
    ours = mvda.PLS(n_components=3).fit(X, Y)
    theirs = PLSRegression(n_components=3, scale=True).fit(X, Y)
    np.testing.assert_allclose(ours.predict(X), theirs.predict(X), atol=1e-3 * Y.abs().max().max())
    assert ours.coef_.shape == (10, 2) and ours.y_loadings_.shape == (2, 3)


def test_missing_values(wine):
    rng = np.random.default_rng(3)
    X = wine.to_numpy(dtype=float)
    gappy = X.copy()
    gappy[rng.random(X.shape) < 0.05] = np.nan
    complete = mvda.PCA(n_components=2).fit(X)
    with_gaps = mvda.PCA(n_components=2).fit(gappy)
    # A few percent of the cells missing leaves the model's directions where they were.
    cosines = np.abs(np.sum(complete.loadings_ * with_gaps.loadings_, axis=0))
    assert np.all(cosines > 0.99)
    assert np.all(np.isfinite(with_gaps.scores_))

    # A row with a gap gets estimated scores (compared with the tool's in test_tool.py); one
    # with more than half of its values missing gets none.
    D = latent(200, 8, 2, seed=11, noise=0.01)
    model = mvda.PCA(n_components=2, scaling="center").fit(D)
    rows = D[:5].copy()
    rows[:, 3] = np.nan
    rows[0, :5] = np.nan
    scores = model.transform(rows)
    assert np.all(np.isnan(scores[0]))
    assert np.all(np.isfinite(scores[1:]))

    # NaN in y: those rows still shape X's model, and the fit stays close to the one without
    # the unknown responses.
    Xd = latent(300, 10, 3, seed=12)
    y = Xd @ np.linspace(1, 2, 10) + 0.1 * rng.normal(size=300)
    y_gappy = y.copy()
    y_gappy[::10] = np.nan
    fit = mvda.PLS(n_components=3).fit(Xd, y_gappy)
    known = ~np.isnan(y_gappy)
    reference = mvda.PLS(n_components=3).fit(Xd[known], y[known])
    assert np.corrcoef(fit.predict(Xd), reference.predict(Xd))[0, 1] > 0.999


def test_bad_input_is_a_value_error_with_the_librarys_message():
    X = latent(40, 5, 2, seed=4)
    X[:, 1] = 7.0
    with pytest.raises(ValueError, match=r"^X: column 'x2': The variable has no variation"):
        mvda.PCA().fit(X)
    X = latent(40, 5, 2, seed=4)
    X[3, 2] = -99
    with pytest.raises(ValueError, match=r"row 3, column 2: the value -99"):
        mvda.PCA().fit(X)
    with pytest.raises(ValueError, match="this data set has at most 5"):
        mvda.PCA(n_components=6).fit(latent(40, 5, 2, seed=4))
    with pytest.raises(ValueError, match="tol"):
        mvda.PCA(tol=1e-6).fit(latent(40, 5, 2, seed=4))
    with pytest.raises(ValueError, match="scaling"):
        mvda.PLS(scaling="log").fit(latent(40, 5, 2, seed=4), np.arange(40.0))


def test_float32_c_contiguous_input_is_not_copied():
    X = latent(4000, 100, 3, seed=6).astype(np.float32)

    def peak(data):
        tracemalloc.start()
        mvda.PCA(n_components=2).fit(data)
        _, top = tracemalloc.get_traced_memory()
        tracemalloc.stop()
        return top

    # numpy's buffers are traced; a float32 copy of X would be X.nbytes on its own.
    assert peak(X) < X.nbytes / 4
    assert peak(X.astype(np.float64)) >= X.nbytes  # the control: float64 is converted once


def test_column_names_pipeline_and_grid_search(diabetes):
    X, y = diabetes
    model = mvda.PLS(n_components=2).fit(X, y)
    assert list(model.feature_names_in_) == list(X.columns)
    with pytest.raises(ValueError, match="feature names"):
        model.predict(X[X.columns[::-1]])

    pipe = Pipeline([("pca", mvda.PCA(n_components=3)), ("ols", LinearRegression())]).fit(X, y)
    scores = mvda.PCA(n_components=3).fit(X).scores_
    np.testing.assert_allclose(pipe.predict(X), LinearRegression().fit(scores, y).predict(scores),
                               rtol=1e-4)

    folds = KFold(3, shuffle=True, random_state=0)
    search = GridSearchCV(mvda.PLS(), {"n_components": [1, 2, 3]}, cv=folds).fit(X, y)
    for k, mean_score in zip([1, 2, 3], search.cv_results_["mean_test_score"]):
        assert mean_score == pytest.approx(
            cross_val_score(mvda.PLS(n_components=k), X, y, cv=folds).mean())
    assert search.best_estimator_.n_components_ == search.best_params_["n_components"]


def test_diagnostics_follow_their_formulas(wine, diabetes):
    from scipy import stats

    model = mvda.PCA(n_components=3).fit(wine)
    N, A = model.scores_.shape
    T = model.scores_
    t2 = np.sum(T ** 2 / T.var(axis=0, ddof=1), axis=1)
    np.testing.assert_allclose(model.t2_, t2, rtol=1e-4)
    Xs = (wine.to_numpy() - model.mean_) / model.scale_
    spe = np.sum((Xs - T @ model.loadings_.T) ** 2, axis=1)
    np.testing.assert_allclose(model.spe_, spe, rtol=1e-3, atol=1e-4)
    # T2 limit of the training rows: (N-1)^2/N Beta(A/2, (N-A-1)/2); of new rows A(N^2-1)/(N(N-A)) F.
    assert model.t2_limit(0.95) == pytest.approx(
        (N - 1) ** 2 / N * stats.beta.ppf(0.95, A / 2, (N - A - 1) / 2), rel=1e-6)
    assert model.t2_limit(0.99, new_rows=True) == pytest.approx(
        A * (N ** 2 - 1) / (N * (N - A)) * stats.f.ppf(0.99, A, N - A), rel=1e-6)
    m, v = spe.mean(), spe.var(ddof=1)
    assert model.spe_limit(0.95) == pytest.approx(
        v / (2 * m) * stats.chi2.ppf(0.95, 2 * m ** 2 / v), rel=1e-3)
    new = model.diagnostics(wine.iloc[:10])
    np.testing.assert_allclose(new["t2"], t2[:10], rtol=1e-4)
    np.testing.assert_allclose(new["spe"], spe[:10], rtol=1e-3, atol=1e-4)

    X, y = diabetes
    pls = mvda.PLS(n_components=3).fit(X, y)
    W, Tp = pls.x_weights_, pls.x_scores_
    ssy = np.sum(Tp ** 2, axis=0) * np.sum(pls.y_loadings_ ** 2, axis=0)
    vip = np.sqrt(X.shape[1] * ((W / np.linalg.norm(W, axis=0)) ** 2 @ ssy) / ssy.sum())
    np.testing.assert_allclose(pls.vip_, vip, rtol=1e-4)
    # RMSECV in the units of y, near a 7-fold cross-validated error of the same model.
    from sklearn.model_selection import cross_val_predict
    cv = cross_val_predict(mvda.PLS(n_components=3), X, y, cv=KFold(7))
    assert pls.rmsecv_[0] == pytest.approx(np.sqrt(np.mean((y - cv) ** 2)), rel=0.05)
