// The distance calculators of the cluster analysis: DendroGram::ClusterDistanceCalculator and its
// two kinds, WardDistanceCalculator and SingleLinkageDistanceCalculator; DistanceAndIndex, one
// candidate merge; ClusterAllocationError; and the memory limit of the in-memory distance list.
#ifndef MVDA_CLUSTER_DISTANCE_CALCULATORS_H_
#define MVDA_CLUSTER_DISTANCE_CALCULATORS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/error.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class NCProgress;

namespace mvda::detail {
class LazySortedList;
class RowClusters;
class WardLazyList;
}  // namespace mvda::detail

namespace DendroGram {

class MegaDistances;

// One candidate merge: the distance between clusters (or rows) `first` < `second`, numbered from
// 1. A distance of -1 marks a Ward entry whose clusters have changed since it was computed. Also
// the 12-byte record of the temporary distance files (little-endian f32, i32, i32).
struct DistanceAndIndex {
  float distance;
  std::int32_t first;
  std::int32_t second;
};
static_assert(sizeof(DistanceAndIndex) == 12, "DistanceAndIndex is a 12-byte record");

// Thrown when the memory for the initial distances cannot be had: the allocator refused it, or it
// exceeds the limit set with SetDistanceListMemoryLimit.
class MVDA_EXPORT ClusterAllocationError : public NCError {
 public:
  // The text "Memory allocation error.\nWhen doing cluster analysis, ... (N=<rows>). ".
  explicit ClusterAllocationError(unsigned rows);
  ClusterAllocationError(const ClusterAllocationError&) = default;
  ClusterAllocationError& operator=(const ClusterAllocationError&) = default;
  ~ClusterAllocationError() override;

  static std::string Text(unsigned rows);
};

// The most memory, in bytes, that the in-memory distance lists may take: the list of all N(N-1)/2
// initial distances (12 bytes each) and the segment of the disk store. 0, the default, sets no
// limit beyond what the allocator grants. A Ward list over the limit throws ClusterAllocationError;
// single linkage then keeps its distances in temporary files, with a segment of at most this size
// in memory. A host sets it to leave room for the rest of the application; it applies to analyses
// that start afterwards. Thread-safe.
MVDA_EXPORT void SetDistanceListMemoryLimit(std::uint64_t bytes);
MVDA_EXPORT std::uint64_t GetDistanceListMemoryLimit();

// How two clusters are compared, and the merging that follows from it. A calculator serves one
// analysis: GetDendroGram calls Init once and then FindNearestAndMerge N-1 times.
class MVDA_EXPORT ClusterDistanceCalculator {
 public:
  ClusterDistanceCalculator() = default;
  ClusterDistanceCalculator(const ClusterDistanceCalculator&) = default;
  ClusterDistanceCalculator& operator=(const ClusterDistanceCalculator&) = default;
  virtual ~ClusterDistanceCalculator();

  // Prepares the distances between all pairs of rows of `data` (each row its own cluster).
  virtual void Init(const NCDataMatrix<float>& data, NCProgress* progress) = 0;
  // Merges the two closest current clusters and returns their distance; first < second are their
  // 0-based positions in the list of current clusters, in which the merged cluster takes the place
  // of `first` and `second` is removed (later clusters move up one place).
  virtual float FindNearestAndMerge(int& first, int& second) = 0;
  // Names the calculator and its settings; part of the name under which trees are cached.
  virtual std::string GetId() const = 0;
};

// Ward's method: merges the two clusters whose union increases the error sum of squares (the sum
// over columns of squared deviations from the column means) the least. Missing values are skipped
// and each column's sum of squares is scaled up by the share of missing values in it; the initial
// distance of two rows is half their squared Euclidean distance over the common present columns,
// scaled by columns / common columns.
//
// The list of candidate merges is updated lazily: after a merge, the entries of the merged cluster
// are only marked (distance -1) and recomputed when they reach the back of the list. The pair taken
// is the last entry at that moment, even when a marked entry further forward would turn out
// smaller: existing trees were made this way, and clustering the same data must give the same tree.
// The list is kept so that a merge costs what changes rather than the list's length (see
// mvda::detail::WardMergeQueue). Memory: the list (12 bytes a pair), up to an eighth more for the
// part being sorted, and 16 bytes for each entry the merging has reached and still holds (at
// N = 20000 on clustered data about 0.35 GB on top of the list's 2.4 GB).
class MVDA_EXPORT WardDistanceCalculator : public ClusterDistanceCalculator {
 public:
  // 0: the increase of the error sum of squares; 1: its square root (heights on the scale of the
  // data). Any other value makes Init build the member lists only, with no candidate merges.
  enum DistanceType : int { kErrorSumOfSquares = 0, kRootErrorSumOfSquares = 1 };

  explicit WardDistanceCalculator(DistanceType type);
  WardDistanceCalculator(const WardDistanceCalculator& other);
  WardDistanceCalculator& operator=(const WardDistanceCalculator& other);
  ~WardDistanceCalculator() override;

  void Init(const NCDataMatrix<float>& data, NCProgress* progress) override;
  // Throws NCError when no candidate merge is left (more calls than merges, or another type).
  float FindNearestAndMerge(int& first, int& second) override;
  std::string GetId() const override;  // "WardDistanceCalculator<type>"

 private:
  // Per column, the sum, sum of squares and count of the present values of a cluster, each
  // accumulated over its rows in ascending order.
  struct ClusterSums {
    std::vector<long double> sum, sum_of_squares;
    std::vector<int> count;
    long double error_ss = 0;  // the cluster's own scaled error sum of squares
  };

  // Clusters stay in slots (0-based here; the list numbers them from 1): a merged cluster keeps
  // the lower slot of the two and the other slot is emptied, so nothing moves at a merge.

  // The sums of the cluster in slot p (of more than one row), computed when first asked for after
  // the cluster changed.
  const ClusterSums& Sums(int p);
  // The increase of the error sum of squares when the clusters in slots a and b merge.
  float GetErrorSS(int a, int b);
  // Sets the distance of an entry of the clusters in slots first - 1 and second - 1.
  void UpdateDistance(DistanceAndIndex& entry);

  DistanceType type_;
  NCDataMatrix<float> data_;
  std::unique_ptr<mvda::detail::WardLazyList> list_;  // null for another type
  std::vector<std::vector<int>> members_;             // per slot, ascending rows
  // Per slot; a cluster of one row needs none (its sums are its values), a cluster that has just
  // grown has none until it is asked for.
  std::vector<std::unique_ptr<ClusterSums>> sums_;
};

// Single linkage (nearest neighbour): the distance between two clusters is the smallest Euclidean
// distance between their rows. Missing values are skipped and the squared distance is scaled by
// columns / common present columns. When the N(N-1)/2 distances do not fit in memory (see
// SetDistanceListMemoryLimit), they are kept in temporary files (MegaDistances); the user is asked
// first when the disk may be too small (UserComm), and the tree is the same as in memory.
class MVDA_EXPORT SingleLinkageDistanceCalculator : public ClusterDistanceCalculator {
 public:
  SingleLinkageDistanceCalculator();
  // A copy shares the temporary files (read-only by then) and has its own segment.
  SingleLinkageDistanceCalculator(const SingleLinkageDistanceCalculator& other);
  SingleLinkageDistanceCalculator& operator=(const SingleLinkageDistanceCalculator& other);
  ~SingleLinkageDistanceCalculator() override;

  void Init(const NCDataMatrix<float>& data, NCProgress* progress) override;
  float FindNearestAndMerge(int& first, int& second) override;
  std::string GetId() const override;  // "SingleLinkageDistanceCalculator"
  // The disk store when Init had to keep the distances on disk, else null.
  const MegaDistances* GetDiskStore() const { return mega_.get(); }

 private:
  void InitOnDisk(const NCDataMatrix<float>& data, NCProgress* progress);

  // The distances in memory, sorted as far as the merging reaches (null on disk); the clusters
  // of the rows and their positions; the disk store when the distances did not fit in memory.
  std::unique_ptr<mvda::detail::LazySortedList> list_;
  std::unique_ptr<mvda::detail::RowClusters> clusters_;
  std::unique_ptr<MegaDistances> mega_;
};

}  // namespace DendroGram

#endif  // MVDA_CLUSTER_DISTANCE_CALCULATORS_H_
