// LazySortedList: a distance list handed out in merge order while only the part that the merging
// reaches gets sorted. Single linkage stops at its last merge, usually a tenth of the way into the
// list, and Ward's lazy list drops most entries before they come near the back; sorting all
// N(N-1)/2 entries first would cost more than everything else together. Exported for the tests
// only: detail headers are not installed.
#ifndef MVDA_CLUSTER_DETAIL_LAZY_SORTED_LIST_H_
#define MVDA_CLUSTER_DETAIL_LAZY_SORTED_LIST_H_

#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/mvda_export.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace mvda::detail {

using DendroGram::DistanceAndIndex;

// Entries per bin of a list, counted where the list was made: chunk c is list[starts[c],
// starts[c + 1]), its count of bin b is counts[c 2^bits + b]. Optionally also copies of the
// entries of the bins below low_bins, chunk by chunk (low[c]), taken as they were made: the first
// piece is then sorted out of these instead of out of the whole list.
struct BinCounts {
  int bits = 0;
  std::vector<std::size_t> starts;
  std::vector<std::uint32_t> counts;
  int low_bins = 0;
  std::vector<DistanceList> low;
};

// The most entries copied out of the list at a time; 0 (the default) means an eighth of the list,
// at least 2^20 entries. For tests, which need many small pieces from small lists. Thread-safe.
MVDA_EXPORT void SetLazySortPieceLimit(std::size_t entries);

// Entries come out by increasing distance, among equal distances by increasing first, then second
// row (PopsBefore): the order of the fully sorted list popped from the back.
//
// How: distances are cut into bins by the leading bits of their float representation (sign off,
// exponent, up to 8 bits of mantissa: a bin spans 1/256 of its value, so bins follow the spread of
// the data whatever its scale; 2^16 bins for large lists, fewer for small ones, about 16 entries a
// bin, so that small analyses do not pay for empty bins). A parallel pass over the list counts the
// live entries of every bin not yet handed out, a second copies the lowest bins, up to a piece
// limit, into a piece of their own, grouped into runs of bins of about 2^16 entries. A group is
// sorted when the merging reaches it. So the list is read once or twice per piece and only the
// groups that are reached get sorted. For the first piece the counts and copies can come with the
// list (BinCounts), made while the distances were computed: then the list is not read at all. The
// list itself is left as it is; when the last piece has been copied it is freed.
//
// Labels: the caller says which entries are still of use with a vector indexed by 1-based row
// (index 0 unused): an entry is live while labels[first] and labels[second] are both >= 0 and
// differ. Single linkage labels rows by cluster, Ward marks merged-away clusters with -1. Labels
// may only ever merge or turn negative, never part again: an entry found dead is dropped for good.
//
// Cost: the list (12 bytes an entry) plus one piece, at most the piece limit (an eighth of the
// list) or one bin if that is larger, plus a group's worth for sorting; a counter per bin and
// thread.
class MVDA_EXPORT LazySortedList {
 public:
  LazySortedList() = default;

  // Takes the list, in any order; `team` threads make the passes over it. `counts`, when not
  // empty, are its bin counts (with BinBits(list.size()) bits) and perhaps the copies of its
  // lowest bins, which spare the first piece its passes; they are used when every entry is still
  // live when that piece is taken (labels[r] == r for every row, as both calculators start).
  void Reset(DistanceList list, int team, BinCounts counts = {});
  // Reserves the largest piece and sorting space the list can need (known from the counts given to
  // Reset, else a piece at the limit), so that a list that fits in memory does not run out of it
  // halfway through the merging. False, holding nothing extra, when the allocator refuses.
  bool ReserveWorkspace();
  // The next live entry, or null when none is left. Valid until the next call.
  const DistanceAndIndex* Peek(const std::vector<int>& labels);
  // Takes the entry that Peek returned.
  void Pop() { ++cursor_; }
  // How many pieces have been copied out so far (for tests).
  int Pieces() const { return pieces_; }

  // The bin of a distance among 2^bits bins (bits 8..16): ordered like the distances (a NaN,
  // which the checks on the input keep out, would go last).
  static int Bin(float distance, int bits) {
    std::uint32_t pattern;
    std::memcpy(&pattern, &distance, sizeof pattern);
    pattern &= 0x7fffffffu;  // -0 sorts with +0
    if (pattern > 0x7f800000u) pattern = 0x7fffffffu;
    return static_cast<int>(pattern >> (31 - bits));
  }
  // The most entries of a list of `entries` copied out at a time.
  static std::size_t PieceLimit(std::size_t entries);
  // The bins of a list of `entries`: about 16 entries a bin, 2^8 to 2^16 of them.
  static int BinBits(std::size_t entries) {
    int bits = 8;
    while (bits < 16 && (std::size_t(16) << bits) < entries) ++bits;
    return bits;
  }

 private:
  // Copies the next piece of bins out of all_; false when all have been copied.
  bool CopyNextPiece(const std::vector<int>& labels);
  // Sorts a group of entries whose bins lie in [first_bin, end_bin).
  void SortGroup(DistanceAndIndex* first, DistanceAndIndex* last, int first_bin, int end_bin);

  DistanceList all_;
  BinCounts first_counts_;
  int team_ = 1;
  int bits_ = 16;     // 2^bits_ bins
  int next_bin_ = 0;  // bins below it have been copied out of all_
  // The current piece: its groups of bins in order, group k of it in piece_[group_end_[k-1],
  // group_end_[k]) with the bins from group_first_bin_[k] to group_first_bin_[k+1].
  DistanceList piece_;
  DistanceList scratch_;  // for sorting a large group
  std::vector<std::size_t> group_end_;
  std::vector<int> group_first_bin_;
  std::size_t group_ = 0;   // the next group of the piece to sort
  std::size_t cursor_ = 0;  // piece_[cursor_, sorted_end_) is sorted and not taken yet
  std::size_t sorted_end_ = 0;
  int pieces_ = 0;
};

}  // namespace mvda::detail

#endif  // MVDA_CLUSTER_DETAIL_LAZY_SORTED_LIST_H_
