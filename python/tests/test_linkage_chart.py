"""mvda.linkage in SciPy's convention and units, checked with SciPy's own functions, and
mvda.control_chart against the textbook formulas of each chart."""

import numpy as np
import pytest
from scipy.cluster import hierarchy
from scipy.spatial.distance import pdist

import mvda


def blobs(seed=1, rows=15):
    rng = np.random.default_rng(seed)
    return np.vstack([rng.normal(c, 1, size=(rows, 4)) for c in (0, 6, 12)])


def standardised(X):
    return (X - np.nanmean(X, axis=0)) / np.nanstd(X, axis=0, ddof=1)


def partition(labels):
    return {frozenset(np.flatnonzero(labels == c)) for c in np.unique(labels)}


def test_single_linkage_is_scipys():
    X = np.random.default_rng(2).normal(size=(40, 5))
    Z = mvda.linkage(X, method="single")
    S = hierarchy.linkage(standardised(X), "single")
    assert hierarchy.is_valid_linkage(Z) and hierarchy.is_monotonic(Z)
    np.testing.assert_allclose(Z[:, 2], S[:, 2], rtol=1e-5)
    np.testing.assert_allclose(hierarchy.cophenet(Z), hierarchy.cophenet(S), rtol=1e-5)
    for k in (2, 5):
        assert partition(hierarchy.fcluster(Z, k, "maxclust")) == \
            partition(hierarchy.fcluster(S, k, "maxclust"))


@pytest.mark.parametrize("method", ["ward", "ward-sqrt"])
def test_ward_heights_are_in_scipys_units(method):
    X = blobs()
    Xs = standardised(X)
    Z = mvda.linkage(X, method=method)
    S = hierarchy.linkage(Xs, "ward")
    assert hierarchy.is_valid_linkage(Z)
    # Two rows merge at their Euclidean distance, which is sqrt(2 * increase of the ESS).
    a, b = int(Z[0, 0]), int(Z[0, 1])
    assert Z[0, 2] == pytest.approx(np.linalg.norm(Xs[a] - Xs[b]), rel=1e-5)
    # The three groups are found, and the merges that join them are SciPy's, height and size.
    truth = partition(np.repeat([0, 1, 2], 15))
    assert partition(hierarchy.fcluster(Z, 3, "maxclust")) == truth
    np.testing.assert_allclose(Z[-2:, 2:], S[-2:, 2:], rtol=1e-5)
    # SciPy's other consumers take the matrix as it is.
    tree = hierarchy.dendrogram(Z, no_plot=True)
    assert sorted(tree["leaves"]) == list(range(len(X)))
    corr, coph = hierarchy.cophenet(Z, pdist(Xs))
    assert coph.shape == (len(X) * (len(X) - 1) // 2,) and corr > 0.7


@pytest.mark.parametrize("method,scipy_method", [("ward-exact", "ward"), ("average", "average"),
                                                 ("complete", "complete"),
                                                 ("weighted", "weighted"),
                                                 ("single-exact", "single")])
def test_exact_linkages_are_scipys(method, scipy_method):
    X = np.random.default_rng(3).normal(size=(60, 6))
    Z = mvda.linkage(X, method=method)
    S = hierarchy.linkage(standardised(X), scipy_method)
    assert hierarchy.is_valid_linkage(Z) and hierarchy.is_monotonic(Z)
    np.testing.assert_allclose(Z[:, 2], S[:, 2], rtol=1e-5)
    for k in (2, 4, 9):
        assert partition(hierarchy.fcluster(Z, k, "maxclust")) == \
            partition(hierarchy.fcluster(S, k, "maxclust"))


def test_linkage_with_missing_values_and_bad_input(tmp_path):
    X = blobs()
    X[[0, 20, 40], 1] = np.nan
    Z = mvda.linkage(X, cache=tmp_path)
    assert hierarchy.is_valid_linkage(Z)
    assert partition(hierarchy.fcluster(Z, 3, "maxclust")) == partition(np.repeat([0, 1, 2], 15))
    np.testing.assert_array_equal(mvda.linkage(X, cache=tmp_path), Z)  # found in the cache
    with pytest.raises(ValueError, match="method='median'"):
        mvda.linkage(X, method="median")
    with pytest.raises(ValueError):
        mvda.linkage(X[:1])


def test_individual_chart():
    rng = np.random.default_rng(4)
    x = rng.normal(10, 2, size=60)
    x[30] = 30.0
    x[12] = np.nan
    chart = mvda.control_chart(x, kind="individual")
    (panel,) = chart["panels"]
    # Shewhart individuals chart: sigma from the mean moving range / d2(2), 1.128 in the tables.
    moving = np.abs(np.diff(x))
    sigma = np.nanmean(moving) / 1.128
    centre = np.nanmean(x)
    assert panel["statistic"] == "Value"
    assert chart["sigma"] == pytest.approx(sigma, rel=1e-4)
    assert panel["centre"] == pytest.approx(centre, rel=1e-5)
    assert panel["lcl"] == pytest.approx(centre - 3 * sigma, rel=1e-4)
    assert panel["ucl"] == pytest.approx(centre + 3 * sigma, rel=1e-4)
    outside = [i + 1 for i in range(60)
               if not np.isnan(x[i]) and abs(x[i] - centre) > 3 * sigma]
    assert panel["outside"] == outside and 31 in outside
    assert np.isnan(panel["values"][12])


def test_mean_range_and_ewma_charts():
    rng = np.random.default_rng(5)
    x = rng.normal(50, 1, size=100)
    chart = mvda.control_chart(x, kind="mean-range", subgroup=5)
    means = x.reshape(20, 5).mean(axis=1)
    ranges = np.ptp(x.reshape(20, 5), axis=1)
    mean_panel, range_panel = chart["panels"]
    # A2, D3, D4 for subgroups of 5: 0.577, 0, 2.114.
    assert mean_panel["statistic"] == "Mean" and range_panel["statistic"] == "Range"
    np.testing.assert_allclose(mean_panel["values"], means, rtol=1e-5)
    assert mean_panel["ucl"] == pytest.approx(means.mean() + 0.577 * ranges.mean(), rel=1e-3)
    assert range_panel["centre"] == pytest.approx(ranges.mean(), rel=1e-5)
    assert range_panel["ucl"] == pytest.approx(2.114 * ranges.mean(), rel=1e-3)
    assert chart["subgroup_size"] == 5 and chart["subgroups"] == 20

    ewma = mvda.control_chart(x, kind="ewma", subgroup=5)
    assert ewma["panels"][0]["statistic"] == "EWMA"
    assert 0 < ewma["lambda"] <= 1
    given = mvda.control_chart(x, kind="ewma", subgroup=5, lambda_=0.4)
    assert given["lambda"] == pytest.approx(0.4)
    with pytest.raises(ValueError, match="kind='xbar'"):
        mvda.control_chart(x, kind="xbar")
    with pytest.raises(ValueError, match="subgroup=30"):
        mvda.control_chart(x, kind="mean-range", subgroup=30)
