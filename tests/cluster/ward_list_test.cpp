// Ward's lazy list: the queue the calculator uses against the straightforward list it must copy,
// merge by merge, on random lists; and the lazily sorted list against a full sort.
#include <mvda/cluster/detail/cluster_positions.h>
#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/detail/lazy_sorted_list.h>
#include <mvda/cluster/detail/ward_list.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using DendroGram::DistanceAndIndex;
using mvda::detail::LazySortedList;
using mvda::detail::PopsBefore;
using mvda::detail::SetLazySortPieceLimit;
using mvda::detail::StraightforwardWardList;
using mvda::detail::WardLazyList;
using mvda::detail::WardMerge;
using mvda::detail::WardMergeQueue;

// Restores the default piece size when a test ends, also when it fails.
struct PieceLimit {
  explicit PieceLimit(std::size_t entries) { SetLazySortPieceLimit(entries); }
  PieceLimit(const PieceLimit&) = delete;
  ~PieceLimit() { SetLazySortPieceLimit(0); }
};

mvda::detail::DistanceList RandomPairs(std::mt19937& random, int n, int distinct) {
  std::uniform_int_distribution<int> level(0, std::max(distinct - 1, 0));
  std::uniform_real_distribution<float> any(0.0f, 100.0f);
  mvda::detail::DistanceList pairs;
  for (int i = 1; i <= n; ++i)
    for (int j = i + 1; j <= n; ++j)
      pairs.push_back({distinct > 0 ? float(level(random)) : any(random), i, j});
  std::shuffle(pairs.begin(), pairs.end(), random);
  return pairs;
}

// Recomputed distances that depend on the two clusters only (each named by its slot and the merge
// that last changed it), from a hash: with `distinct` levels many ties, and values below the
// current back entry as often as above, which real Ward values seldom are.
struct SyntheticDistance {
  std::vector<int> version;
  int distinct;
  std::uint32_t seed;
  float operator()(int a, int b) const {
    std::uint32_t h = seed;
    for (const std::uint32_t v :
         {std::uint32_t(a), std::uint32_t(b), std::uint32_t(version[a]), std::uint32_t(version[b])})
      h = (h ^ v) * 0x9e3779b1u + (h >> 15);
    h ^= h >> 13;
    return distinct > 0 ? float(h % distinct) : float(h % 100000) / 1000.0f;
  }
};

std::vector<WardMerge> Merges(WardLazyList& list, int n, mvda::detail::DistanceList pairs,
                              int distinct, std::uint32_t seed, int team) {
  SyntheticDistance distance{std::vector<int>(n + 1, 0), distinct, seed};
  list.Reset(n, std::move(pairs), team, {});
  std::vector<WardMerge> merges;
  WardMerge m;
  while (list.Next(std::ref(distance), m)) {
    merges.push_back(m);
    distance.version[m.a] = static_cast<int>(merges.size());
  }
  return merges;
}

TEST(WardMergeQueue, SameMergesAsTheStraightforwardList) {
  std::mt19937 random(7);
  std::uniform_int_distribution<int> rows(2, 45);
  // Ties from few levels, continuous values; pieces of one entry, a few, and the default.
  const int levels[] = {2, 5, 0};
  const std::size_t pieces[] = {1, 7, 0};
  for (int set = 0; set < 400; ++set) {
    const int n = rows(random), distinct = levels[set % 3];
    const std::uint32_t seed = random();
    const PieceLimit limit(pieces[(set / 3) % 3]);
    const int team = 1 + set % 2;
    SCOPED_TRACE(testing::Message() << "set " << set << ", " << n << " rows, " << distinct
                                    << " levels, piece " << pieces[(set / 3) % 3]);
    const mvda::detail::DistanceList pairs = RandomPairs(random, n, distinct);
    StraightforwardWardList reference;
    WardMergeQueue queue;
    const std::vector<WardMerge> want = Merges(reference, n, pairs, distinct, seed, team);
    const std::vector<WardMerge> got = Merges(queue, n, pairs, distinct, seed, team);
    ASSERT_EQ(want.size(), std::size_t(n - 1));
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t k = 0; k < want.size(); ++k) {
      SCOPED_TRACE(testing::Message() << "merge " << k + 1);
      ASSERT_EQ(got[k].distance, want[k].distance);
      ASSERT_EQ(got[k].a, want[k].a);
      ASSERT_EQ(got[k].b, want[k].b);
      ASSERT_EQ(got[k].first, want[k].first);
      ASSERT_EQ(got[k].second, want[k].second);
    }
  }
}

TEST(LazySortedList, GivesTheFullSortInPieces) {
  // Ties and continuous values; pieces of any size; dead pairs (one row given label -1, two rows
  // given one label) are skipped whether they die before or after their piece is copied out.
  std::mt19937 random(11);
  for (int set = 0; set < 60; ++set) {
    // Up to 780 pairs, and 80 rows (3160 pairs, a third of them in the top bin), where a crowded
    // bin is spread further before it is sorted.
    const int n = set % 10 == 9 ? 80 : 2 + set % 40;
    const PieceLimit limit(set % 4 == 3 ? 0 : 1 + set % 23);
    const mvda::detail::DistanceList pairs = RandomPairs(random, n, set % 2 ? 3 : 0);
    std::vector<DistanceAndIndex> sorted(pairs.begin(), pairs.end());
    std::sort(sorted.begin(), sorted.end(), PopsBefore);
    std::vector<int> labels(n + 1);
    for (int r = 0; r <= n; ++r) labels[r] = r;
    LazySortedList list;
    list.Reset(pairs, 1 + set % 2);
    std::size_t k = 0;
    while (const DistanceAndIndex* e = list.Peek(labels)) {
      while (k < sorted.size() && (labels[sorted[k].first] < 0 || labels[sorted[k].second] < 0 ||
                                   labels[sorted[k].first] == labels[sorted[k].second]))
        ++k;
      ASSERT_LT(k, sorted.size());
      ASSERT_EQ(e->first * 1000 + e->second, sorted[k].first * 1000 + sorted[k].second) << k;
      ++k;
      list.Pop();
      // Now and then a row leaves or two rows join.
      const int r = 1 + int(random() % n), s = 1 + int(random() % n);
      if (random() % 5 == 0) labels[r] = -1;
      if (random() % 5 == 0 && labels[r] >= 0 && labels[s] >= 0) {
        const int gone = labels[s];
        for (int& l : labels) l = l == gone ? labels[r] : l;
      }
    }
    // Pieces of a few entries from a list of hundreds: several were taken.
    if (set % 4 != 3 && sorted.size() > 100) {
      EXPECT_GT(list.Pieces(), 1);
    }
    for (; k < sorted.size(); ++k)
      ASSERT_TRUE(labels[sorted[k].first] < 0 || labels[sorted[k].second] < 0 ||
                  labels[sorted[k].first] == labels[sorted[k].second]);
  }
}

TEST(RowClusters, PositionsFollowTheRelabelling) {
  // The rule the positions stand for: rows carry the positions of their clusters; merging
  // positions p < q moves q's rows to p and every position above q down by one.
  std::mt19937 random(3);
  const int n = 50;
  mvda::detail::RowClusters clusters;
  clusters.Reset(n);
  std::vector<int> position(n + 1);
  for (int r = 1; r <= n; ++r) position[r] = r - 1;
  for (int merges = 0; merges < n - 1;) {
    const int i = 1 + int(random() % n), j = 1 + int(random() % n);
    ASSERT_EQ(clusters.Joined(i, j), position[i] == position[j]);
    if (position[i] == position[j]) continue;
    int p = -1, q = -1;
    clusters.Merge(i, j, p, q);
    const int want_p = std::min(position[i], position[j]),
              want_q = std::max(position[i], position[j]);
    ASSERT_EQ(p, want_p);
    ASSERT_EQ(q, want_q);
    for (int r = 1; r <= n; ++r)
      position[r] = position[r] == q ? p : position[r] - (position[r] > q);
    ++merges;
  }
}

}  // namespace
