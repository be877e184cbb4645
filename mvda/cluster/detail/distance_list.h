// The order of a distance list and the two list steps of Ward's lazy update as they are described
// (StraightforwardWardList is made of them), kept apart so that they can be checked on lists
// written by hand.
#ifndef MVDA_CLUSTER_DETAIL_DISTANCE_LIST_H_
#define MVDA_CLUSTER_DETAIL_DISTANCE_LIST_H_

#include <mvda/cluster/distance_calculators.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace mvda::detail {

using DendroGram::DistanceAndIndex;

// An allocator that leaves new elements of a trivial type uninitialised. The distance list is
// written in full by the workers right after it is sized; zeroing 12 bytes a pair first would cost
// a pass over the whole list.
template <class T>
struct UninitialisedAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = UninitialisedAllocator<U>;
  };
  UninitialisedAllocator() = default;
  template <class U>
  UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}
  template <class U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

// The list of all pairs as computed.
using DistanceList = std::vector<DistanceAndIndex, UninitialisedAllocator<DistanceAndIndex>>;

// Whether `a` is merged before `b`: the smaller distance first, and among equal distances the
// smaller first row, then the smaller second row. A list is sorted by decreasing distance and
// popped from the back; ranking ties by the rows makes the order total, so the in-memory list, the
// disk bands and any number of threads all give one tree.
inline bool PopsBefore(const DistanceAndIndex& a, const DistanceAndIndex& b) {
  if (a.distance != b.distance) return a.distance < b.distance;
  if (a.first != b.first) return a.first < b.first;
  return a.second < b.second;
}

// Sorts [from, to) so that it pops in order from the back. In parallel when `team` > 1; the
// order is total, so the result does not depend on the team.
void SortForPopping(DistanceAndIndex* from, DistanceAndIndex* to, int team);

// Ward, after the stale tail list[tail, end) has been recomputed: sorts the tail by decreasing
// distance and inserts its entries one by one into list[0, tail), each just behind the last entry
// whose distance is greater than or equal to its own. Stale entries further forward stay where
// they are, and where some sit between the two current distances that bracket a recomputed one,
// it goes in front of them, right behind the larger distance: their -1 is smaller than any
// distance, and inserting from the back, as an insertion sort does, passes them. Putting it
// behind them instead would let it be taken before they are recomputed. Either way the current
// distances stay in decreasing order. Cost: the entries moved.
inline void InsertRecomputedTail(std::vector<DistanceAndIndex>& list, std::size_t tail) {
  const std::size_t end = list.size();
  if (tail >= end) return;
  // Decreasing distance; equal distances in pop order, so that the tail's own order is total.
  std::sort(list.begin() + tail, list.end(),
            [](const DistanceAndIndex& a, const DistanceAndIndex& b) { return PopsBefore(b, a); });
  // Take the tail out, then merge it into the front part from the back: the tail's smallest entry
  // is placed first, behind everything smaller than it that was in front of it.
  const std::vector<DistanceAndIndex> recomputed(list.begin() + tail, list.end());
  std::size_t front = tail;  // list[0, front) not yet passed
  std::size_t write = end;   // list[write, end) final
  for (auto it = recomputed.rbegin(); it != recomputed.rend(); ++it) {
    while (front > 0 && list[front - 1].distance < it->distance) list[--write] = list[--front];
    list[--write] = *it;
  }
}

// Ward, after clusters a < b (1-based) have merged and the taken entry has been popped: drops
// every entry that names b, renumbers the clusters after b down by one, and marks every entry that
// names a as stale (-1); the survivors keep their order. The list is cut into `team` contiguous
// chunks (the first L mod team one longer), each compacted in place by its own thread, and the
// chunks are then joined in order, so the result does not depend on the team.
void CompactAfterMerge(std::vector<DistanceAndIndex>& list, int a, int b, int team);

}  // namespace mvda::detail

#endif  // MVDA_CLUSTER_DETAIL_DISTANCE_LIST_H_
