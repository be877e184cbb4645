// PlsGroupGrams: the cross products of each cross-validation group's training rows of a PLS
// model's complete residuals, formed once and then deflated with the model's components, so that
// the group fits of later components need no product over the data.
#ifndef MVDA_VALIDATION_DETAIL_PLS_GROUP_GRAMS_H_
#define MVDA_VALIDATION_DETAIL_PLS_GROUP_GRAMS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/models/detail/gram.h>
#include <mvda/mvda_export.h>

#include <vector>

namespace mvda::detail {

// X_S'X_S, X_S'Y_S and Y_S'Y_S (double, row-major) of the training rows S of every group (the
// rows outside it) of the residuals X (N x K) and Y (N x M) after `level` deflations of the model:
// each group's own products are formed once, and the training ones are the whole less them.
//
// Moving on by one deflation X -= t p', Y -= t c' with t = X q (q = w / w'w) needs no pass over
// the data: with s = t_S't_S = q'X_S'X_S q, b = X_S'X_S q - s p and f = X_S'Y_S'q - s c (X_S't_S
// and Y_S't_S of the deflated rows), X'X -= b p' + p b' + s p p', X'Y -= b c' + p f' + s p c' and
// Y'Y -= f c' + c f' + s c c'. Verify then compares the traces of X_S'X_S and Y_S'Y_S with the
// sums of squares of the residual rows; when they differ (the residuals moved otherwise, or the
// deflated products lost too many digits to cancellation), the products are formed again.
//
// The products are formed from blocks of at most kGramBlockRows of a group's rows, [X Y] packed
// side by side so that one syrk gives all three; in double for small data, else in single
// precision with the blocks added in double. Everything is computed group by group, or by bands
// of elements, on the library's team, each piece by one thread in a fixed order: the same bits for
// any thread count. Thread-safety: one object is used by one thread at a time.
class MVDA_EXPORT PlsGroupGrams {
 public:
  // Whether the group fits of residuals x (N x K) and y (N x M) in `groups` groups, started from
  // w, are to run on kept products: x, y and w complete, N >= K, and products no larger than the
  // data (groups (K + M) <= N; they hold groups K (K + M) doubles, the data N K floats), so that
  // wide data or many groups cannot make them exhaust the memory.
  static bool Suits(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                    const NCDataVector<float>& w, int groups);

  // Brings the products in line with the complete residuals x and y of a model after `level`
  // deflations, the last of them by row `level` of wprim, pprim and cprim (the model's W, P and C),
  // provided that the residuals did move by that deflation alone since the previous call. ids
  // gives each row's group, 0..groups-1 (N elements). Deflates the products of the previous call
  // when it was at level - 1, keeps them when it was at level, and forms them afresh otherwise.
  void Update(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
              const NCIntegralVector<int, -99>& ids, int groups, int level,
              const NCDataMatrix<float>& wprim, const NCDataMatrix<float>& pprim,
              const NCDataMatrix<float>& cprim);
  // Whether the products still match the residuals x and y of the last Update, rowSSX holding the
  // sum of squares of each row of x (RowSumOfSquares; the caller forms it in a pass it makes
  // anyway); when they do not, they are formed afresh and false is returned.
  bool Verify(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
              const std::vector<double>& rowSSX);
  // The sum of squares of n floats as Verify expects it for a row.
  static double RowSumOfSquares(const float* row, int n);

  // Per group, the products of its training rows of the residuals of the last Update.
  const std::vector<CrossProducts>& Training() const { return training_; }
  // How many times the products were formed from the data (for tests).
  int Formations() const { return formations_; }

 private:
  void Form(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int groups);

  std::vector<CrossProducts> training_;
  std::vector<int> ids_;  // each row's group, as the products were formed
  int level_ = -1;        // -1: nothing formed (or an update failed half-way)
  int formations_ = 0;
};

}  // namespace mvda::detail

#endif  // MVDA_VALIDATION_DETAIL_PLS_GROUP_GRAMS_H_
