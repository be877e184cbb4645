// CrossProducts, FormCrossProducts: the Gram matrices X'X, X'Y and Y'Y of complete data, on which
// the models iterate instead of on the data themselves, and RowProducts, the one pass over the
// data that turns their results back into scores.
#ifndef MVDA_MODELS_DETAIL_GRAM_H_
#define MVDA_MODELS_DETAIL_GRAM_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/mvda_export.h>

#include <vector>

namespace mvda::detail {

// Rows per block of the passes over the data that form scores and residuals.
inline constexpr int kGramBlockRows = 512;

// The cross products of one set of rows, in double, row-major: xx is K x K (full, symmetric), xy
// K x M and yy M x M (empty without Y).
struct CrossProducts {
  int k = 0, m = 0;
  std::vector<double> xx, xy, yy;
};

// The cross products of every set of rows (0-based row numbers, any order; an empty list of sets
// means one set of all rows in order) of x and, when given, y (same row count). x and y must have
// no missing value: the caller checks. Formed by BlockedCrossProduct (blocks of rows cut by the
// sizes alone, single-threaded BLAS per block, block sums added in a fixed order), so the result
// is the same bits for any number of threads. Small data (N K (K + M) up to 2^25) are multiplied
// in double, larger ones in single precision; the results are widened to double for the
// iterations.
MVDA_EXPORT std::vector<CrossProducts> FormCrossProducts(
    const NCDataMatrix<float>& x, const NCDataMatrix<float>* y,
    const std::vector<std::vector<int>>& rowSets);

// out (N x q, row-major) = x (N x K, complete) times v (K x q, row-major): the scores of q
// directions in one pass over x, by blocks of rows on the library's team.
MVDA_EXPORT void RowProducts(const NCDataMatrix<float>& x, const float* v, int q, float* out);

// y = G x for a symmetric K x K matrix G (row-major, both halves present).
void SymmetricTimes(const std::vector<double>& g, int k, const double* x, double* y);

// m (complete) less sum over l of t[l] p[l]' (t[l]: one element per row of m, p[l]: one per
// column), the terms taken in order of l, row by row in one pass over m on the library's team. A
// result that lands exactly on the missing marker counts as missing, as after every write.
void SubtractOuterProducts(NCDataMatrix<float>& m, const std::vector<const float*>& t,
                           const std::vector<const float*>& p);

}  // namespace mvda::detail

#endif  // MVDA_MODELS_DETAIL_GRAM_H_
