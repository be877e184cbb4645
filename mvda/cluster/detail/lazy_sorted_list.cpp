#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/detail/lazy_sorted_list.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include <omp.h>

namespace mvda::detail {
namespace {

std::atomic<std::size_t> piece_limit{0};

inline bool Live(const DistanceAndIndex& e, const int* labels) {
  const int a = labels[e.first], b = labels[e.second];
  return a >= 0 && b >= 0 && a != b;
}

// Chunk c of `chunks` equal parts of [0, n).
inline std::size_t ChunkStart(std::size_t n, int chunks, int c) {
  return static_cast<std::size_t>(static_cast<unsigned long long>(n) * c / chunks);
}

// Runs work(c) for every chunk c < chunks on a team of up to `chunks` threads. A runtime may give
// fewer threads than asked for (dynamic teams), so each thread takes the chunks numbered like it,
// modulo the team it got; the chunks, and so the results, do not depend on the team.
template <class Work>
void ForEachChunk(int chunks, Work&& work) {
#pragma omp parallel num_threads(chunks) if (chunks > 1)
  {
    const int threads = omp_get_num_threads();
    for (int c = omp_get_thread_num(); c < chunks; c += threads) work(c);
  }
}

}  // namespace

void SetLazySortPieceLimit(std::size_t entries) { piece_limit.store(entries); }

std::size_t LazySortedList::PieceLimit(std::size_t entries) {
  const std::size_t limit = piece_limit.load();
  return limit != 0 ? limit : std::max<std::size_t>(entries / 8, std::size_t(1) << 20);
}

void LazySortedList::Reset(DistanceList list, int team, BinCounts counts) {
  all_ = std::move(list);
  team_ = std::max(team, 1);
  bits_ = BinBits(all_.size());
  first_counts_ = std::move(counts);
  if (first_counts_.bits != bits_ || first_counts_.starts.size() < 2 ||
      first_counts_.starts.back() != all_.size() ||
      first_counts_.counts.size() != (first_counts_.starts.size() - 1) << bits_ ||
      (!first_counts_.low.empty() && first_counts_.low.size() + 1 != first_counts_.starts.size()))
    first_counts_ = {};
  next_bin_ = 0;
  piece_.clear();
  group_end_.clear();
  group_first_bin_.clear();
  group_ = cursor_ = sorted_end_ = 0;
  pieces_ = 0;
}

bool LazySortedList::ReserveWorkspace() {
  constexpr std::size_t kGroup = std::size_t(1) << 16;  // as in CopyNextPiece
  const std::size_t bins = std::size_t(1) << bits_;
  std::size_t piece = PieceLimit(all_.size()), largest_bin = 0, low = 0;
  const std::size_t chunks = first_counts_.starts.empty() ? 0 : first_counts_.starts.size() - 1;
  for (std::size_t b = 0; b < bins && chunks > 0; ++b) {
    std::size_t in_bin = 0;
    for (std::size_t c = 0; c < chunks; ++c) in_bin += first_counts_.counts[c * bins + b];
    largest_bin = std::max(largest_bin, in_bin);
    if (static_cast<int>(b) < first_counts_.low_bins) low += in_bin;
  }
  if (chunks == 0) largest_bin = all_.size();  // unknown: one bin may hold the whole list
  // A piece is at most the limit or one bin; the first one, taken from the copies, all of theirs.
  piece = std::min(all_.size(), std::max({piece, largest_bin, low}));
  const std::size_t group = std::min(piece, std::max(kGroup, largest_bin));
  try {
    piece_.reserve(piece);
    scratch_.reserve(group);
  } catch (const std::bad_alloc&) {
    DistanceList().swap(piece_);
    DistanceList().swap(scratch_);
    return false;
  }
  return true;
}

bool LazySortedList::CopyNextPiece(const std::vector<int>& labels) {
  const int bins_in_all = 1 << bits_, bits = bits_;
  if (next_bin_ >= bins_in_all) return false;
  const std::size_t n = all_.size();
  const DistanceAndIndex* all = all_.data();
  const int* label = labels.data();
  const int from = next_bin_;

  // Chunks of the list and the live entries per chunk and bin, for the bins not copied yet: from
  // the counts made with the list while every entry is live (labels still one per row), else
  // counted here. Threads pay off from a few bins' worth of entries a thread on.
  std::vector<std::size_t> starts;
  std::vector<std::uint32_t> counts;
  std::vector<DistanceList> low;
  int low_bins = 0;
  bool check = true;
  if (!first_counts_.counts.empty()) {
    bool all_live = true;
    for (std::size_t r = 1; r < labels.size() && all_live; ++r) all_live = labels[r] == int(r);
    if (all_live) {
      starts.swap(first_counts_.starts);
      counts.swap(first_counts_.counts);
      if (first_counts_.low.size() + 1 == starts.size()) {
        low.swap(first_counts_.low);
        low_bins = first_counts_.low_bins;
      }
      check = false;
    }
    first_counts_ = {};
  }
  if (counts.empty()) {
    const int parts = n < (std::size_t(1) << 16) ? 1 : team_;
    for (int c = 0; c <= parts; ++c) starts.push_back(ChunkStart(n, parts, c));
    counts.assign(static_cast<std::size_t>(parts) << bits, 0);
    ForEachChunk(parts, [&](int c) {
      std::uint32_t* count = counts.data() + (static_cast<std::size_t>(c) << bits);
      for (std::size_t k = starts[c]; k < starts[c + 1]; ++k) {
        const int bin = Bin(all[k].distance, bits);
        if (bin >= from && Live(all[k], label)) ++count[bin];
      }
    });
  }
  const int chunks = static_cast<int>(starts.size()) - 1;

  // The piece: whole bins from `from` on while they fit the limit, at least one that is not empty;
  // or the bins that were copied as the list was made.
  const std::size_t limit = low.empty() ? PieceLimit(n) : n;
  const int last_bin = low.empty() ? bins_in_all : low_bins;
  std::size_t total = 0;
  int to = from;
  for (; to < last_bin; ++to) {
    std::size_t in_bin = 0;
    for (int c = 0; c < chunks; ++c)
      in_bin += counts[static_cast<std::size_t>(c) * bins_in_all + to];
    if (total > 0 && total + in_bin > limit) break;
    total += in_bin;
  }

  // The piece's bins are grouped into runs of about kGroup entries (a crowded bin alone), which
  // are what is copied together and later sorted together: copying into a few hundred places keeps
  // the writes in the cache where one place per bin would not.
  constexpr std::size_t kGroup = std::size_t(1) << 16;
  const std::size_t bins = static_cast<std::size_t>(to - from);
  std::vector<std::uint32_t> group_of(bins);
  group_first_bin_.clear();
  std::size_t in_group = 0;
  for (std::size_t b = 0; b < bins; ++b) {
    std::size_t in_bin = 0;
    for (int c = 0; c < chunks; ++c)
      in_bin += counts[(static_cast<std::size_t>(c) << bits) + from + b];
    if (group_first_bin_.empty() || (in_group > 0 && in_group + in_bin > kGroup)) {
      group_first_bin_.push_back(from + static_cast<int>(b));
      in_group = 0;
    }
    in_group += in_bin;
    group_of[b] = static_cast<std::uint32_t>(group_first_bin_.size() - 1);
  }
  group_first_bin_.push_back(to);
  // Where each chunk writes its entries of each group: groups in order, chunks in order within a
  // group.
  const std::size_t groups = group_first_bin_.size() - 1;
  std::vector<std::size_t> offsets(static_cast<std::size_t>(chunks) * groups, 0);
  for (std::size_t b = 0; b < bins; ++b)
    for (int c = 0; c < chunks; ++c)
      offsets[static_cast<std::size_t>(c) * groups + group_of[b]] +=
          counts[(static_cast<std::size_t>(c) << bits) + from + b];
  group_end_.assign(groups, 0);
  std::size_t at = 0;
  for (std::size_t g = 0; g < groups; ++g) {
    for (int c = 0; c < chunks; ++c) {
      const std::size_t size = offsets[static_cast<std::size_t>(c) * groups + g];
      offsets[static_cast<std::size_t>(c) * groups + g] = at;
      at += size;
    }
    group_end_[g] = at;
  }
  piece_.resize(total);
  DistanceAndIndex* piece = piece_.data();
  if (!low.empty()) {
    ForEachChunk(chunks, [&](int c) {
      std::size_t* offset = offsets.data() + static_cast<std::size_t>(c) * groups;
      for (const DistanceAndIndex& e : low[c]) {
        const int bin = Bin(e.distance, bits);
        if (bin < to) piece[offset[group_of[bin]]++] = e;
      }
      DistanceList().swap(low[c]);
    });
  } else {
    ForEachChunk(chunks, [&](int c) {
      std::size_t* offset = offsets.data() + static_cast<std::size_t>(c) * groups;
      for (std::size_t k = starts[c]; k < starts[c + 1]; ++k) {
        const int bin = Bin(all[k].distance, bits);
        if (bin >= from && bin < to && (!check || Live(all[k], label)))
          piece[offset[group_of[bin - from]]++] = all[k];
      }
    });
  }

  next_bin_ = to;
  group_ = cursor_ = sorted_end_ = 0;
  ++pieces_;
  if (next_bin_ >= bins_in_all) DistanceList().swap(all_);  // nothing left to copy
  return true;
}

void LazySortedList::SortGroup(DistanceAndIndex* first, DistanceAndIndex* last, int first_bin,
                               int end_bin) {
  // Keys are distinct, so the order does not depend on the sort. (A lambda, not the function
  // itself, so that the comparisons are inlined.)
  const auto before = [](const DistanceAndIndex& a, const DistanceAndIndex& b) {
    return PopsBefore(a, b);
  };
  const std::size_t size = static_cast<std::size_t>(last - first);
  constexpr std::size_t kSpreadFrom = 1024;
  if (size < kSpreadFrom) {
    std::sort(first, last, before);
    return;
  }
  // A large group is first spread over up to 4096 finer ranges of distance by a counting sort on
  // the leading bits of the distance within the group's range, so that each sort works on a few
  // entries in the cache.
  const std::uint32_t low = static_cast<std::uint32_t>(first_bin) << (31 - bits_);
  const std::uint64_t width = static_cast<std::uint64_t>(end_bin - first_bin) << (31 - bits_);
  int shift = 0;
  while ((width >> shift) > 4096) ++shift;
  const std::size_t spread = static_cast<std::size_t>((width - 1) >> shift) + 1;
  const auto fine = [low, shift](const DistanceAndIndex& e) {
    std::uint32_t pattern;
    std::memcpy(&pattern, &e.distance, sizeof pattern);
    pattern &= 0x7fffffffu;
    if (pattern > 0x7f800000u) pattern = 0x7fffffffu;
    return static_cast<std::size_t>((pattern - low) >> shift);
  };
  std::vector<std::size_t> starts(spread + 1, 0);
  for (const DistanceAndIndex* e = first; e != last; ++e) ++starts[fine(*e) + 1];
  for (std::size_t b = 0; b < spread; ++b) starts[b + 1] += starts[b];
  scratch_.resize(size);
  std::vector<std::size_t> at(starts.begin(), starts.end() - 1);
  for (const DistanceAndIndex* e = first; e != last; ++e) scratch_[at[fine(*e)]++] = *e;
  for (std::size_t b = 0; b < spread; ++b)
    std::sort(scratch_.begin() + static_cast<std::ptrdiff_t>(starts[b]),
              scratch_.begin() + static_cast<std::ptrdiff_t>(starts[b + 1]), before);
  std::copy(scratch_.begin(), scratch_.end(), first);
}

const DistanceAndIndex* LazySortedList::Peek(const std::vector<int>& labels) {
  const int* label = labels.data();
  for (;;) {
    for (; cursor_ < sorted_end_; ++cursor_)
      if (Live(piece_[cursor_], label)) return &piece_[cursor_];
    if (group_ < group_end_.size()) {
      const std::size_t begin = group_ == 0 ? 0 : group_end_[group_ - 1];
      const std::size_t end = group_end_[group_];
      const int first_bin = group_first_bin_[group_], end_bin = group_first_bin_[group_ + 1];
      ++group_;
      // Entries that died since the piece was copied need no sorting.
      DistanceAndIndex* const first = piece_.data() + begin;
      DistanceAndIndex* const last = std::remove_if(
          first, piece_.data() + end, [&](const DistanceAndIndex& e) { return !Live(e, label); });
      SortGroup(first, last, first_bin, end_bin);
      cursor_ = begin;
      sorted_end_ = begin + static_cast<std::size_t>(last - first);
      continue;
    }
    if (!CopyNextPiece(labels)) return nullptr;
  }
}

}  // namespace mvda::detail
