#include <mvda/containers/detail/random_draw.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using IntVector = NCIntegralVector<int, -99>;

IntVector Make(const std::vector<int>& values) {
  return IntVector(values.data(), static_cast<int>(values.size()));
}

template <class V>
std::vector<long long> ToStd(const V& v) {
  return std::vector<long long>(v.begin(), v.end());
}

TEST(IntegralVectorStatistics, CountEveryElementIncludingTheMissingCode) {
  struct Case {
    const char* name;
    std::vector<int> values;
    long sum;
    double mean, variance, sd;
  };
  const Case cases[] = {
      {"floating mean", {1, 2}, 3, 1.5, 0.5, std::sqrt(0.5)},  // deviations +-0.5, 0.5 / 1
      {"missing code summed", {-99, 1}, -98, -49, 5000, std::sqrt(5000.0)},  // +-50: 5000 / 1
      {"odd length", {1, 2, 3, 4, 5}, 15, 3, 2.5, std::sqrt(2.5)},           // (4+1+0+1+4) / 4
      {"one element", {7}, 7, 7, 0, -99},  // variance 0 but no standard deviation
      {"empty", {}, 0, -99, -99, -99},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const IntVector v = Make(c.values);
    EXPECT_EQ(v.GetSum(), c.sum);
    EXPECT_DOUBLE_EQ(v.GetMean(), c.mean);
    EXPECT_DOUBLE_EQ(v.GetVariance(), c.variance);
    EXPECT_DOUBLE_EQ(v.GetStdDev(), c.sd);
  }
  // 2 * (2^31 - 1) + 2 = 2^32: a 32-bit accumulator would wrap to 0.
  EXPECT_EQ(Make({INT_MAX, INT_MAX, 2}).GetSum(), 4294967296L);
  const bool flags[] = {true, false, true};
  EXPECT_EQ((NCIntegralVector<bool, false>(flags, 3).GetSum()), 2);
}

TEST(IntegralVectorIndexLists, GenerateSortAndSearch) {
  IntVector v(4, 9);
  v.GenerateIndex(0, 2);
  EXPECT_EQ(ToStd(v), (std::vector<long long>{0, 2, 4, 6}));
  v.GenerateIndex(10, -3);
  EXPECT_EQ(ToStd(v), (std::vector<long long>{10, 7, 4, 1}));

  struct SortCase {
    bool ascending, unique;
    std::vector<long long> expected;
  };
  for (const SortCase& c :
       {SortCase{true, false, {1, 1, 2, 3, 3}}, SortCase{true, true, {1, 2, 3}},
        SortCase{false, false, {3, 3, 2, 1, 1}}, SortCase{false, true, {3, 2, 1}}}) {
    SCOPED_TRACE(std::to_string(c.ascending) + std::to_string(c.unique));
    IntVector s = Make({3, 1, 2, 3, 1});
    s.Sort(c.ascending, c.unique);
    EXPECT_EQ(ToStd(s), c.expected);
  }

  // Equal elements keep their order: the 2 from position 1 precedes the 2 from position 3.
  std::vector<int> positions;
  IntVector s = Make({2, 5, 2, 7});
  s.SortWithOriginalIndex(false, positions);
  EXPECT_EQ(ToStd(s), (std::vector<long long>{7, 5, 2, 2}));
  EXPECT_EQ(positions, (std::vector<int>{4, 2, 1, 3}));
  s = Make({2, 5, 2, 7});
  s.SortWithOriginalIndex(true, positions);
  EXPECT_EQ(positions, (std::vector<int>{1, 3, 2, 4}));

  struct SortedCase {
    std::vector<int> values;
    bool ascending, descending;
  };
  for (const SortedCase& c :
       {SortedCase{{3, 2, 1}, false, true}, SortedCase{{1, 2}, true, false},
        SortedCase{{1, 1, 2}, true, false}, SortedCase{{1, 3, 2}, false, false},
        SortedCase{{}, true, true}, SortedCase{{5}, true, true}}) {
    SCOPED_TRACE(::testing::PrintToString(c.values));
    EXPECT_EQ(Make(c.values).IsSorted(true), c.ascending);
    EXPECT_EQ(Make(c.values).IsSorted(false), c.descending);
  }

  const IntVector up = Make({1, 3, 3, 5});
  EXPECT_EQ(up.LowerBound(3), 2);
  EXPECT_EQ(up.LowerBound(3, true), 4);
  EXPECT_EQ(up.LowerBound(4), 4);
  EXPECT_EQ(up.LowerBound(0), 1);
  EXPECT_EQ(up.LowerBound(6), 5);
  EXPECT_EQ(up.Find(3, IntVector::kAscending), 2);
  EXPECT_EQ(up.Find(4, IntVector::kAscending), 0);
  const IntVector down = Make({5, 3, 3, 1});
  EXPECT_EQ(down.Find(3, IntVector::kDescending), 2);
  EXPECT_EQ(down.Find(1, IntVector::kDescending), 4);
  EXPECT_EQ(down.Find(6, IntVector::kDescending), 0);
  const IntVector any = Make({5, 3, 7, 3});
  EXPECT_EQ(any.Find(3), 2);
  EXPECT_EQ(any.Find(3, IntVector::kUnsorted, 3), 4);
  EXPECT_EQ(any.Find(3, IntVector::kUnsorted, 3, 3), 0);
  EXPECT_EQ(any.Find(9), 0);
}

TEST(IntegralVectorEditing, InsertRemoveReduce) {
  struct Case {
    const char* name;
    std::function<void(IntVector&)> edit;
    std::vector<long long> expected;
  };
  const Case cases[] = {
      {"insert inside", [](IntVector& v) { v.InsertValues(2, 2, 7); }, {1, 7, 7, 2, 3}},
      {"insert past end appends", [](IntVector& v) { v.InsertValues(9, 1, 7); }, {1, 2, 3, 7}},
      {"insert itself", [](IntVector& v) { v.InsertValues(2, v); }, {1, 1, 2, 3, 2, 3}},
      {"concat itself", [](IntVector& v) { v.Concat(v); }, {1, 2, 3, 1, 2, 3}},
      {"insert at pointer", [](IntVector& v) { v.insert(v.begin() + 1, 8); }, {1, 8, 2, 3}},
      {"erase range", [](IntVector& v) { v.erase(v.begin(), v.begin() + 2); }, {3}},
      {"remove beyond end", [](IntVector& v) { v.RemoveValues(2, 10); }, {1}},
      {"set range clipped", [](IntVector& v) { v.SetRange(0, 2, 9); }, {9, 9, 3}},
      {"add to all", [](IntVector& v) { v += 5; }, {6, 7, 8}},
      {"remove positions",
       [](IntVector& v) {
         v.Remove(Make({3, 1, 3}));
       },
       {2}},
      {"reduce in listed order",
       [](IntVector& v) {
         v.Reduce(Make({3, 1}));
       },
       {3, 1}},
      {"grow with missing code", [](IntVector& v) { v.SetSize(5); }, {1, 2, 3, -99, -99}},
      {"shrink", [](IntVector& v) { v.resize(1, 0); }, {1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    IntVector v = Make({1, 2, 3});
    c.edit(v);
    EXPECT_EQ(ToStd(v), c.expected);
  }
  EXPECT_TRUE(Make({1, 2}) < Make({1, 2, 0}));  // a prefix sorts first
  EXPECT_TRUE(Make({1, 3}) > Make({1, 2, 9}));
  IntVector spare = Make({1, 2});
  spare.Reserve(100);
  EXPECT_EQ(spare, Make({1, 2}));  // capacity is not content
}

TEST(IntegralVectorArguments, BadSizesAndPositionsThrowAndChangeNothing) {
  const int values[] = {4, 5, 6};
  struct Case {
    const char* name;
    std::function<void(IntVector&)> call;
    const char* message;
  };
  const Case cases[] = {
      {"constructor", [](IntVector&) { IntVector(-1, 0); },
       "NCIntegralVector::NCIntegralVector: negative size -1"},
      {"from pointer", [&](IntVector&) { IntVector(values, -2); },
       "NCIntegralVector::NCIntegralVector: negative size -2"},
      {"SetSize", [](IntVector& v) { v.SetSize(-3); },
       "NCIntegralVector::SetSize: negative size -3"},
      {"resize", [](IntVector& v) { v.resize(-1, 0); },
       "NCIntegralVector::resize: negative size -1"},
      {"Reserve", [](IntVector& v) { v.Reserve(-1); },
       "NCIntegralVector::Reserve: negative size -1"},
      {"SetNumValues", [](IntVector& v) { v.SetNumValues(-1, 0); },
       "NCIntegralVector::SetNumValues: negative size -1"},
      {"InsertValues", [](IntVector& v) { v.InsertValues(1, -1, 0); },
       "NCIntegralVector::InsertValues: negative count -1"},
      {"RemoveValues", [](IntVector& v) { v.RemoveValues(1, -1); },
       "NCIntegralVector::RemoveValues: negative count -1"},
      {"overflow", [](IntVector& v) { v.InsertValues(1, INT_MAX, 0); },
       "NCIntegralVector::InsertValues: 3 + 2147483647 elements exceed the largest size "
       "2147483647"},
      {"Remove",
       [](IntVector& v) {
         v.Remove(Make({1, 4}));
       },
       "NCIntegralVector::Remove: position 4 outside 1..3"},
      {"Reduce", [](IntVector& v) { v.Reduce(Make({0})); },
       "NCIntegralVector::Reduce: position 0 outside 1..3"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    IntVector v(values, 3);
    try {
      c.call(v);
      ADD_FAILURE() << "no exception";
    } catch (const NCError& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
    EXPECT_EQ(ToStd(v), (std::vector<long long>{4, 5, 6}));
  }
}

template <class V>
class IntegralVectorSharing : public ::testing::Test {};
using Instantiations =
    ::testing::Types<NCIntegralVector<int, -99>, NCIntegralVector<unsigned long, 0>, BoolVector>;
TYPED_TEST_SUITE(IntegralVectorSharing, Instantiations);

TYPED_TEST(IntegralVectorSharing, WriteToCopyLeavesSourceUntouched) {
  using T = typename TypeParam::value_type;
  const std::vector<std::function<void(TypeParam&)>> writes = {
      [](TypeParam& v) { v(2) = T(0); },
      [](TypeParam& v) { v.GetPtr()[1] = T(0); },
      [](TypeParam& v) { v.SetAllValues(T(0)); },
      [](TypeParam& v) { v.Sort(); },
      [](TypeParam& v) { v.Scramble(); },
      [](TypeParam& v) { v.RemoveValues(1, 1); },
      [](TypeParam& v) { v.SetRange(1, 3, T(0)); },
      [](TypeParam& v) { v += T(1); },
  };
  for (size_t k = 0; k < writes.size(); ++k) {
    SCOPED_TRACE(k);
    TypeParam source(3, T(1));
    source(1) = T(0);  // {0, 1, 1}: sorting and scrambling can move it
    TypeParam copy = source;
    writes[k](copy);
    EXPECT_EQ(ToStd(source), (std::vector<long long>{0, 1, 1}));
  }

  // Spare capacity must not be shared either: both push into cell 4 of what was one array.
  TypeParam a(3, T(1));
  a.Reserve(8);
  TypeParam b = a;
  b.push_back(T(0));
  a.push_back(T(1));
  EXPECT_EQ(b[4], T(0));
  EXPECT_EQ(a.Size(), 4);
}

TEST(IntegralVectorScramble, IsAUniformRepeatablePermutation) {
  IntVector v(1000, 0);
  v.GenerateIndex(1, 1);
  std::srand(7);
  v.Scramble();
  IntVector sorted = v;
  sorted.Sort();
  IntVector identity(1000, 0);
  identity.GenerateIndex(1, 1);
  EXPECT_EQ(sorted, identity);
  EXPECT_NE(v, identity);
  IntVector again = identity;
  std::srand(7);
  again.Scramble();
  EXPECT_EQ(again, v);  // the order follows rand()'s state

  // Each of the 6 orders of {1, 2, 3} should come up 1000 times in 6000 (sd about 29). The naive
  // shuffle that draws from all n positions each time gives 889 or 1111; Sattolo's variant never
  // gives an order with a fixed point.
  std::map<std::vector<long long>, int> counts;
  std::srand(11);
  for (int trial = 0; trial < 6000; ++trial) {
    IntVector small = Make({1, 2, 3});
    small.Scramble();
    ++counts[ToStd(small)];
  }
  EXPECT_EQ(counts.size(), 6u);
  for (const auto& [order, count] : counts) {
    SCOPED_TRACE(::testing::PrintToString(order));
    EXPECT_NEAR(count, 1000, 100);
  }
}

TEST(UniformBelow, CombinesNarrowDrawsAndRejectsTheIncompleteBlock) {
  struct Case {
    const char* name;
    unsigned long long max, range;
    std::vector<int> draws;
    std::vector<unsigned long long> expected;
  };
  const Case cases[] = {
      // Two bits per draw, range 3: 3 is rejected, 0, 1, 2 pass.
      {"reject top", 3, 3, {3, 0, 1, 2}, {0, 1, 2}},
      // One bit per draw, range 5 takes three: 101 = 5 is rejected, then 100 = 4, 011 = 3.
      {"coin", 1, 5, {1, 0, 1, 1, 0, 0, 0, 1, 1}, {4, 3}},
      // max 2 is not 2^b - 1: a draw of 2 is redrawn, 1 is the bit.
      {"uneven max", 2, 2, {2, 1}, {1}},
      // 15-bit rand(), range 40000 needs 30 bits: 1 << 15 | 2 = 32770. 2^30 - 1 lies in the
      // incomplete top block (2^30 mod 40000 = 21824), so it is redrawn: 0 << 15 | 5 = 5.
      {"15-bit", 32767, 40000, {1, 2, 32767, 32767, 0, 5}, {32770, 5}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    size_t next = 0;
    auto draw = [&] { return next < c.draws.size() ? c.draws[next++] : 0; };
    for (unsigned long long want : c.expected) {
      EXPECT_EQ(mvda::detail::UniformBelow(c.range, c.max, draw), want);
    }
    EXPECT_EQ(next, c.draws.size());
  }
}

TEST(IntPool, HandsOutDistinctCellsAcrossThreads) {
  // Each thread keeps every second cell it takes and gives the others back, so takes and
  // releases from all threads interleave; a start line makes them run at the same time.
  constexpr int kThreads = 4, kTakes = 20000;
  std::vector<std::vector<int*>> kept(kThreads);
  std::vector<int> dirty(kThreads, 0);
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (--waiting; waiting > 0;) std::this_thread::yield();
      for (int k = 0; k < kTakes; ++k) {
        int* cell = IntPool::GetInt();
        dirty[t] += *cell != 0;
        *cell = t + 1;
        if (k % 2 == 0) {
          kept[t].push_back(cell);
        } else {
          *cell = -1;  // the next GetInt must hand it out cleared
          IntPool::ReleaseInt(cell);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<int*> seen;
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(dirty[t], 0);
    for (int* cell : kept[t]) {
      EXPECT_EQ(*cell, t + 1);
      seen.insert(cell);
    }
  }
  EXPECT_EQ(seen.size(), size_t{kThreads} * kTakes / 2);
  for (int* cell : seen) IntPool::ReleaseInt(cell);
}

TEST(NDimensionalMatrix, SparseTreeReadsFillAndChecksSubscripts) {
  NDimensionalMatrix<int> m({2, 3, 4}, -1);
  m.Set({1, 2, 3}, 5);
  EXPECT_EQ(m.Get({1, 2, 3}), 5);
  EXPECT_EQ(m.Get({1, 2, 2}), -1);       // same last level, other cell
  EXPECT_EQ(m.Get({0, 0, 0}), -1);       // no level created there
  EXPECT_EQ(m.Get({9, 1, 2, 3}, 1), 5);  // a slice of a longer record

  NDimensionalMatrix<int> copy = m;
  copy.Set({1, 2, 3}, 6);
  EXPECT_EQ(m.Get({1, 2, 3}), 5);
  m = copy;
  EXPECT_EQ(m.Get({1, 2, 3}), 6);

  const std::vector<std::vector<int>> bad = {{2, 0, 0}, {0, -1, 0}, {0, 0, 4}, {0, 0}};
  for (const std::vector<int>& index : bad) {
    SCOPED_TRACE(::testing::PrintToString(index));
    EXPECT_THROW(m.Get(index), NCError);
    EXPECT_THROW(m.Set(index, 1), NCError);
  }
  EXPECT_THROW(m.Get({0, 0, 0}, 1), NCError);
  EXPECT_THROW(NDimensionalMatrix<int>({3, 0}), NCError);
  EXPECT_THROW(NDimensionalMatrix<int>({}), NCError);
}

}  // namespace
