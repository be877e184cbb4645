#include <mvda/cluster/detail/pair_distances.h>
#include <mvda/containers/detail/join_guard.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/containers/detail/simd_clones.h>
#include <mvda/platform/progress.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include <boost/thread/thread.hpp>

namespace mvda::detail {
namespace {

constexpr float kMissing = -99.0f;

// Runs every job, each on a boost thread of its own; a job the system refuses a thread for runs
// on the calling thread meanwhile. Returns when all have finished.
template <class Job>
void RunOnThreads(std::vector<Job>& jobs) {
  if (jobs.size() == 1) {
    jobs[0]();
    return;
  }
  boost::thread_group group;
  JoinGuard join(group);
  for (Job& job : jobs) {
    try {
      group.create_thread([&job] { job(); });
    } catch (const boost::thread_resource_error&) {
      job();
    }
  }
}

}  // namespace

RowTable::RowTable(const NCDataMatrix<float>& data)
    : rows_(data.SizeRows()), columns_(data.SizeColumns()) {
  row_.reserve(rows_);
  missing_.reserve(rows_);
  const int tiles = (rows_ + kLanes - 1) / kLanes;
  tiles_.assign(static_cast<std::size_t>(tiles) * columns_ * kLanes, kMissing);
  tile_complete_.assign(tiles, 1);
  for (int i = 1; i <= rows_; ++i) {
    row_.push_back(data[i].begin());
    missing_.push_back(data[i].GetNumMisVal());
    const int t = (i - 1) / kLanes, l = (i - 1) % kLanes;
    float* tile = tiles_.data() + static_cast<std::size_t>(t) * columns_ * kLanes;
    for (int c = 0; c < columns_; ++c) tile[c * kLanes + l] = row_.back()[c];
    if (missing_.back() != 0) tile_complete_[t] = 0;
  }
  if (rows_ % kLanes != 0) tile_complete_[tiles - 1] = 0;  // the padding reads as missing
}

float RowTable::Distance(int i, int j, PairFunctions fn) const {
  DistanceAndIndex out;
  RowDistances(i, j, j, fn, &out);
  return out.distance;
}

namespace {

// Eight lanes of floats, doubles and 32-bit masks: vector extensions of the compiler, which maps
// them onto the target's vector registers.
typedef float Floats __attribute__((vector_size(32)));
typedef std::int32_t Masks __attribute__((vector_size(32)));
typedef float HalfFloats __attribute__((vector_size(16)));
typedef double HalfDoubles __attribute__((vector_size(32)));
typedef std::int32_t HalfMasks __attribute__((vector_size(16)));
static_assert(RowTable::kLanes == 8, "the lanes are eight vector elements");

// s_low, s_high += the eight float terms, each widened to double. (Vectors go by reference: as
// values their calling convention would depend on the target.)
__attribute__((always_inline)) inline void AddWidened(const Floats& terms, HalfDoubles& s_low,
                                                      HalfDoubles& s_high) {
  const HalfFloats low = __builtin_shufflevector(terms, terms, 0, 1, 2, 3);
  const HalfFloats high = __builtin_shufflevector(terms, terms, 4, 5, 6, 7);
  s_low += __builtin_convertvector(low, HalfDoubles);
  s_high += __builtin_convertvector(high, HalfDoubles);
}

// s *= columns / common where some but not all columns are common.
__attribute__((always_inline)) inline void Scale(HalfDoubles& s, const HalfMasks& common,
                                                 int columns) {
  const HalfDoubles counts = __builtin_convertvector(common, HalfDoubles);
  const HalfDoubles width = HalfDoubles{} + columns;
  const HalfDoubles ratio = width / (counts > 0.0 ? counts : width);
  s = counts > 0.0 && counts < width ? s * ratio : s;
}

// The sums of row x against one tile, lanes side by side. Per lane: s = sum over the columns both
// rows have of (x - y)^2 * factor, each term in float and added in double, column by column; an
// absent column adds +0, which leaves s as it is.
__attribute__((always_inline)) inline void SumTile(const float* x, bool complete, const float* tile,
                                                   int columns, float factor, HalfDoubles& s_low,
                                                   HalfDoubles& s_high) {
  constexpr int kLanes = RowTable::kLanes;
  s_low = s_high = HalfDoubles{};
  if (complete) {
    for (int c = 0; c < columns; ++c) {
      Floats y;
      std::memcpy(&y, tile + c * kLanes, sizeof y);
      const Floats d = x[c] - y;
      AddWidened(d * d * factor, s_low, s_high);
    }
    return;
  }
  Masks common = {};
  for (int c = 0; c < columns; ++c) {
    Floats y;
    std::memcpy(&y, tile + c * kLanes, sizeof y);
    const float xc = x[c];
    const Masks present = (y != kMissing) & (xc != kMissing ? -1 : 0);
    const Floats d = xc - y;
    // Terms of absent columns are cleared bit by bit: whatever they hold (an overflow to infinity
    // included) they add +0.
    const Floats terms =
        reinterpret_cast<Floats>(reinterpret_cast<Masks>(d * d * factor) & present);
    AddWidened(terms, s_low, s_high);
    common -= present;  // a present lane's mask is -1
  }
  // The admission check guarantees common columns; two rows without any are as far apart as
  // nothing tells (0) rather than NaN, which would break the order of the list.
  const HalfMasks common_low = __builtin_shufflevector(common, common, 0, 1, 2, 3);
  const HalfMasks common_high = __builtin_shufflevector(common, common, 4, 5, 6, 7);
  Scale(s_low, common_low, columns);
  Scale(s_high, common_high, columns);
}

// The distances of row i (values x) to rows j .. last, as RowTable::RowDistances describes.
// Compiled twice where the processor may have AVX2, which does eight lanes in one register
// instead of two; the arithmetic is the same either way.
MVDA_AVX2_CLONES void RowAgainstTiles(const float* x, bool x_complete, const float* tiles,
                                      const char* tile_complete, int columns, PairFunctions fn,
                                      int i, int j, int last, DistanceAndIndex* out) {
  constexpr int kLanes = RowTable::kLanes;
  const std::size_t stride = static_cast<std::size_t>(columns) * kLanes;
  // Tile by tile; the first is shared with rows before j and the last with rows after `last` (or
  // the padding), so their sums are made and partly used.
  while (j <= last) {
    const int t = (j - 1) / kLanes;
    HalfDoubles s_low, s_high;
    SumTile(x, x_complete && tile_complete[t], tiles + t * stride, columns, fn.factor, s_low,
            s_high);
    const HalfFloats v_low = __builtin_convertvector(s_low, HalfFloats);
    const HalfFloats v_high = __builtin_convertvector(s_high, HalfFloats);
    const int to = std::min(last, (t + 1) * kLanes);
    for (; j <= to; ++j) {
      const int l = (j - 1) % kLanes;
      const float v = l < 4 ? v_low[l] : v_high[l - 4];
      *out++ = {fn.root ? std::sqrt(v) : v, i, j};
    }
  }
}

}  // namespace

void RowTable::RowDistances(int i, int j, int last, PairFunctions fn, DistanceAndIndex* out) const {
  RowAgainstTiles(row_[i - 1], missing_[i - 1] == 0, tiles_.data(), tile_complete_.data(), columns_,
                  fn, i, j, last, out);
}

InitDistancesThreadClass::InitDistancesThreadClass(const RowTable& rows, PairFunctions fn,
                                                   int first, int last, DistanceAndIndex* list,
                                                   std::uint32_t* counts, int bits,
                                                   DistanceList* low, int low_bins)
    : rows_(&rows),
      fn_(fn),
      first_(first),
      last_(last),
      list_(list),
      counts_(counts),
      bits_(bits),
      low_(low),
      low_bins_(low ? low_bins : 0) {}

void InitDistancesThreadClass::operator()() noexcept {
  const int n = rows_->Rows();
  if (first_ > last_) return;
  DistanceAndIndex* out = list_ + PairIndex(first_, first_ + 1, n);
  for (int i = first_; i <= last_ && i < n; ++i) {
    if (stop_ && stop_->IsBreakPressed()) {
      stopped_ = true;
      return;
    }
    rows_->RowDistances(i, i + 1, n, fn_, out);
    if (counts_) {
      // The row's entries are still in the cache.
      for (int k = 0; k < n - i; ++k) {
        const int bin = LazySortedList::Bin(out[k].distance, bits_);
        ++counts_[bin];
        if (bin >= low_bins_) continue;
        try {
          low_->push_back(out[k]);
        } catch (const std::bad_alloc&) {
          // The first piece is then copied out of the list instead.
          DistanceList().swap(*low_);
          low_bins_ = 0;
          low_failed_ = true;
        }
      }
    }
    out += n - i;
  }
}

void ComputePairRange(const RowTable& rows, PairFunctions fn, std::uint64_t first,
                      std::uint64_t count, DistanceAndIndex* out, int threads) {
  if (count == 0) return;
  if (threads < 1) threads = 1;
  if (static_cast<std::uint64_t>(threads) > count) threads = static_cast<int>(count);
  struct Share {
    const RowTable* rows;
    PairFunctions fn;
    std::uint64_t first, count;
    DistanceAndIndex* out;
    void operator()() const noexcept {
      const int n = rows->Rows();
      int i = 0, j = 0;
      PairAt(first, n, i, j);
      for (std::uint64_t k = 0; k < count;) {
        // The rest of row i, or as much of it as the share holds.
        const int last = static_cast<int>(std::min<std::uint64_t>(n, j + (count - k) - 1));
        rows->RowDistances(i, j, last, fn, out + k);
        k += static_cast<std::uint64_t>(last - j + 1);
        ++i, j = i + 1;
      }
    }
  };
  std::vector<Share> shares;
  const std::uint64_t base = count / threads, longer = count % threads;
  std::uint64_t at = 0;
  for (int t = 0; t < threads; ++t) {
    const std::uint64_t c = base + (static_cast<std::uint64_t>(t) < longer ? 1 : 0);
    shares.push_back({&rows, fn, first + at, c, out + at});
    at += c;
  }
  RunOnThreads(shares);
}

namespace {

// Chooses the bins whose entries the workers copy as they make them (BinCounts::low): those of
// the first piece, as far as a sample of up to 2^16 pairs spread evenly over the list tells (the
// piece may come out a percent or so larger than the limit). Worth it only for lists of more than
// one piece.
void CollectLowBins(const RowTable& rows, PairFunctions fn, std::uint32_t m,
                    const std::vector<std::pair<int, int>>& bands, BinCounts& counts) {
  counts.low_bins = 0;
  counts.low.clear();
  const std::size_t limit = LazySortedList::PieceLimit(m);
  if (m <= limit) return;
  const std::uint64_t sample = std::min<std::uint64_t>(m, 1 << 16);
  std::vector<std::uint32_t> sampled(std::size_t(1) << counts.bits, 0);
  for (std::uint64_t s = 0; s < sample; ++s) {
    int i = 0, j = 0;
    PairAt((2 * s + 1) * m / (2 * sample), rows.Rows(), i, j);
    ++sampled[LazySortedList::Bin(rows.Distance(i, j, fn), counts.bits)];
  }
  const double scale = static_cast<double>(m) / sample;
  double expected = 0.0;
  int low_bins = 0;
  while (low_bins < static_cast<int>(sampled.size()) &&
         expected + sampled[low_bins] * scale <= static_cast<double>(limit))
    expected += sampled[low_bins++] * scale;
  if (low_bins == 0) return;
  try {
    counts.low.resize(bands.size());
    for (std::size_t b = 0; b < bands.size(); ++b) {
      const double share = static_cast<double>(counts.starts[b + 1] - counts.starts[b]) / m;
      counts.low[b].reserve(static_cast<std::size_t>(1.2 * expected * share) + 4096);
    }
  } catch (const std::bad_alloc&) {
    counts.low.clear();
    return;
  }
  counts.low_bins = low_bins;
}

}  // namespace

void CheckRowCount(int n) {
  if (n > std::sqrt(4294967294.0)) throw NCError(DendroGram::ClusterAllocationError::Text(n));
}

void ComputeDistanceList(const NCDataMatrix<float>& data, PairFunctions fn, NCProgress* progress,
                         DistanceList& list, BinCounts* counts) {
  const int n = data.SizeRows();
  CheckRowCount(n);
  if (progress) {
    progress->SetRange(0, 3);
    progress->SetText("Allocating memory");
  }
  const std::uint32_t un = static_cast<std::uint32_t>(n);
  const std::uint32_t m = (un * un - un) / 2;
  const std::uint64_t limit = DendroGram::GetDistanceListMemoryLimit();
  list.clear();
  list.shrink_to_fit();
  if (limit != 0 && std::uint64_t(m) * sizeof(DistanceAndIndex) > limit)
    throw DendroGram::ClusterAllocationError(un);
  try {
    list.resize(m);
  } catch (const std::bad_alloc&) {
    throw DendroGram::ClusterAllocationError(un);
  } catch (const std::length_error&) {
    throw DendroGram::ClusterAllocationError(un);
  }
  if (progress) {
    char text[64];
    std::snprintf(text, sizeof text, "Calculating %u distances", m);
    progress->SetText(text);
    progress->SetValue(1);
  }
  const int team = TeamSize();
  const RowTable rows(data);
  const std::vector<int> starts = BandStarts(n, team);
  std::vector<std::pair<int, int>> bands;
  for (std::size_t b = 0; b + 1 < starts.size(); ++b)
    if (starts[b] < starts[b + 1]) bands.emplace_back(starts[b], starts[b + 1] - 1);
  if (counts) {
    // One chunk per band, each with its own counters.
    counts->bits = LazySortedList::BinBits(m);
    counts->starts.clear();
    for (const auto& band : bands)
      counts->starts.push_back(PairIndex(band.first, band.first + 1, n));
    counts->starts.push_back(m);
    counts->counts.assign(bands.size() << counts->bits, 0);
    CollectLowBins(rows, fn, m, bands, *counts);
  }
  std::vector<InitDistancesThreadClass> workers;
  for (std::size_t b = 0; b < bands.size(); ++b)
    workers.emplace_back(
        rows, fn, bands[b].first, bands[b].second, list.data(),
        counts ? counts->counts.data() + (b << counts->bits) : nullptr, counts ? counts->bits : 0,
        counts && !counts->low.empty() ? &counts->low[b] : nullptr, counts ? counts->low_bins : 0);
  NCProgress stop_request;  // sees the request made to all computations
  for (InitDistancesThreadClass& worker : workers) worker.StopOn(&stop_request);
  if (!workers.empty()) RunOnThreads(workers);
  for (const InitDistancesThreadClass& worker : workers)
    if (worker.Stopped()) throw NCError("Cluster analysis aborted.", NCError::kStopRequested);
  if (counts)
    for (const InitDistancesThreadClass& worker : workers)
      if (worker.LowFailed()) counts->low.clear(), counts->low_bins = 0;
  if (progress) {
    progress->SetValue(2);
    progress->SetText("Sorting");
    progress->SetValue(3);
  }
}

}  // namespace mvda::detail
