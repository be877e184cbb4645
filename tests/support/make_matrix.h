// Test helpers for matrices: one built from literals (-99 marks a missing element), a random one,
// and the oracle of the missing counts.
#ifndef MVDA_TESTS_SUPPORT_MAKE_MATRIX_H_
#define MVDA_TESTS_SUPPORT_MAKE_MATRIX_H_

#include <mvda/containers/data_matrix.h>

#include <random>
#include <vector>

#include <gtest/gtest.h>

// Built through the counting element write, so a fixture does not depend on push_back.
template <class T = float>
NCDataMatrix<T> MakeMatrix(const std::vector<std::vector<double>>& rows) {
  const int c = rows.empty() ? 0 : static_cast<int>(rows[0].size());
  NCDataMatrix<T> m(static_cast<int>(rows.size()), c, T(0));
  for (int i = 1; i <= m.SizeRows(); ++i)
    for (int j = 1; j <= c; ++j) m(i, j, static_cast<T>(rows[i - 1][j - 1]));
  return m;
}

// A random matrix, values uniform in [-2, 2], with about `share` of its elements missing; fixed
// seed.
template <class T>
NCDataMatrix<T> RandomMatrix(int r, int c, double share, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> value(-2, 2), coin(0, 1);
  NCDataMatrix<T> m(r, c, T(0));
  for (int i = 1; i <= r; ++i)
    for (int j = 1; j <= c; ++j) m(i, j, coin(gen) < share ? T(-99) : static_cast<T>(value(gen)));
  return m;
}

// Every -99 counted one by one, per column, per row and in all, against the matrix's own counts.
template <class T>
void ExpectCountsExact(const NCDataMatrix<T>& m) {
  int total = 0;
  for (int j = 1; j <= m.SizeColumns(); ++j) {
    int column = 0;
    for (int i = 1; i <= m.SizeRows(); ++i) column += m[i][j] == T(-99);
    EXPECT_EQ(m.GetColumnMisVal(j), column) << "column " << j;
    total += column;
  }
  for (int i = 1; i <= m.SizeRows(); ++i) {
    int row = 0;
    for (int j = 1; j <= m.SizeColumns(); ++j) row += m[i][j] == T(-99);
    EXPECT_EQ(m[i].GetNumMisVal(), row) << "row " << i;
  }
  EXPECT_EQ(m.GetNumMisVal(), total);
}

#endif  // MVDA_TESTS_SUPPORT_MAKE_MATRIX_H_
