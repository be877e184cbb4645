// The distances between all pairs of rows of a matrix, the dominant cost of a cluster analysis:
// computed once, by one thread per band of rows, into one preallocated list.
#ifndef MVDA_CLUSTER_DETAIL_PAIR_DISTANCES_H_
#define MVDA_CLUSTER_DETAIL_PAIR_DISTANCES_H_

#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/detail/lazy_sorted_list.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/containers/data_matrix.h>

#include <cmath>
#include <cstdint>
#include <vector>

class NCProgress;

namespace mvda::detail {

using DendroGram::DistanceAndIndex;

// The two functions that make a distance of two rows x and y: s = sum over the columns where
// neither is missing of f(x_c, y_c) = (x_c - y_c)^2 * factor (float), accumulated in double,
// scaled by columns / (common columns) when some are missing, then g(s) = float(s), or its square
// root when `root`. Ward: factor 0.5 (half the squared distance is the increase of the error sum
// of squares when two rows merge); single linkage: factor 1 and the root (Euclidean).
struct PairFunctions {
  float factor;
  bool root;
};

// The rows of a matrix laid out for the distance loops, read by every worker: besides each row
// as it is, the rows in tiles of kLanes, column after column, so that one row's distances to
// kLanes others come out of one pass over its columns with the lanes side by side (the processor
// runs them in its vector registers). Every distance is summed in the same order, with the same
// float and double steps, as one pair at a time would be: the results are the same to the bit.
class RowTable {
 public:
  static constexpr int kLanes = 8;

  explicit RowTable(const NCDataMatrix<float>& data);
  int Rows() const { return rows_; }
  float Distance(int i, int j, PairFunctions fn) const;  // 1-based rows
  // The distances of row i to rows j .. last (i < j <= last <= Rows()) into out[0 .. last - j].
  void RowDistances(int i, int j, int last, PairFunctions fn, DistanceAndIndex* out) const;

 private:
  int rows_, columns_;
  std::vector<const float*> row_;  // row_[i][0 .. columns-1] is row i + 1
  std::vector<int> missing_;
  // Tile t holds rows kLanes t + 1 .. kLanes (t + 1): tiles_[(t columns + c) kLanes + l] is
  // column c of row kLanes t + l + 1 (rows past the end read as missing).
  std::vector<float> tiles_;
  std::vector<char> tile_complete_;  // no missing value in the tile
};

// The position of the pair (i, j), i < j (1-based rows of n), in the list ordered by i, then j:
// rows before i own (i-1)n - (i-1)i/2 pairs.
inline std::uint64_t PairIndex(int i, int j, int n) {
  const std::uint64_t a = static_cast<std::uint64_t>(i - 1);
  return a * static_cast<std::uint64_t>(n) - a * (a + 1) / 2 +
         static_cast<std::uint64_t>(j - i - 1);
}
// The pair at list position k.
inline void PairAt(std::uint64_t k, int n, int& i, int& j) {
  const double half = n - 0.5;
  const double disc = half * half - 2.0 * static_cast<double>(k);
  long long r = static_cast<long long>(std::floor(half - std::sqrt(disc > 0 ? disc : 0.0)));
  if (r < 0) r = 0;
  if (r > n - 2) r = n - 2;
  // The root is close; rounding may leave it one off either way.
  while (r > 0 && PairIndex(static_cast<int>(r) + 1, static_cast<int>(r) + 2, n) > k) --r;
  while (r + 1 <= n - 2 && PairIndex(static_cast<int>(r) + 2, static_cast<int>(r) + 3, n) <= k) ++r;
  i = static_cast<int>(r) + 1;
  j = i + 1 + static_cast<int>(k - PairIndex(i, i + 1, n));
}

// The first row of each band when the pairs of n rows are shared among `threads` workers: band k
// ends where the rows before it own about k M / threads pairs (the root of the quadratic
// r n - r(r+1)/2 = k M / threads, rounded); a boundary equal to the one before moves up by one,
// and the bands stop when a boundary + 1 reaches n. The result starts with 1 and ends with n (one
// past the last row that owns pairs).
inline std::vector<int> BandStarts(int n, int threads) {
  std::vector<int> starts{1};
  if (threads < 1) threads = 1;
  const double nn = n, m = nn * (nn - 1.0) / 2.0, half = nn - 0.5;
  int previous = 0;  // rows before the band being cut
  for (int k = 1; k < threads; ++k) {
    // r^2/2 + r(1 - 2n)/2 + kM/T = 0, the smaller root.
    const double target = k * m / threads;
    const double disc = half * half - 2.0 * target;
    int r = static_cast<int>(std::floor(half - std::sqrt(disc > 0 ? disc : 0.0) + 0.5));
    if (r <= previous) r = previous + 1;
    if (r + 1 >= n) break;
    starts.push_back(r + 1);
    previous = r;
  }
  starts.push_back(n > 1 ? n : 1);
  return starts;
}

// The worker of one band: computes the pairs of rows first .. last (j from i+1 to n, in order)
// into the list from position PairIndex(first, first + 1, n) on. When `counts` is given, it also
// counts them by bin (2^bits counters) and copies those of the bins below low_bins to `low`: the
// merging then needs no pass over the whole list for its first piece.
class InitDistancesThreadClass {
 public:
  InitDistancesThreadClass(const RowTable& rows, PairFunctions fn, int first, int last,
                           DistanceAndIndex* list, std::uint32_t* counts = nullptr, int bits = 0,
                           DistanceList* low = nullptr, int low_bins = 0);
  void operator()() noexcept;
  // Whether the copies could not all be kept (memory); `low` is then emptied.
  bool LowFailed() const { return low_failed_; }
  // With `stop` (a plain NCProgress, whose IsBreakPressed only reads atomics), the worker looks
  // at it per row and leaves its band unfinished on a stop request to all computations
  // (NCProgress::RequestBreakAll, Ctrl-C): a stop is honoured within a row's time rather than
  // the whole list's. The host's own reporter is never asked from the worker threads.
  void StopOn(NCProgress* stop) { stop_ = stop; }
  bool Stopped() const { return stopped_; }

 private:
  const RowTable* rows_;
  PairFunctions fn_;
  int first_, last_;
  DistanceAndIndex* list_;
  std::uint32_t* counts_;
  int bits_;
  DistanceList* low_;
  int low_bins_;
  bool low_failed_ = false;
  NCProgress* stop_ = nullptr;
  bool stopped_ = false;
};

// Records first .. first+count-1 of the list, by `threads` boost threads over equal shares.
void ComputePairRange(const RowTable& rows, PairFunctions fn, std::uint64_t first,
                      std::uint64_t count, DistanceAndIndex* out, int threads);

// The in-memory list of all pairs, in row order (LazySortedList puts it in merge order as far as
// it is needed), and, when `counts` is given, its counts by bin and (for lists of more than one
// piece) copies of the bins of the first piece. Throws NCError for n >= 65536 before
// allocating anything, and ClusterAllocationError when the list (12 bytes a pair) exceeds the
// memory limit or the allocator refuses it. Progress: range 0..3 with the texts "Allocating
// memory", "Calculating <M> distances", "Sorting" (the hosts show the three steps; the sorting
// itself happens as the merging goes).
void ComputeDistanceList(const NCDataMatrix<float>& data, PairFunctions fn, NCProgress* progress,
                         DistanceList& list, BinCounts* counts = nullptr);

// Throws the "Memory allocation error." NCError when n rows are too many for a 32-bit pair count.
void CheckRowCount(int n);

}  // namespace mvda::detail

#endif  // MVDA_CLUSTER_DETAIL_PAIR_DISTANCES_H_
