// Ward's lazy list of candidate merges, in two implementations that give the same merges: the
// straightforward one (StraightforwardWardList: the sorted list itself, every remaining entry
// visited at every merge, about N^3/6 visits in all) and the one the calculator uses
// (WardMergeQueue: the same list order kept without visiting what does not change). The first is
// the reference that the second is checked against. Exported for the tests only: detail headers
// are not installed.
#ifndef MVDA_CLUSTER_DETAIL_WARD_LIST_H_
#define MVDA_CLUSTER_DETAIL_WARD_LIST_H_

#include <mvda/cluster/detail/cluster_positions.h>
#include <mvda/cluster/detail/lazy_sorted_list.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/mvda_export.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace mvda::detail {

using DendroGram::DistanceAndIndex;

// One merge: the distance of the entry taken, its two clusters as slots (1-based, a < b; the
// merged cluster keeps slot a, slot b is gone) and as 0-based positions in the list of current
// clusters before the merge (first < second).
struct WardMerge {
  float distance;
  int a, b;
  int first, second;
};

// The current distance of the clusters in slots a < b. Called for the stale entries that reach
// the back; must depend on the clusters only, not on when it is called.
using WardRecompute = std::function<float(int a, int b)>;

// The lazy list (Ward's FindNearestAndMerge without the error sums of squares):
// 1. While the back entry is stale, the stale entries at the back are recomputed, sorted by
//    decreasing distance (ties in pop order) and put back one by one, each right behind the last
//    current entry whose distance is greater than or equal to its own: in front of any stale
//    entries between that one and the next current entry (InsertRecomputedTail says why).
// 2. The back entry (clusters a < b) is taken; entries of b are dropped, entries of a become stale.
// Current entries therefore stay sorted by decreasing distance, a recomputed entry going behind
// older ones of equal distance; stale entries stay where they were until they reach the back, even
// where a current entry further back would turn out larger.
class MVDA_EXPORT WardLazyList {
 public:
  virtual ~WardLazyList();
  virtual std::unique_ptr<WardLazyList> Clone() const = 0;
  // Clusters in slots 1..n; `list` holds the distances of all n(n-1)/2 pairs (first < second) in
  // any order. `team` threads sort or bin it; `counts`, when not empty, are its bin counts (see
  // LazySortedList::Reset).
  virtual void Reset(int n, DistanceList list, int team, BinCounts counts) = 0;
  // The next merge; false when no entry is left.
  virtual bool Next(const WardRecompute& distance, WardMerge& merge) = 0;
};

// The calculator's list: a WardMergeQueue, or the StraightforwardWardList while the switch below
// is on.
MVDA_EXPORT std::unique_ptr<WardLazyList> MakeWardLazyList();
// The internal switch that puts the straightforward list into every Ward calculator initialised
// afterwards: tests compare whole trees made both ways. Off by default. Thread-safe.
MVDA_EXPORT void UseStraightforwardWardList(bool on);

// The list as it is described, with clusters numbered by position and renumbered at every merge,
// drops and stale marks by CompactAfterMerge, recomputed entries by InsertRecomputedTail.
// O(list) per merge.
class MVDA_EXPORT StraightforwardWardList final : public WardLazyList {
 public:
  std::unique_ptr<WardLazyList> Clone() const override;
  void Reset(int n, DistanceList list, int team, BinCounts counts) override;
  bool Next(const WardRecompute& distance, WardMerge& merge) override;

 private:
  std::vector<DistanceAndIndex> list_;  // sorted to pop from the back; clusters by position
  std::vector<int> slot_;               // the slot of the cluster at each position
  int team_ = 1;
};

// The same merges at a cost that follows the entries that change instead of the list length.
//
// What decides the merges is where stale entries sit among current ones, so that is what is kept:
// - Clusters keep their slots, so an entry never changes its numbers. Whether an entry is current,
//   stale or dropped follows from its clusters: dropped when either slot has gone, stale when
//   either cluster merged after the entry was computed. Nothing is visited at a merge; an entry's
//   state is read when the entry is reached.
// - Current entries are ordered by their key: distance, then newer first (a recomputed entry goes
//   behind the equal ones already there), then the slots. The entries of the initial list come
//   from a LazySortedList, which sorts only what is reached; those passed are "opened", kept in a
//   sorted array (removed ones skipped by path-compressed links), recomputed ones in sorted blocks.
// - A stale entry never moves, and a recomputed entry goes right behind the first current entry
//   in front of its place, in front of the stale ones there. So the stale entries between two
//   neighbouring current entries stay together until they reach the back, and only that group
//   matters: each current entry owns the stale ones right behind it (a linked list of groups). An
//   entry found stale or dropped hands itself and its group to the first current entry in front of
//   it; a recomputed entry takes over the group of the entry it goes behind; the group of the
//   back-most current entry is the stale tail.
// - Stale and dropped entries are found lazily, but always before anything is placed between them
//   and the current entry in front: the search for a recomputed entry's place walks through them.
//   A stale opened entry whose first current neighbour in front has not been opened yet waits in
//   the "frontier" group, which that neighbour takes over when it is opened.
// Cost per merge: O(log) for the positions, plus the entries reached (each passed once), plus
// O(log) and a few hundred moved entries per recomputed entry. Memory, on top of the
// LazySortedList: 16 bytes per opened entry in use, 16 per stale entry in a group, 20 per
// recomputed entry (at N = 20000 on 10 Gaussian blobs: at most 13 million opened and 7 million
// group items, about 0.35 GB, with 5% missing values 18 and 14 million, 0.52 GB; the list itself
// takes 2.4 GB).
class MVDA_EXPORT WardMergeQueue final : public WardLazyList {
 public:
  std::unique_ptr<WardLazyList> Clone() const override;
  void Reset(int n, DistanceList list, int team, BinCounts counts) override;
  bool Next(const WardRecompute& distance, WardMerge& merge) override;

 private:
  // The key of a current entry; `created` is 0 for the initial list, 2k for an entry recomputed at
  // merge k.
  struct Key {
    float distance;
    std::uint32_t created;
    std::int32_t a, b;
  };
  static bool Before(const Key& x, const Key& y) {  // x pops first
    if (x.distance != y.distance) return x.distance < y.distance;
    if (x.created != y.created) return x.created > y.created;
    if (x.a != y.a) return x.a < y.a;
    return x.b < y.b;
  }
  static Key KeyOf(const DistanceAndIndex& e) { return {e.distance, 0, e.first, e.second}; }
  struct KeyBefore {  // for the standard algorithms, which inline it where a pointer may not be
    bool operator()(const Key& x, const Key& y) const { return Before(x, y); }
  };

  // An opened entry of the initial list. `aux` is the group it owns while it is in use, and
  // kRemoved | (index of a later entry, not necessarily in use) once it is not.
  struct Opened {
    DistanceAndIndex entry;
    std::uint32_t aux;
  };
  struct RecomputedEntry {
    Key key;
    std::uint32_t group;
  };
  // The recomputed entries in key order: sorted blocks of a few hundred, found through the last
  // key of each block. A search reads a small array and one block instead of following a tree's
  // pointers across memory, which is where a balanced tree spent most of the merging.
  class Recomputed {
   public:
    struct Position {
      std::size_t block, index;
    };
    void Clear() {
      blocks_.clear();
      last_.clear();
    }
    Position Begin() const { return {0, 0}; }
    bool AtEnd(Position p) const { return p.block >= blocks_.size(); }
    RecomputedEntry& At(Position p) { return blocks_[p.block][p.index]; }
    Position UpperBound(const Key& key) const;  // the first entry after `key`
    Position Erase(Position p);                 // returns the entry after the erased one
    void Insert(const RecomputedEntry& entry);

   private:
    static constexpr std::size_t kBlock = 256;  // a block splits at twice this
    std::vector<std::vector<RecomputedEntry>> blocks_;
    std::vector<Key> last_;  // the last key of each block
  };
  // A group is a linked list of items; an item is a stale entry (a > 0) or only a link, and may
  // carry a whole group of its own (`sub`), so that groups join in O(1).
  struct Item {
    std::int32_t a, b;
    std::uint32_t next, sub;
  };
  static constexpr std::uint32_t kNone = 0x7fffffffu;
  static constexpr std::uint32_t kRemoved = 0x80000000u;

  enum State { kCurrent, kStale, kDropped };
  State StateOf(std::int32_t a, std::int32_t b, std::uint32_t created) const {
    if (label_[a] < 0 || label_[b] < 0) return kDropped;
    return changed_[a] > created || changed_[b] > created ? kStale : kCurrent;
  }

  // A current entry found by a walk: opened_[index], or *it, or none.
  struct Found {
    int kind;  // 0 none, 1 opened, 2 recomputed
    std::size_t index;
    Recomputed::Position at;
  };
  std::uint32_t& GroupOf(const Found& f) {
    return f.kind == 1 ? opened_[f.index].aux : recomputed_set_.At(f.at).group;
  }

  // The first current entry after `above` (from the very back when null), walking through stale
  // and dropped entries and gathering them and their groups into `gathered`; the gathered group is
  // added to the found entry's group. Opens initial entries when the walk gets past the opened
  // ones. None when no current entry is left there; `gathered` then holds the walk's gatherings.
  Found FirstCurrent(const Key* above, std::uint32_t& gathered);
  // Opens the next initial entry (already taken from originals_): a stale one joins the frontier,
  // a current one is appended with the frontier as its group. True for a current one.
  bool Open(const DistanceAndIndex& e);
  void Insert(const Key& key);
  std::size_t Up(std::size_t index);  // the first opened entry in use at or after index
  // The first opened entry (in use or not) whose key is after `key`.
  std::size_t UpperBoundOpened(const Key& key) const;
  void Compact();

  std::uint32_t NewItem(std::int32_t a, std::int32_t b, std::uint32_t next, std::uint32_t sub);
  std::uint32_t Join(std::uint32_t group, std::uint32_t other);
  // Moves the stale entries of `group` that have not been dropped to `out`; frees its items.
  void Drain(std::uint32_t group, std::vector<DistanceAndIndex>& out);

  int n_ = 0;
  std::uint32_t step_ = 0;
  std::vector<int> label_;              // per slot: the slot, or -1 once merged away
  std::vector<std::uint32_t> changed_;  // per slot: 2k+1 for its last merge k as survivor, or 0
  SlotRanks ranks_;
  LazySortedList originals_;
  std::vector<Opened> opened_;
  std::size_t opened_bottom_ = 0;  // opened_[0, opened_bottom_) is out of use
  // The entry of every kIndexStride-th opened one: the search for a place reads this small array
  // first, and then one stretch of opened_, instead of jumping across all of it.
  static constexpr std::size_t kIndexStride = 64;
  std::vector<DistanceAndIndex> index_;
  Recomputed recomputed_set_;
  std::vector<Item> items_;
  std::uint32_t free_items_ = kNone;
  std::uint32_t frontier_ = kNone;      // stale opened entries in front of every opened one
  std::uint32_t bottom_ = kNone;        // left behind the back by the last merge
  std::vector<DistanceAndIndex> tail_;  // scratch
};

}  // namespace mvda::detail

#endif  // MVDA_CLUSTER_DETAIL_WARD_LIST_H_
