#include <mvda/containers/data_matrix.h>
#include <mvda/platform/error.h>

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Rows = std::vector<std::vector<double>>;

template <class T>
Rows ToRows(const NCDataMatrix<T>& m) {
  Rows rows;
  for (const NCDataVector<T>& row : m) rows.push_back(ToStd(row));
  return rows;
}

const Rows kA = {{1, -99, 3}, {-99, 5, -99}, {7, 8, 9}};

using Precisions = ::testing::Types<float, double>;
template <class T>
class DataMatrix : public ::testing::Test {};
TYPED_TEST_SUITE(DataMatrix, Precisions);

TYPED_TEST(DataMatrix, ConstructorFillSetsCounts) {
  const NCDataMatrix<TypeParam> missing(3, 2, TypeParam(-99));
  EXPECT_EQ(missing.GetNumMisVal(), 6);
  EXPECT_EQ(missing.GetColumnMisVal(1), 3);
  ExpectCountsExact(missing);
  const NCDataMatrix<TypeParam> present(2, 3, TypeParam(1.5));
  EXPECT_EQ(ToRows(present), (Rows{{1.5, 1.5, 1.5}, {1.5, 1.5, 1.5}}));
  ExpectCountsExact(present);
}

// Every mutator runs on a copy that shares kA: the expected elements are worked out by hand from
// kA, the counts are checked against the element-by-element oracle, and the shared source must
// come out untouched.
TYPED_TEST(DataMatrix, MutatorsKeepCountsAndLeaveSharedSourceAlone) {
  using T = TypeParam;
  using M = NCDataMatrix<T>;
  struct Case {
    const char* name;
    std::function<void(M&)> op;
    Rows expected;
  };
  const M b = MakeMatrix<T>({{10}, {-99}});
  const M column = MakeMatrix<T>({{-99}, {2}, {-99}});
  const Case cases[] = {
      {"element write", [](M& m) { m(3, 1, T(-99)); }, {{1, -99, 3}, {-99, 5, -99}, {-99, 8, 9}}},
      {"row reference write", [](M& m) { m(2)(2, T(6)); }, {{1, -99, 3}, {-99, 6, -99}, {7, 8, 9}}},
      {"InsertRows",
       [](M& m) { m.InsertRows(2, 1); },
       {{1, -99, 3}, {-99, -99, -99}, {-99, 5, -99}, {7, 8, 9}}},
      {"InsertRow own row",
       [](M& m) { m.InsertRow(1, m[3]); },
       {{7, 8, 9}, {1, -99, 3}, {-99, 5, -99}, {7, 8, 9}}},
      {"push_back own row",
       [](M& m) { m.push_back(m[2]); },
       {{1, -99, 3}, {-99, 5, -99}, {7, 8, 9}, {-99, 5, -99}}},
      {"RemoveRows past end", [](M& m) { m.RemoveRows(2, 5); }, {{1, -99, 3}}},
      {"RemoveRows list",
       [](M& m) { m.RemoveRows(NCIntegralVector<int, -99>(2, 3)); },
       {{1, -99, 3}, {-99, 5, -99}}},
      {"SetRow value",
       [](M& m) {
         m.SetRow(1, T(-99));
         m.SetRow(2, T(0));
       },
       {{-99, -99, -99}, {0, 0, 0}, {7, 8, 9}}},
      {"SetRow own row",
       [](M& m) { m.SetRow(3, m[1]); },
       {{1, -99, 3}, {-99, 5, -99}, {1, -99, 3}}},
      {"CopyRow", [](M& m) { m.CopyRow(2, 1); }, {{1, -99, 3}, {1, -99, 3}, {7, 8, 9}}},
      {"SwapRows", [](M& m) { m.SwapRows(1, 3); }, {{7, 8, 9}, {-99, 5, -99}, {1, -99, 3}}},
      {"GetRowSubMatrix clamped",
       [](M& m) { m = m.GetRowSubMatrix(2, 9); },
       {{-99, 5, -99}, {7, 8, 9}}},
      {"InsertColumns",
       [](M& m) { m.InsertColumns(1, 2); },
       {{-99, -99, 1, -99, 3}, {-99, -99, -99, 5, -99}, {-99, -99, 7, 8, 9}}},
      {"InsertColumns own matrix",
       [](M& m) { m.InsertColumns(2, m); },
       {{1, 1, -99, 3, -99, 3}, {-99, -99, 5, -99, 5, -99}, {7, 7, 8, 9, 8, 9}}},
      {"InsertColumn",
       [&](M& m) { m.InsertColumn(4, column.GetColumn(1)); },
       {{1, -99, 3, -99}, {-99, 5, -99, 2}, {7, 8, 9, -99}}},
      {"SetColumn vector",
       [](M& m) {
         m.SetColumn(2, MakeVector<T>({-99, 1, 2}));
       },
       {{1, -99, 3}, {-99, 1, -99}, {7, 2, 9}}},
      {"SetColumn value",
       [](M& m) { m.SetColumn(3, T(6)); },
       {{1, -99, 6}, {-99, 5, 6}, {7, 8, 6}}},
      {"RemoveColumns", [](M& m) { m.RemoveColumns(2, 1); }, {{1, 3}, {-99, -99}, {7, 9}}},
      {"RemoveColumns list with repeat",
       [](M& m) { m.RemoveColumns(NCIntegralVector<int, -99>(2, 1)); },
       {{-99, 3}, {5, -99}, {8, 9}}},
      {"ReduceColumns with repeat",
       [](M& m) {
         NCIntegralVector<int, -99> keep(3, 3);
         keep(3) = 1;
         m.ReduceColumns(keep);
       },
       {{3, 3, 1}, {-99, -99, -99}, {9, 9, 7}}},
      // The listed column goes first, the others follow in their old order.
      {"RearrangeColumns short",
       [](M& m) { m.RearrangeColumns({3}); },
       {{3, 1, -99}, {-99, -99, 5}, {9, 7, 8}}},
      // Column 1 gets a second missing element first, so the swapped counts differ.
      {"SwapColumns",
       [](M& m) {
         m(3, 1, T(-99));
         m.SwapColumns(1, 2);
       },
       {{-99, 1, 3}, {5, -99, -99}, {8, -99, 9}}},
      {"CopyColumn", [](M& m) { m.CopyColumn(1, 2); }, {{-99, -99, 3}, {5, 5, -99}, {8, 8, 9}}},
      {"CopyColumn from other",
       [&](M& m) { m.CopyColumn(3, column, 1); },
       {{1, -99, -99}, {-99, 5, 2}, {7, 8, -99}}},
      // Column 1 {1, -99, 7} moves down a row, column 3 {3, -99, 9} up a row.
      {"LagColumn",
       [](M& m) {
         m.LagColumn(1, 1);
         m.LagColumn(3, -1);
       },
       {{-99, -99, -99}, {1, 5, 9}, {-99, 8, -99}}},
      {"LagColumn beyond length",
       [](M& m) { m.LagColumn(2, -5); },
       {{1, -99, 3}, {-99, -99, -99}, {7, -99, 9}}},
      // Non-square, so that a row count mistaken for a column count shows.
      {"Transpose",
       [](M& m) {
         m.RemoveColumns(3, 1);
         m.Transpose();
       },
       {{1, -99, 7}, {-99, 5, 8}}},
      {"ConcatRows own matrix",
       [](M& m) { m.ConcatRows(m); },
       {{1, -99, 3}, {-99, 5, -99}, {7, 8, 9}, {1, -99, 3}, {-99, 5, -99}, {7, 8, 9}}},
      {"ConcatColumns own matrix",
       [](M& m) { m.ConcatColumns(m); },
       {{1, -99, 3, 1, -99, 3}, {-99, 5, -99, -99, 5, -99}, {7, 8, 9, 7, 8, 9}}},
      // b has two rows: the third row gets a missing element.
      {"ConcatColumns fewer rows",
       [&](M& m) { m.ConcatColumns(b); },
       {{1, -99, 3, 10}, {-99, 5, -99, -99}, {7, 8, 9, -99}}},
      {"Resize grows",
       [](M& m) { m.Resize(4, 4); },
       {{1, -99, 3, -99}, {-99, 5, -99, -99}, {7, 8, 9, -99}, {-99, -99, -99, -99}}},
      {"Resize shrinks", [](M& m) { m.Resize(1, 2); }, {{1, -99}}},
      {"SetSize", [](M& m) { m.SetSize(1, 2); }, {{-99, -99}}},
      {"SetAllValues", [](M& m) { m.SetAllValues(T(0)); }, {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}}},
      {"SetAllValues missing",
       [](M& m) { m.SetAllValues(T(-99)); },
       {{-99, -99, -99}, {-99, -99, -99}, {-99, -99, -99}}},
      {"Clear", [](M& m) { m.Clear(); }, {}},
  };
  const M a = MakeMatrix<T>(kA);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    M m = a;
    c.op(m);
    EXPECT_EQ(ToRows(m), c.expected);
    EXPECT_EQ(m.SizeColumns(), c.expected.empty() ? 0 : static_cast<int>(c.expected[0].size()));
    ExpectCountsExact(m);
    EXPECT_EQ(ToRows(a), kA);
    ExpectCountsExact(a);
  }
}

TYPED_TEST(DataMatrix, BadSizesThrowAndChangeNothing) {
  using T = TypeParam;
  using M = NCDataMatrix<T>;
  struct Case {
    const char* name;
    std::function<void(M&)> op;
    const char* place;
  };
  const M two_rows(2, 1, T(0));
  const Case cases[] = {
      {"constructor", [](M&) { M m(-1, 2, T(0)); }, "NCDataMatrix::NCDataMatrix: negative"},
      {"constructor too large", [](M&) { M m(100000, 100000, T(0)); },
       "NCDataMatrix::NCDataMatrix: 100000 x 100000"},
      {"SetSize", [](M& m) { m.SetSize(2, -1); }, "NCDataMatrix::SetSize: negative"},
      {"Resize", [](M& m) { m.Resize(-1, 1); }, "NCDataMatrix::Resize: negative"},
      {"ReserveRows", [](M& m) { m.ReserveRows(-1); }, "NCDataMatrix::ReserveRows: negative"},
      {"ReserveColumns", [](M& m) { m.ReserveColumns(-2); },
       "NCDataMatrix::ReserveColumns: negative"},
      {"InsertRows", [](M& m) { m.InsertRows(1, -1); }, "NCDataMatrix::InsertRows: negative"},
      {"InsertColumns", [](M& m) { m.InsertColumns(1, -1); },
       "NCDataMatrix::InsertColumns: negative"},
      {"RemoveRows", [](M& m) { m.RemoveRows(1, -1); }, "NCDataMatrix::RemoveRows: negative"},
      {"push_back short row", [](M& m) { m.push_back(NCDataVector<T>(2, T(0))); },
       "NCDataMatrix::push_back: row of length 2"},
      {"SetColumn long column", [](M& m) { m.SetColumn(1, NCDataVector<T>(4, T(0))); },
       "NCDataMatrix::SetColumn: column of length 4"},
      {"InsertColumns other rows", [&](M& m) { m.InsertColumns(1, two_rows); },
       "NCDataMatrix::InsertColumns: matrix of 2 rows"},
      {"RearrangeColumns repeat",
       [](M& m) {
         m.RearrangeColumns({2, 2});
       },
       "NCDataMatrix::RearrangeColumns: column 2"},
      {"RearrangeColumns outside", [](M& m) { m.RearrangeColumns({4}); },
       "NCDataMatrix::RearrangeColumns: column 4"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    M m = MakeMatrix<T>(kA);
    try {
      c.op(m);
      ADD_FAILURE() << "no exception";
    } catch (const NCError& e) {
      EXPECT_THAT(e.what(), ::testing::StartsWith(c.place));
    }
    EXPECT_EQ(ToRows(m), kA);
    ExpectCountsExact(m);
  }
}

TYPED_TEST(DataMatrix, ConcatRowsChecksColumnsOnlyWhenThisHasData) {
  using T = TypeParam;
  NCDataMatrix<T> a(2, 3, T(1));
  const NCDataMatrix<T> b(4, 2, T(-99));
  try {
    a.ConcatRows(b);
    ADD_FAILURE() << "no exception";
  } catch (const NCError& e) {
    EXPECT_STREQ(e.what(),
                 "Error in NCDataMatrix<FloatType>::ConcatRows.\nMatrices are different size");
  }
  EXPECT_EQ(ToRows(a), (Rows{{1, 1, 1}, {1, 1, 1}}));

  a.ConcatRows(NCDataMatrix<T>(0, 2, T(0)));  // no rows: nothing happens
  EXPECT_EQ(a.SizeRows(), 2);

  for (NCDataMatrix<T> empty : {NCDataMatrix<T>(), NCDataMatrix<T>(0, 5, T(0))}) {
    empty.ConcatRows(b);
    EXPECT_EQ(ToRows(empty), ToRows(b));
    EXPECT_EQ(empty.GetColumnMisVal(2), 4);
    EXPECT_EQ(empty[1].GetVector(), b[1].GetVector());  // a shared copy, not a deep one
  }
}

TYPED_TEST(DataMatrix, SetColumnMissingShortcutComparesWithColumnCount) {
  using T = TypeParam;
  // 5 x 2: column 1 holds 2 missing = the number of columns, so nothing is written.
  NCDataMatrix<T> skip = MakeMatrix<T>({{-99, 1}, {-99, 1}, {3, 1}, {4, 1}, {5, 1}});
  skip.SetColumn(1, T(-99));
  EXPECT_EQ(ToStd(skip.GetColumn(1)), (std::vector<double>{-99, -99, 3, 4, 5}));
  EXPECT_EQ(skip.GetColumnMisVal(1), 2);
  // One missing: every row is written.
  NCDataMatrix<T> write = MakeMatrix<T>({{-99, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 1}});
  write.SetColumn(1, T(-99));
  EXPECT_EQ(ToStd(write.GetColumn(1)), (std::vector<double>(5, -99)));
  ExpectCountsExact(write);
}

TYPED_TEST(DataMatrix, FirstWriteToCopyUnlinksOnlyTheWrittenRow) {
  using T = TypeParam;
  NCDataMatrix<T> source(3, 4, T(1));
  NCDataMatrix<T> copy = source;
  copy(2, 3, T(-99));
  EXPECT_EQ(source[2][3], T(1));
  EXPECT_EQ(source.GetNumMisVal(), 0);
  EXPECT_EQ(source.GetColumnMisVal(3), 0);
  EXPECT_EQ(copy.GetColumnMisVal(3), 1);
  EXPECT_EQ(copy[1].GetVector(), source[1].GetVector());
  EXPECT_NE(copy[2].GetVector(), source[2].GetVector());
  source(1, 1, T(5));  // the other way round: the copy keeps its element
  EXPECT_EQ(copy[1][1], T(1));
}

}  // namespace
