#include <mvda/containers/data_matrix.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Rows = std::vector<std::vector<double>>;
constexpr double kM = -99;

template <class T>
Rows ToRows(const NCDataMatrix<T>& m) {
  Rows rows;
  for (const NCDataVector<T>& row : m) rows.push_back(ToStd(row));
  return rows;
}

template <class T>
double Tolerance() {
  return std::is_same<T, float>::value ? 2e-5 : 1e-12;
}

void ExpectNear(const std::vector<double>& actual, const std::vector<double>& expected,
                double tolerance) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t k = 0; k < actual.size(); ++k) {
    if (expected[k] == kM || std::isnan(expected[k])) {
      EXPECT_TRUE(actual[k] == expected[k] || (std::isnan(actual[k]) && std::isnan(expected[k])))
          << "element " << k + 1 << ": " << actual[k] << " for " << expected[k];
    } else {
      EXPECT_NEAR(actual[k], expected[k], tolerance * (1 + std::fabs(expected[k])))
          << "element " << k + 1;
    }
  }
}

void ExpectNear(const Rows& actual, const Rows& expected, double tolerance) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) {
    SCOPED_TRACE("row " + std::to_string(i + 1));
    ExpectNear(actual[i], expected[i], tolerance);
  }
}

using Precisions = ::testing::Types<float, double>;
template <class T>
class MatrixProducts : public ::testing::Test {};
TYPED_TEST_SUITE(MatrixProducts, Precisions);

// A = [1 -; 2 3], B = [4 5; - 6] (- missing). Sums over present pairs: (1,1) 1*4, (1,2) 1*5,
// (2,1) 2*4, (2,2) 2*5 + 3*6 = 28. Rescaled by 2/pairs: 8, 10, 16, 28. A row or column that is
// missing throughout gives -99; the fast path is plain arithmetic.
TYPED_TEST(MatrixProducts, SkipMissingPairs) {
  using T = TypeParam;
  struct Case {
    const char* name;
    Rows a, b;
    bool transposeA, transposeB, rescale;
    Rows expected;
  };
  const Case cases[] = {
      {"skipping", {{1, kM}, {2, 3}}, {{4, 5}, {kM, 6}}, false, false, false, {{4, 5}, {8, 28}}},
      {"rescaled", {{1, kM}, {2, 3}}, {{4, 5}, {kM, 6}}, false, false, true, {{8, 10}, {16, 28}}},
      {"A'B", {{1, 2}, {kM, 3}}, {{4, 5}, {kM, 6}}, true, false, false, {{4, 5}, {8, 28}}},
      {"AB'", {{1, kM}, {2, 3}}, {{4, kM}, {5, 6}}, false, true, false, {{4, 5}, {8, 28}}},
      {"A'B'", {{1, 2}, {kM, 3}}, {{4, kM}, {5, 6}}, true, true, false, {{4, 5}, {8, 28}}},
      {"row gone", {{kM, kM}, {2, 3}}, {{4, 5}, {kM, 6}}, false, false, false, {{kM, kM}, {8, 28}}},
      {"column gone",
       {{1, 1}, {2, 3}},
       {{kM, 5}, {kM, 6}},
       false,
       false,
       false,
       {{kM, 11}, {kM, 28}}},
      {"no pair is 0", {{1, kM}}, {{kM}, {2}}, false, false, false, {{0}}},
      {"no pair rescaled", {{1, kM}}, {{kM}, {2}}, false, false, true, {{kM}}},
      {"complete", {{1, 2, 3}}, {{1}, {-1}, {2}}, false, false, false, {{5}}},
      // A NaN paired only with a gap is skipped, as the definition says, not spread.
      {"NaN with gap", {{NAN, 1}}, {{kM}, {2}}, false, false, false, {{2}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto a = MakeMatrix<T>(c.a), b = MakeMatrix<T>(c.b);
    const NCDataMatrix<T> product = a.MatrixMultiply(b, c.transposeA, c.transposeB, c.rescale);
    ExpectNear(ToRows(product), c.expected, Tolerance<T>());
    ExpectCountsExact(product);
  }
}

// Oracle: the product summed element by element in double, on matrices large enough for the
// blocked BLAS paths.
TYPED_TEST(MatrixProducts, AgreeWithElementwiseSumsOnLargerMatrices) {
  using T = TypeParam;
  for (const double share : {0.0, 0.1}) {
    SCOPED_TRACE(share);
    const auto a = RandomMatrix<T>(70, 40, share, 1), b = RandomMatrix<T>(70, 30, share, 2);
    const NCDataMatrix<T> product = a.MultiplyTransposeThis(b);
    Rows expected(40, std::vector<double>(30, 0));
    for (int i = 1; i <= 40; ++i)
      for (int j = 1; j <= 30; ++j)
        for (int l = 1; l <= 70; ++l)
          if (a[l][i] != T(-99) && b[l][j] != T(-99)) expected[i - 1][j - 1] += a[l][i] * b[l][j];
    ExpectNear(ToRows(product), expected, 10 * Tolerance<T>());
    // v'A with v = column 3 of B is column 3 of A'B.
    std::vector<double> third;
    for (int i = 1; i <= 40; ++i) third.push_back(expected[i - 1][2]);
    ExpectNear(ToStd(a.PreMultiply(b.GetColumn(3))), third, 10 * Tolerance<T>());
  }
}

// v'A: (1*1 + 3*5, 1*2 + 3*6) = (16, 20); a column that is missing throughout and a vector that is
// missing throughout give -99. A v: (1 - 2, 5 - 6) = (-1, -1), row 2 skips the gap.
TYPED_TEST(MatrixProducts, VectorProducts) {
  using T = TypeParam;
  const auto a = MakeMatrix<T>({{1, 2, kM}, {kM, 4, kM}, {5, 6, kM}});
  ExpectNear(ToStd(a.PreMultiply(MakeVector<T>({1, 2, 3}))), {16, 28, kM}, 1e-6);
  ExpectNear(ToStd(MakeVector<T>({1, 2, 3}) * a), {16, 28, kM}, 1e-6);
  ExpectNear(ToStd(a.PreMultiply(MakeVector<T>({kM, kM, kM}))), {kM, kM, kM}, 0);
  ExpectNear(ToStd(a * MakeVector<T>({1, -1, 7})), {-1, -4, -1}, 1e-6);
  ExpectNear(ToStd(a * MakeVector<T>({kM, kM, kM})), {kM, kM, kM}, 0);
  EXPECT_THROW(a.PreMultiply(MakeVector<T>({1, 2})), NCError);
  EXPECT_THROW(a * MakeMatrix<T>({{1, 2}}), NCError);
}

TYPED_TEST(MatrixProducts, ElementwiseArithmetic) {
  using T = TypeParam;
  const auto a = MakeMatrix<T>({{1, kM}, {3, 4}});
  const auto b = MakeMatrix<T>({{10, 20}, {kM, -103}});
  // 4 + (-103) lands on the marker and must be counted as missing.
  EXPECT_EQ(ToRows(a + b), (Rows{{11, kM}, {kM, kM}}));
  EXPECT_EQ(ToRows(a - b), (Rows{{-9, kM}, {kM, 107}}));
  EXPECT_EQ(ToRows(a * T(2)), (Rows{{2, kM}, {6, 8}}));
  ExpectCountsExact(a + b);
  NCDataMatrix<T> c = a;
  c += b;
  EXPECT_EQ(ToRows(c), ToRows(a + b));
  ExpectCountsExact(c);
  EXPECT_EQ(ToRows(a), (Rows{{1, kM}, {3, 4}}));  // the shared source is untouched
  EXPECT_THROW(a + MakeMatrix<T>({{1, 2}}), NCError);
}

// A - a b' with a = (1, 2, -), b = (10, -, 1): row 3 keeps its values (a_3 missing), column 2
// keeps its values (b_2 missing), element (2, 2) stays missing; -89 - 1*10 lands on -99.
TYPED_TEST(MatrixProducts, RankOneUpdateChangesOnlyCompleteTriples) {
  using T = TypeParam;
  auto m = MakeMatrix<T>({{-89, 2, 3}, {4, kM, 6}, {7, 8, 9}});
  m.TransformToSub_V_x_Vt(MakeVector<T>({1, 2, kM}), MakeVector<T>({10, kM, 1}));
  EXPECT_EQ(ToRows(m), (Rows{{kM, 2, 2}, {-16, kM, 4}, {7, 8, 9}}));
  ExpectCountsExact(m);
  m.TransformToAdd_V_x_Vt(MakeVector<T>({1, 1, 1}), MakeVector<T>({1, 1, 1}));
  EXPECT_EQ(ToRows(m), (Rows{{kM, 3, 3}, {-15, kM, 5}, {8, 9, 10}}));
  m.AddVprimV(MakeVector<T>({1, 1, 1}), MakeVector<T>({2, 0, 0}), -0.5f);
  EXPECT_EQ(ToRows(m), (Rows{{kM, 3, 3}, {-16, kM, 5}, {7, 9, 10}}));
  // Complete matrix and factors: the BLAS path.
  auto full = MakeMatrix<T>({{1, 2}, {3, 4}});
  full.TransformToSub_V_x_Vt(MakeVector<T>({1, 2}), MakeVector<T>({1, 3}));
  EXPECT_EQ(ToRows(full), (Rows{{0, -1}, {1, -2}}));
  EXPECT_THROW(full.TransformToSub_V_x_Vt(MakeVector<T>({1}), MakeVector<T>({1, 3})), NCError);
}

TYPED_TEST(MatrixProducts, ScalingInPlace) {
  using T = TypeParam;
  auto m = MakeMatrix<T>({{1, 2, kM}, {4, 5, 6}});
  m.DotMultiplyVector(MakeVector<T>({2, kM, 1}));
  EXPECT_EQ(ToRows(m), (Rows{{2, kM, kM}, {8, kM, 6}}));
  m.DotPreDivideVector(MakeVector<T>({2, 0}));  // a zero divisor empties the row
  EXPECT_EQ(ToRows(m), (Rows{{1, kM, kM}, {kM, kM, kM}}));
  ExpectCountsExact(m);
  auto n = MakeMatrix<T>({{1, 2}, {3, 4}});
  n.TransformToDotSubRowVector(MakeVector<T>({1, kM}));
  EXPECT_EQ(ToRows(n), (Rows{{0, kM}, {2, kM}}));
  auto k = MakeMatrix<T>({{1, 2, 0}, {3, kM, 0}});
  k.MultiplyColumns(3, 1, 2);
  k.MultiplyRow(1, T(10), 2);
  EXPECT_EQ(ToRows(k), (Rows{{1, 20, 20}, {3, kM, kM}}));
  ExpectCountsExact(k);
}

template <class T>
class MatrixLinearAlgebra : public ::testing::Test {};
TYPED_TEST_SUITE(MatrixLinearAlgebra, Precisions);

// [4 7; 2 6] has determinant 10 and inverse [6 -7; -2 4] / 10.
TYPED_TEST(MatrixLinearAlgebra, InverseAndItsRefusals) {
  using T = TypeParam;
  auto m = MakeMatrix<T>({{4, 7}, {2, 6}});
  ASSERT_TRUE(m.TransformToInverse());
  ExpectNear(ToRows(m), {{0.6, -0.7}, {-0.2, 0.4}}, Tolerance<T>());
  const Rows singular = {{1, 2}, {2, 4}};
  auto s = MakeMatrix<T>(singular);
  EXPECT_FALSE(s.TransformToInverse());
  EXPECT_EQ(ToRows(s), singular);
  auto gap = MakeMatrix<T>({{1, kM}, {0, 1}});
  EXPECT_FALSE(gap.TransformToInverse());
  EXPECT_THROW(MakeMatrix<T>({{1, 2}}).TransformToInverse(), NCError);
  auto mm = MakeMatrix<T>({{1, 2}, {3, 4}});
  mm.TransformToMprim_mul_M();  // A'A = [1+9 2+12; 2+12 4+16]
  EXPECT_EQ(ToRows(mm), (Rows{{10, 14}, {14, 20}}));
}

// Oracle: U diag(s) V' rebuilds A, U and V have orthonormal columns; [3 0; 0 -4] has singular
// values 4 and 3.
TYPED_TEST(MatrixLinearAlgebra, SingularValueDecompositionRebuildsTheMatrix) {
  using T = TypeParam;
  ExpectNear(ToStd(MakeMatrix<T>({{3, 0}, {0, -4}}).GetSVD()), {4, 3}, Tolerance<T>());
  for (const auto& shape : {std::make_pair(6, 3), std::make_pair(3, 5)}) {
    SCOPED_TRACE(shape.first);
    const auto a = RandomMatrix<T>(shape.first, shape.second, 0, 7);
    NCDataMatrix<T> u, v;
    const NCDataVector<T> s = a.GetSVD(&u, &v);
    const int k = std::min(shape.first, shape.second);
    ASSERT_EQ(s.Size(), k);
    ASSERT_EQ(u.SizeRows(), shape.first);
    ASSERT_EQ(v.SizeRows(), shape.second);
    for (int i = 1; i <= shape.first; ++i)
      for (int j = 1; j <= shape.second; ++j) {
        double rebuilt = 0;
        for (int l = 1; l <= k; ++l) rebuilt += u[i][l] * s[l] * v[j][l];
        EXPECT_NEAR(rebuilt, a[i][j], 20 * Tolerance<T>());
      }
    const NCDataMatrix<T> vtv = v.MultiplyTransposeThis(v);
    for (int l = 1; l <= k; ++l) EXPECT_NEAR(vtv[l][l], 1, 20 * Tolerance<T>());
    NCDataMatrix<T> b = a;
    EXPECT_EQ(ToStd(NCDataMatrix<T>::SVD(&b)), ToStd(s));
    EXPECT_EQ(ToRows(b), ToRows(u));
  }
  EXPECT_THROW(MakeMatrix<T>({{1, kM}}).GetSVD(), NCError);
}

// y = 2 + 3x exactly on x = 0..3: the coefficients are (2, 3).
TYPED_TEST(MatrixLinearAlgebra, RegressionCoefficients) {
  using T = TypeParam;
  const auto x = MakeMatrix<T>({{1, 0}, {1, 1}, {1, 2}, {1, 3}});
  const auto y = MakeMatrix<T>({{2}, {5}, {8}, {11}});
  ExpectNear(ToRows(x.GetRegressionCoefficients(y)), {{2}, {3}}, 10 * Tolerance<T>());
  try {
    MakeMatrix<T>({{1, kM}, {1, 1}}).GetRegressionCoefficients(MakeMatrix<T>({{1}, {2}}));
    FAIL() << "no exception";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), "Internal error in GetRegressionCoefficients");
  }
}

template <class T>
class MatrixProjections : public ::testing::Test {};
TYPED_TEST_SUITE(MatrixProjections, Precisions);

// t = (1, 2, 3). Column 1 = (2, -, -): one pair, 1*2 / 1^2 = 2; the floor is 14/3, so the Fix
// variant gives 2 / (14/3) = 3/7. Column 2 has no pair (-99). Column 3 = (-, 4, 6): 26/13 = 2,
// above the floor. With t = (0, 2, 3) column 1 pairs only with t_1 = 0: 0/0 plain, 0 floored.
TYPED_TEST(MatrixProjections, ColumnRegressionByHand) {
  using T = TypeParam;
  const auto m = MakeMatrix<T>({{2, kM, kM}, {kM, kM, 4}, {kM, kM, 6}});
  const auto t = MakeVector<T>({1, 2, 3});
  ExpectNear(ToStd(m.RegressColumns(t)), {2, kM, 2}, Tolerance<T>());
  ExpectNear(ToStd(m.SpecialNipalsRegressColumnsFix(t)), {3.0 / 7, kM, 2}, Tolerance<T>());
  const auto zero = MakeVector<T>({0, 2, 3});
  ExpectNear(ToStd(m.RegressColumns(zero)), {NAN, kM, 2}, Tolerance<T>());
  ExpectNear(ToStd(m.SpecialNipalsRegressColumnsFix(zero)), {0, kM, 2}, Tolerance<T>());
  // Excluding row 1 leaves column 1 without a pair.
  const NCIntegralVector<int, -99> groups = [] {
    NCIntegralVector<int, -99> g(3, 0);
    g(1) = 1;
    return g;
  }();
  ExpectNear(ToStd(m.SpecialNipalsRegressColumnsFix(t, &groups, 1)), {kM, kM, 2}, Tolerance<T>());
  EXPECT_THROW(m.RegressColumns(MakeVector<T>({1, 2})), NCError);
}

// Oracle: the vector projections of NCDataVector, column by column and row by row, on a random
// matrix with gaps in the matrix and in the regressor, and on complete data (the BLAS path).
TYPED_TEST(MatrixProjections, AgreeWithVectorRegressions) {
  using T = TypeParam;
  for (const double share : {0.0, 0.15}) {
    SCOPED_TRACE(share);
    const auto m = RandomMatrix<T>(1300, 9, share, 3);  // more than one band of rows
    NCDataVector<T> t = RandomMatrix<T>(1, 1300, share, 4)[1];
    NCDataVector<T> p = RandomMatrix<T>(1, 9, share, 5)[1];
    NCIntegralVector<int, -99> rowGroups(1300, 0), columnGroups(9, 0);
    for (int i = 1; i <= 1300; ++i) rowGroups(i) = i % 3;
    for (int j = 1; j <= 9; ++j) columnGroups(j) = j % 3;
    std::vector<double> regress, fix, fixExcluded, pre;
    for (int j = 1; j <= 9; ++j) {
      const NCDataVector<T> column = m.GetColumn(j);
      regress.push_back(t.Regress(column));
      fix.push_back(t.SpecialNipalsRegressFix(column));
      fixExcluded.push_back(t.SpecialNipalsRegressFixWithExclude(column, rowGroups, 2));
      pre.push_back(t * column);
    }
    ExpectNear(ToStd(m.RegressColumns(t)), regress, 20 * Tolerance<T>());
    ExpectNear(ToStd(m.SpecialNipalsRegressColumnsFix(t)), fix, 20 * Tolerance<T>());
    ExpectNear(ToStd(m.SpecialNipalsRegressColumnsFix(t, &rowGroups, 2)), fixExcluded,
               20 * Tolerance<T>());
    ExpectNear(ToStd(m.PreMultiply(t)), pre, 50 * Tolerance<T>());
    std::vector<double> rows, rowsFix;
    for (int i = 1; i <= 1300; ++i) {
      rows.push_back(p.Regress(m[i]));
      rowsFix.push_back(p.SpecialNipalsRegressFixWithExclude(m[i], columnGroups, 1));
    }
    ExpectNear(ToStd(m.RegressRows(p)), rows, 20 * Tolerance<T>());
    ExpectNear(ToStd(m.SpecialNipalsRegressRowsFix(p, &columnGroups, 1)), rowsFix,
               20 * Tolerance<T>());
  }
}

// The masked column sums take rows four at a time: a gap must clear its term wherever its row
// falls in a group of four or in the tail, even when the weight is infinite (inf * -99 must not
// reach the sum), while a present infinity still counts. 11 rows x 10 columns: two groups of four
// and a tail of three, eight-lane body and a two-column tail.
TYPED_TEST(MatrixProjections, GapsClearInfiniteTermsInEveryRowOfASweep) {
  using T = TypeParam;
  const T inf = std::numeric_limits<T>::infinity();
  for (const int special : {0, 5, 9, 10}) {  // 0-based row with the infinite weight
    SCOPED_TRACE("row " + std::to_string(special + 1));
    NCDataMatrix<T> m(11, 10, T(1));
    for (int j = 1; j <= 10; j += 2) m(special + 1, j, T(-99));  // odd columns have the gap
    NCDataVector<T> t(11, T(2));
    t(special + 1, inf);
    const std::vector<double> sums = ToStd(m.PreMultiply(t));
    for (int j = 1; j <= 10; ++j) {
      if (j % 2 == 1)
        EXPECT_EQ(sums[j - 1], 20.0) << "column " << j;  // ten rows of 2 * 1
      else
        EXPECT_EQ(sums[j - 1], static_cast<double>(inf)) << "column " << j;
    }
  }
}

// Sums of squares {4, 4.000001, 9}: column 3; {4, 4.000001}: column 1 (a later column must win by
// more than one part in a million); {4, 4.00001}: column 2.
TYPED_TEST(MatrixProjections, StartColumnPicksTheLargestSumOfSquares) {
  using T = TypeParam;
  struct Case {
    const char* name;
    Rows rows;
    std::vector<double> expected;
  };
  const Case cases[] = {
      {"largest", {{2, 2, 3}, {0, 0.001, 0}}, {3, 0}},
      {"near tie keeps the first", {{2, 2}, {0, 0.001}}, {2, 0}},
      {"clear winner", {{2, 2}, {0, std::sqrt(1e-5)}}, {2, std::sqrt(1e-5)}},
      {"gaps filled in turn",
       {{kM, 1}, {5, 1}, {kM, 1}, {-2, 1}, {kM, 1}},
       {0.05, 5, -0.05, -2, 0.05}},
      {"single column filled too", {{kM}, {-4}, {kM}}, {0.04, -4, -0.04}},
      {"all missing stays so", {{kM}, {kM}}, {kM, kM}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const NCDataVector<T> start = MakeMatrix<T>(c.rows).GetNIPALSStartColumn();
    std::vector<double> expected;
    for (const double e : c.expected) expected.push_back(static_cast<T>(e));
    EXPECT_EQ(ToStd(start), expected);
    int missing = 0;
    for (const double e : c.expected) missing += e == kM;
    EXPECT_EQ(start.GetNumMisVal(), missing);
  }
}

// The proxies write into the target they were given, reusing its buffer, also when the target is
// an operand; a null target throws the hosts' message.
TYPED_TEST(MatrixProjections, ResultProxiesWriteIntoTheirTarget) {
  using T = TypeParam;
  const auto m = MakeMatrix<T>({{1, 2}, {3, 4}});
  NCDataVector<T> p(2, T(0));
  p.Unlink();
  const T* buffer = p.GetVector();
  m.Result(&p).RegressColumns(MakeVector<T>({1, 1}));  // (1 + 3)/2, (2 + 4)/2
  EXPECT_EQ(ToStd(p), (std::vector<double>{2, 3}));
  EXPECT_EQ(p.GetVector(), buffer);
  NCDataVector<T> v = MakeVector<T>({1, 1});
  v.Result(&v) * m;  // v'm into v itself
  EXPECT_EQ(ToStd(v), (std::vector<double>{4, 6}));
  NCDataMatrix<T> a = m;
  a.Result(&a) * m;  // [1 2; 3 4]^2
  EXPECT_EQ(ToRows(a), (Rows{{7, 10}, {15, 22}}));
  NCDataMatrix<T> c;
  EXPECT_THROW(m.Result(&c).RegressRows(p), NCError);  // a vector result into a matrix
  try {
    m.Result(static_cast<NCDataMatrix<T>*>(nullptr));
    FAIL() << "no exception";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), "Internal error in NCMatOpResultProxy:\npResult can not be NULL");
  }
}

template <class T>
class MatrixStatistics : public ::testing::Test {};
TYPED_TEST_SUITE(MatrixStatistics, Precisions);

// Column 1 = (1, 2, 3, 4, 5): mean 3, SS around the mean 10, s = sqrt(10/4) (sqrt(10/5) with the
// divisor 5); Cp(0, 6) =
// 6 / (6 s), Cpk(0, 6) = 3 / (3 s), Cpk without a lower limit = (4 - 3) / (3 s).
// Column 2 has one present value. Column 3 = (1, 3, 5, -, -): SS around its mean 3 is 8.
TYPED_TEST(MatrixStatistics, ColumnStatistics) {
  using T = TypeParam;
  const auto m = MakeMatrix<T>({{1, kM, 1}, {2, 7, 3}, {3, kM, 5}, {4, kM, kM}, {5, kM, kM}});
  const double s = std::sqrt(2.5);
  EXPECT_NEAR(m.GetColumnStdDev(1), s, 1e-6);
  EXPECT_NEAR(m.GetColumnStdDev(1, 5), std::sqrt(2.0), 1e-6);
  EXPECT_EQ(m.GetColumnStdDev(2), -99);
  EXPECT_EQ(m.GetColumnSS(1, T(3)), 10);
  EXPECT_EQ(m.GetColumnSS(2), 49);
  EXPECT_NEAR(m.GetColumnCp(1, 0, 6), 1 / s, 1e-6);
  EXPECT_NEAR(m.GetColumnCpk(1, 0, 6), 1 / s, 1e-6);
  EXPECT_NEAR(m.GetColumnCpk(1, -99, 4), 1 / (3 * s), 1e-6);
  EXPECT_EQ(m.GetColumnCp(1, 6, 0), -99);
  EXPECT_EQ(m.GetColumnCp(2, 0, 6), -99);
  EXPECT_EQ(m.GetColumnMedian(3), 3);
  EXPECT_EQ(m.GetColumnSkewness(3, 4), -99);  // three present values, four asked for
  EXPECT_EQ(m.GetColumnSkewness(3), 0);       // symmetric
  EXPECT_NEAR(m.GetSSAroundColumnMeans(), 10 + 0 + 8, 1e-6);
  EXPECT_NEAR(m.GetDensity(1, 3), 9.0 / 15, 1e-12);
  EXPECT_NEAR(m.GetDensity(2, 9, true), 100 * 4.0 / 10, 1e-12);
  EXPECT_EQ(m.GetDensity(3, 2), -99);
}

TYPED_TEST(MatrixStatistics, WholeMatrixSumsAndSNV) {
  using T = TypeParam;
  // The mean of -98 and -100 would read as missing, so it is nudged off -99.
  const long double mean = MakeMatrix<T>({{-98}, {-100}}).GetMean();
  EXPECT_NE(mean, -99);
  EXPECT_NEAR(static_cast<double>(mean), -99.00001, 1e-9);
  EXPECT_EQ(MakeMatrix<T>({{1, kM}, {2, 3}}).GetSS(), 14);
  EXPECT_EQ(MakeMatrix<T>({{kM}}).GetSS(), -99);
  auto m = MakeMatrix<T>({{1, 2, 3, kM}, {4, 4, 4, 4}});
  m.SNV();  // row 1: mean 2, s 1; row 2 has no spread and is only centred
  EXPECT_EQ(ToRows(m), (Rows{{-1, 0, 1, kM}, {0, 0, 0, 0}}));
  ExpectCountsExact(m);
  const auto c = MakeMatrix<T>({{1, 3}, {2, 2}, {3, kM}});
  ExpectNear(ToStd(c.GetColumnCorrelation(MakeVector<T>({1, 2, 3}))), {1, -1}, 1e-6);
}

}  // namespace
