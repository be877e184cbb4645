"""The same analyses as the command-line tool: cross-validation figures equal the tool's, and
the model file goes both ways between Python and `mvda predict`."""

import numpy as np
import pandas as pd
import pytest

import mvda
from conftest import DATA, latent


def component_rows(out):
    return out["components"]


# The figures are compared bit for bit on one thread each: with dynamic OpenMP teams the library's
# sums may come out in the last bit differently from one run to the next.
ONE = ("--threads", 1)


@pytest.mark.parametrize("components", [2, 4])
def test_pca_figures_equal_the_tools(wine, tool, components):
    out = tool(*ONE, "pca", DATA / "wine.csv", "--class", "Cultivar", "--components", components)
    model = mvda.PCA(n_components=components, n_threads=1).fit(wine)
    rows = component_rows(out)
    np.testing.assert_array_equal(model.q2_, [r["q2"] for r in rows])
    np.testing.assert_array_equal(model.q2_cum_, [r["q2_cum"] for r in rows])
    np.testing.assert_array_equal(model.explained_variance_ratio_, [r["r2x"] for r in rows])
    assert model.verdicts_ == [r["verdict"] for r in rows]


def test_automatic_component_counts_equal_the_tools(wine, diabetes, tool):
    out = tool(*ONE, "pca", DATA / "wine.csv", "--class", "Cultivar")
    model = mvda.PCA(n_threads=1).fit(wine)
    assert model.n_components_ == out["kept_components"]
    assert model.verdicts_ == [r["verdict"] for r in component_rows(out)]
    assert model.verdicts_[-1] not in ("R1", "R2")  # the rejected component is listed too

    X, y = diabetes
    out = tool(*ONE, "pls", DATA / "diabetes.csv", "--y", "Progression")
    model = mvda.PLS(n_threads=1).fit(X, y)
    assert model.n_components_ == out["kept_components"]
    rows = [r for r in component_rows(out) if r["kept"]]
    np.testing.assert_array_equal(model.q2_, [r["q2"] for r in rows])
    np.testing.assert_array_equal(model.r2y_, [r["r2y"] for r in rows])


def test_python_model_predicts_with_the_tool(diabetes, tool, tmp_path):
    X, y = diabetes
    model = mvda.PLS().fit(X, y)
    path = tmp_path / "diabetes.mvm"
    mvda.save(model, path)
    out = tool("predict", path, DATA / "diabetes.csv")
    assert out["model_type"] == "pls" and out["components"] == model.n_components_
    np.testing.assert_allclose(out["predicted"]["Progression"], model.predict(X), rtol=1e-5)
    np.testing.assert_allclose(np.array(out["scores"]).T, model.transform(X), atol=1e-5)


def test_tool_model_predicts_in_python(diabetes, wine, tool, tmp_path):
    X, y = diabetes
    path = tmp_path / "tool.mvm"
    tool("pls", DATA / "diabetes.csv", "--y", "Progression", "--components", 3, "--save", path)
    out = tool("predict", path, DATA / "diabetes.csv")
    loaded = mvda.load(path)
    assert isinstance(loaded, mvda.PLS) and loaded.n_components_ == 3
    assert list(loaded.feature_names_in_) == list(X.columns)
    np.testing.assert_allclose(loaded.predict(X), out["predicted"]["Progression"], rtol=1e-5)
    # The coefficients rebuilt from the file are those of the same fit made here.
    fitted = mvda.PLS(n_components=3).fit(X, y)
    np.testing.assert_allclose(loaded.coef_, fitted.coef_, rtol=1e-4, atol=1e-6)
    np.testing.assert_allclose(loaded.intercept_, fitted.intercept_, rtol=1e-4)

    path = tmp_path / "wine.mvm"
    tool("pca", DATA / "wine.csv", "--class", "Cultivar", "--components", 2, "--save", path)
    out = tool("predict", path, DATA / "wine.csv", "--class", "Cultivar")
    loaded = mvda.load(path)
    assert isinstance(loaded, mvda.PCA)
    np.testing.assert_allclose(loaded.transform(wine), np.array(out["scores"]).T, atol=1e-5)
    np.testing.assert_allclose(loaded.scores_, loaded.transform(wine), atol=1e-4)


def test_rows_with_gaps_are_scored_as_the_tool_scores_them(tool, tmp_path):
    D = latent(200, 8, 2, seed=11, noise=0.01)
    model = mvda.PCA(n_components=2, scaling="center").fit(D)
    rows = D[:6].copy()
    rows[1:, 3] = np.nan
    rows[0, :5] = np.nan  # more than half missing: no scores
    path, csv = tmp_path / "m.mvm", tmp_path / "rows.csv"
    mvda.save(model, path)
    pd.DataFrame(rows, columns=[f"x{j + 1}" for j in range(8)]).to_csv(csv, index=False,
                                                                       float_format="%.9g")
    out = tool("predict", path, csv)
    assert out["scored"] == [False] + [True] * 5
    expected = np.array(out["scores"], dtype=float).T  # null for the row without scores
    np.testing.assert_allclose(model.transform(rows), expected, atol=1e-5)


def test_damaged_model_files_are_refused(tmp_path):
    path = tmp_path / "not-a-model.mvm"
    path.write_text("Sample,x\n1,2\n")
    with pytest.raises(ValueError, match="not an mvda model file"):
        mvda.load(path)
    model = mvda.PCA(n_components=2).fit(latent(30, 4, 2, seed=2))
    mvda.save(model, path)
    whole = path.read_bytes()
    path.write_bytes(whole[: len(whole) // 2])
    with pytest.raises(ValueError, match="truncated"):
        mvda.load(path)
    flipped = bytearray(whole)
    flipped[len(whole) // 2] ^= 0x01
    path.write_bytes(bytes(flipped))
    with pytest.raises(ValueError, match="checksum does not match"):
        mvda.load(path)
    with pytest.raises(ValueError, match="cannot write"):
        mvda.save(model, tmp_path / "no-such-folder" / "m.mvm")
