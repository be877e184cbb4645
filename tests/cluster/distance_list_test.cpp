// The list steps and the work division that the calculators rest on, on lists written by hand.
#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/detail/pair_distances.h>

#include <vector>

#include <gtest/gtest.h>

namespace {

using DendroGram::DistanceAndIndex;
using mvda::detail::BandStarts;
using mvda::detail::InsertRecomputedTail;
using mvda::detail::PairAt;
using mvda::detail::PairIndex;

std::vector<float> Distances(const std::vector<DistanceAndIndex>& list) {
  std::vector<float> d;
  for (const DistanceAndIndex& e : list) d.push_back(e.distance);
  return d;
}

TEST(WardListInsertion, RecomputedEntryGoesInFrontOfAdjacentStaleEntries) {
  // Front part 9, -1, 5, -1, 2 (front to back) and the recomputed tail 4. 4 belongs behind 5 and
  // in front of 2; the question is the stale entry between them. Inserting from the back passes
  // everything smaller than 4, that stale entry included, so 4 lands right behind 5:
  // the stale pair (1, 4) stays nearer the back and is recomputed before 4 is taken. Placing 4
  // just in front of 2 would let it be taken first.
  std::vector<DistanceAndIndex> list = {{9, 1, 2},  {-1, 1, 3}, {5, 2, 3},
                                        {-1, 1, 4}, {2, 2, 4},  {4, 3, 4}};
  InsertRecomputedTail(list, 5);
  EXPECT_EQ(Distances(list), (std::vector<float>{9, -1, 5, 4, -1, 2}));
  EXPECT_EQ(list[3].first, 3);
  EXPECT_EQ(list[4].second, 4);  // the stale (1, 4) right behind it
}

TEST(WardListInsertion, TailIsSortedAndTiesGoBehind) {
  // Tail 3 (1,5), 7 (2,5), 3 (1,6) into 8, -1, 7, 3, 1. Decreasing: 7, then the two 3s in pop
  // order ((1,5) pops before (1,6), so it sits further back). Each goes behind the equal entries
  // already there.
  std::vector<DistanceAndIndex> list = {{8, 1, 2}, {-1, 1, 3}, {7, 2, 3}, {3, 2, 4},
                                        {1, 3, 4}, {3, 1, 5},  {7, 2, 5}, {3, 1, 6}};
  InsertRecomputedTail(list, 5);
  ASSERT_EQ(Distances(list), (std::vector<float>{8, -1, 7, 7, 3, 3, 3, 1}));
  EXPECT_EQ(list[3].second, 5);                        // the recomputed 7 behind the old one
  EXPECT_EQ(list[4].first * 10 + list[4].second, 24);  // the old 3 first
  EXPECT_EQ(list[5].first * 10 + list[5].second, 16);  // then (1,6)
  EXPECT_EQ(list[6].first * 10 + list[6].second, 15);  // (1,5) pops first
  std::vector<DistanceAndIndex> none = {{2, 1, 2}};
  InsertRecomputedTail(none, 1);  // an empty tail changes nothing
  EXPECT_EQ(Distances(none), std::vector<float>{2});
}

TEST(PairDistanceWork, BandsFollowThePairCounts) {
  // n = 5 has 10 pairs; rows before r own 5r - r(r+1)/2 = 0, 4, 7, 9, 10.
  struct Case {
    int n, threads;
    std::vector<int> starts;
  };
  const Case cases[] = {
      {5, 1, {1, 5}},
      // target 5: the root 1.30 rounds to 1 (4 pairs), so rows 2..4 own the other 6.
      {5, 2, {1, 2, 5}},
      // targets 2.5, 5, 7.5: roots 0.60 -> 1, 1.30 -> 1 moved up to 2, 2.21 -> 2 moved up to 3.
      {5, 4, {1, 2, 3, 4, 5}},
      // rows 1 and 2 own everything: a boundary + 1 reaching n stops the division.
      {3, 8, {1, 2, 3}},
      {2, 4, {1, 2}},
      {1, 2, {1, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.n << " rows, " << c.threads << " threads");
    EXPECT_EQ(BandStarts(c.n, c.threads), c.starts);
  }
  // Large n: the bands cover rows 1..n-1 in order and share the pairs within one row's worth.
  for (const int threads : {2, 3, 7}) {
    const int n = 2001;
    const std::vector<int> starts = BandStarts(n, threads);
    ASSERT_EQ(static_cast<int>(starts.size()), threads + 1);
    const double share = n * (n - 1.0) / 2 / threads;
    for (int k = 0; k < threads; ++k) {
      const double pairs = double(PairIndex(starts[k + 1], starts[k + 1] + 1, n)) -
                           double(PairIndex(starts[k], starts[k] + 1, n));
      EXPECT_NEAR(pairs, share, n);
    }
  }
}

TEST(PairDistanceWork, PairAtInvertsPairIndex) {
  for (int n = 2; n <= 60; ++n) {
    std::uint64_t k = 0;
    for (int i = 1; i < n; ++i) {
      for (int j = i + 1; j <= n; ++j, ++k) {
        ASSERT_EQ(PairIndex(i, j, n), k);
        int pi = 0, pj = 0;
        PairAt(k, n, pi, pj);
        ASSERT_EQ(pi, i) << n << " " << k;
        ASSERT_EQ(pj, j) << n << " " << k;
      }
    }
  }
  // The largest lists: the last pair of 65535 rows.
  int i = 0, j = 0;
  PairAt(65535ull * 65534 / 2 - 1, 65535, i, j);
  EXPECT_EQ(i, 65534);
  EXPECT_EQ(j, 65535);
}

}  // namespace
