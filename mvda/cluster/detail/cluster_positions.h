// SlotRanks and RowClusters: the positions of clusters in the list of current clusters. The
// calculators keep each cluster in a slot that does not move (a merged cluster keeps the smaller
// slot of the two), so a merge changes a few numbers instead of renumbering everything after the
// cluster that goes; the position that callers see is the count of clusters still present in lower
// slots. Positions follow the slots in order, so comparing slots compares positions.
#ifndef MVDA_CLUSTER_DETAIL_CLUSTER_POSITIONS_H_
#define MVDA_CLUSTER_DETAIL_CLUSTER_POSITIONS_H_

#include <algorithm>
#include <utility>
#include <vector>

namespace mvda::detail {

// A Fenwick tree of present slots 1..n: both operations take O(log n).
class SlotRanks {
 public:
  // Slots 1..n, all present.
  void Reset(int n) {
    tree_.assign(n + 1, 0);
    for (int s = 1; s <= n; ++s) {
      tree_[s] += 1;
      const int up = s + (s & -s);
      if (up <= n) tree_[up] += tree_[s];
    }
  }
  // The 0-based position of `slot`: the present slots below it.
  int Rank(int slot) const {
    int count = 0;
    for (int s = slot - 1; s > 0; s -= s & -s) count += tree_[s];
    return count;
  }
  void Remove(int slot) {
    for (int s = slot; s < static_cast<int>(tree_.size()); s += s & -s) --tree_[s];
  }

 private:
  std::vector<int> tree_;
};

// Single linkage's clusters of rows: a label per row (1-based; index 0 holds -1), equal for rows
// of one cluster, which is what LazySortedList reads; each cluster's rows, so that a merge
// relabels the smaller cluster only (O(N log N) relabellings in all); and the slots.
class RowClusters {
 public:
  void Reset(int n) {
    label_.resize(n + 1);
    label_[0] = -1;
    rows_.assign(n + 1, {});
    slot_.resize(n + 1);
    for (int r = 1; r <= n; ++r) label_[r] = slot_[r] = r, rows_[r] = {r};
    ranks_.Reset(n);
  }
  const std::vector<int>& Labels() const { return label_; }
  bool Joined(int i, int j) const { return label_[i] == label_[j]; }
  // Merges the clusters of rows i and j (not joined yet); p < q are their positions before.
  void Merge(int i, int j, int& p, int& q) {
    int keep = label_[i], gone = label_[j];
    const int low = std::min(slot_[keep], slot_[gone]), high = std::max(slot_[keep], slot_[gone]);
    p = ranks_.Rank(low);
    q = ranks_.Rank(high);
    ranks_.Remove(high);
    if (rows_[keep].size() < rows_[gone].size()) std::swap(keep, gone);
    for (const int r : rows_[gone]) label_[r] = keep;
    rows_[keep].insert(rows_[keep].end(), rows_[gone].begin(), rows_[gone].end());
    std::vector<int>().swap(rows_[gone]);
    slot_[keep] = low;
  }

 private:
  std::vector<int> label_;              // per row
  std::vector<std::vector<int>> rows_;  // per label
  std::vector<int> slot_;               // per label
  SlotRanks ranks_;
};

}  // namespace mvda::detail

#endif  // MVDA_CLUSTER_DETAIL_CLUSTER_POSITIONS_H_
