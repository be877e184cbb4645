#include <mvda/cluster/detail/cluster_positions.h>
#include <mvda/cluster/detail/lazy_sorted_list.h>
#include <mvda/cluster/detail/pair_distances.h>
#include <mvda/cluster/detail/ward_list.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/cluster/mega_distances.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/temp_file.h>
#include <mvda/platform/user_comm.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <new>

namespace DendroGram {
namespace {

constexpr float kMissing = -99.0f;

std::atomic<std::uint64_t> memory_limit{0};

// printf into a std::string; the texts here are short but hold a path of any length.
template <class... Args>
std::string Format(const char* format, Args... args) {
  const int length = std::snprintf(nullptr, 0, format, args...);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::snprintf(text.data(), text.size() + 1, format, args...);
  return text;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Shared pieces

ClusterAllocationError::ClusterAllocationError(unsigned rows) : NCError(Text(rows)) {}

ClusterAllocationError::~ClusterAllocationError() = default;

std::string ClusterAllocationError::Text(unsigned rows) {
  return Format(
      "Memory allocation error.\nWhen doing cluster analysis, a total of N*(N-1)/2 initial "
      "distances are calculated. In this case, enough RAM to hold these distances could not be "
      "allocated (N=%u). ",
      rows);
}

void SetDistanceListMemoryLimit(std::uint64_t bytes) { memory_limit.store(bytes); }

std::uint64_t GetDistanceListMemoryLimit() { return memory_limit.load(); }

ClusterDistanceCalculator::~ClusterDistanceCalculator() = default;

// ---------------------------------------------------------------------------------------------
// Ward

WardDistanceCalculator::WardDistanceCalculator(DistanceType type) : type_(type) {}

WardDistanceCalculator::WardDistanceCalculator(const WardDistanceCalculator& other)
    : ClusterDistanceCalculator(other),
      type_(other.type_),
      data_(other.data_),
      list_(other.list_ ? other.list_->Clone() : nullptr),
      members_(other.members_) {
  sums_.reserve(other.sums_.size());
  for (const auto& sums : other.sums_)
    sums_.push_back(sums ? std::make_unique<ClusterSums>(*sums) : nullptr);
}

WardDistanceCalculator& WardDistanceCalculator::operator=(const WardDistanceCalculator& other) {
  if (this != &other) {
    WardDistanceCalculator copy(other);
    type_ = copy.type_;
    data_ = copy.data_;
    list_.swap(copy.list_);
    members_.swap(copy.members_);
    sums_.swap(copy.sums_);
  }
  return *this;
}

WardDistanceCalculator::~WardDistanceCalculator() = default;

std::string WardDistanceCalculator::GetId() const {
  return Format("WardDistanceCalculator%i", static_cast<int>(type_));
}

void WardDistanceCalculator::Init(const NCDataMatrix<float>& data, NCProgress* progress) {
  const int n = data.SizeRows();
  mvda::detail::CheckRowCount(n);
  data_ = data;
  list_.reset();
  members_.assign(n, {});
  for (int i = 0; i < n; ++i) members_[i].push_back(i + 1);
  sums_.clear();
  sums_.resize(n);
  if (type_ == kErrorSumOfSquares || type_ == kRootErrorSumOfSquares) {
    mvda::detail::DistanceList pairs;
    mvda::detail::BinCounts counts;
    mvda::detail::ComputeDistanceList(data_, {0.5f, type_ == kRootErrorSumOfSquares}, progress,
                                      pairs, &counts);
    list_ = mvda::detail::MakeWardLazyList();
    list_->Reset(n, std::move(pairs), mvda::detail::TeamSize(), std::move(counts));
  }
}

const WardDistanceCalculator::ClusterSums& WardDistanceCalculator::Sums(int p) {
  std::unique_ptr<ClusterSums>& slot = sums_[p];
  if (slot) return *slot;
  const int columns = data_.SizeColumns();
  auto sums = std::make_unique<ClusterSums>();
  sums->sum.assign(columns, 0.0L);
  sums->sum_of_squares.assign(columns, 0.0L);
  sums->count.assign(columns, 0);
  // Rows outside, columns inside, for the memory order; every column still sums its values over
  // the rows in ascending order.
  for (const int row : members_[p]) {
    const float* x = data_[row].begin();
    for (int c = 0; c < columns; ++c) {
      if (x[c] == kMissing) continue;
      sums->sum[c] += x[c];
      sums->sum_of_squares[c] += static_cast<long double>(x[c]) * x[c];
      ++sums->count[c];
    }
  }
  const long double size = static_cast<long double>(members_[p].size());
  for (int c = 0; c < columns; ++c) {
    const int n = sums->count[c];
    if (n == 0) continue;
    long double ess = sums->sum_of_squares[c] - sums->sum[c] * sums->sum[c] / n;
    // Missing values would shrink the sum of squares of their column; it is scaled back up to
    // the cluster's size.
    if (n < size) ess *= size / n;
    sums->error_ss += ess;
  }
  slot = std::move(sums);
  return *slot;
}

float WardDistanceCalculator::GetErrorSS(int a, int b) {
  // A cluster of one row needs no table: its sums are its values and its own error sum of
  // squares is 0.
  const ClusterSums* sa = members_[a].size() > 1 ? &Sums(a) : nullptr;
  const ClusterSums* sb = members_[b].size() > 1 ? &Sums(b) : nullptr;
  const float* xa = sa ? nullptr : data_[members_[a][0]].begin();
  const float* xb = sb ? nullptr : data_[members_[b][0]].begin();
  const long double size = static_cast<long double>(members_[a].size() + members_[b].size());
  const int columns = data_.SizeColumns();
  long double total = 0.0L;
  for (int c = 0; c < columns; ++c) {
    long double sum = 0.0L, squares = 0.0L;
    int n = 0;
    if (sa) {
      sum += sa->sum[c], squares += sa->sum_of_squares[c], n += sa->count[c];
    } else if (xa[c] != kMissing) {
      sum += xa[c], squares += static_cast<long double>(xa[c]) * xa[c], ++n;
    }
    if (sb) {
      sum += sb->sum[c], squares += sb->sum_of_squares[c], n += sb->count[c];
    } else if (xb[c] != kMissing) {
      sum += xb[c], squares += static_cast<long double>(xb[c]) * xb[c], ++n;
    }
    if (n == 0) continue;
    long double ess = squares - sum * sum / n;
    if (n < size) ess *= size / n;
    total += ess;
  }
  const long double increase = total - (sa ? sa->error_ss : 0.0L) - (sb ? sb->error_ss : 0.0L);
  // A merge cannot lower the error sum of squares; a rounding residue below 0 is taken as 0, so
  // that it neither reads as a stale entry nor gives a NaN root.
  return increase > 0.0L ? static_cast<float>(increase) : 0.0f;
}

void WardDistanceCalculator::UpdateDistance(DistanceAndIndex& entry) {
  const float increase = GetErrorSS(entry.first - 1, entry.second - 1);
  entry.distance = type_ == kRootErrorSumOfSquares ? std::sqrt(increase) : increase;
}

float WardDistanceCalculator::FindNearestAndMerge(int& first, int& second) {
  mvda::detail::WardMerge merge;
  const auto recompute = [this](int a, int b) {
    DistanceAndIndex entry{-1.0f, a, b};
    UpdateDistance(entry);
    return entry.distance;
  };
  if (!list_ || !list_->Next(recompute, merge))
    throw NCError("WardDistanceCalculator::FindNearestAndMerge: no pair of clusters left");
  const int a = merge.a - 1, b = merge.b - 1;
  std::vector<int>& merged = members_[a];
  const std::size_t middle = merged.size();
  merged.insert(merged.end(), members_[b].begin(), members_[b].end());
  std::inplace_merge(merged.begin(), merged.begin() + middle, merged.end());
  std::vector<int>().swap(members_[b]);
  sums_[a].reset();
  sums_[b].reset();
  first = merge.first;
  second = merge.second;
  return merge.distance;
}

// ---------------------------------------------------------------------------------------------
// Single linkage

SingleLinkageDistanceCalculator::SingleLinkageDistanceCalculator() = default;

SingleLinkageDistanceCalculator::SingleLinkageDistanceCalculator(
    const SingleLinkageDistanceCalculator& other)
    : ClusterDistanceCalculator(other),
      list_(other.list_ ? std::make_unique<mvda::detail::LazySortedList>(*other.list_) : nullptr),
      clusters_(other.clusters_ ? std::make_unique<mvda::detail::RowClusters>(*other.clusters_)
                                : nullptr),
      mega_(other.mega_ ? std::make_unique<MegaDistances>(*other.mega_) : nullptr) {}

SingleLinkageDistanceCalculator& SingleLinkageDistanceCalculator::operator=(
    const SingleLinkageDistanceCalculator& other) {
  if (this != &other) {
    SingleLinkageDistanceCalculator copy(other);
    list_.swap(copy.list_);
    clusters_.swap(copy.clusters_);
    mega_.swap(copy.mega_);
  }
  return *this;
}

SingleLinkageDistanceCalculator::~SingleLinkageDistanceCalculator() = default;

std::string SingleLinkageDistanceCalculator::GetId() const {
  return "SingleLinkageDistanceCalculator";
}

void SingleLinkageDistanceCalculator::Init(const NCDataMatrix<float>& data, NCProgress* progress) {
  const int n = data.SizeRows();
  mvda::detail::CheckRowCount(n);
  list_.reset();
  mega_.reset();
  clusters_ = std::make_unique<mvda::detail::RowClusters>();
  clusters_->Reset(n);
  try {
    // Kruskal's algorithm stops at the last merge, usually long before the end of the list, and
    // skips every pair already joined: the list is sorted as far as the merging gets, and pairs
    // inside a cluster are dropped unsorted.
    mvda::detail::DistanceList pairs;
    mvda::detail::BinCounts counts;
    mvda::detail::ComputeDistanceList(data, {1.0f, true}, progress, pairs, &counts);
    list_ = std::make_unique<mvda::detail::LazySortedList>();
    list_->Reset(std::move(pairs), mvda::detail::TeamSize(), std::move(counts));
    // The merging needs room to sort pieces of the list beside it: a list that fits only without
    // that room goes to the disk now rather than failing halfway.
    if (!list_->ReserveWorkspace()) list_.reset();
  } catch (const ClusterAllocationError&) {
    list_.reset();
  } catch (const std::bad_alloc&) {
    list_.reset();
  }
  if (list_) return;
  try {
    InitOnDisk(data, progress);
  } catch (const std::bad_alloc&) {
    mega_.reset();
    throw NCError(Format(
        "Cluster analysis: not enough memory for single linkage of %d rows, even with the "
        "distances on the disk (a few megabytes were needed beside the segment of distances)",
        n));
  }
}

void SingleLinkageDistanceCalculator::InitOnDisk(const NCDataMatrix<float>& data,
                                                 NCProgress* progress) {
  const unsigned n = static_cast<unsigned>(data.SizeRows());
  const std::uint32_t m = (n * n - n) / 2;
  const std::string folder = TwGetTempDirectory().string();
  std::uintmax_t free_bytes = 0;
  double needed = m * 12.0 * 2;  // the saved records and their copy in bands
  if (TwGetDiskFreeSpace(folder, free_bytes) && static_cast<double>(free_bytes) < needed) {
    double free_size = static_cast<double>(free_bytes);
    static const char* const kUnits[] = {"", "Kilo", "Mega", "Giga", "Tera"};
    int unit = 0;
    while (needed > 1024 && free_size > 1024 && unit < 4) {
      needed *= 1.0 / 1024;
      free_size *= 1.0 / 1024;
      ++unit;
    }
    const std::string question = Format(
        "When doing cluster analysis, a total of N*(N-1)/2 initial distances are calculated. In "
        "this case, enough RAM to hold these distances could not be allocated (N=%u). Velda can "
        "use your disk to store these numbers but it needs %.3f %sbytes of free space on the disk "
        "where Velda stores temporary files ('%s'). The free space on the disk is currently %.3f "
        "%sbytes. Please make sure that there is enough free space on the disk.\nDo you want to "
        "continue?",
        n, needed, kUnits[unit], folder.c_str(), free_size, kUnits[unit]);
    if (UserComm::GetUserComm().Ask(UserComm::kContinueOrAbort, "Cluster Analysis", question) ==
        UserComm::kAnswerAbort)
      throw NCError("Cluster analysis aborted.", NCError::kUserStop);
  }
  UserComm::GetUserComm().Inform(
      "Cluster Analysis",
      Format("When doing cluster analysis, a total of N*(N-1)/2 initial distances are calculated. "
             "In this case, enough RAM to hold these distances could not be allocated (N=%u). The "
             "disk ('%s') will be used to temporarily store the calculated distances. The "
             "calculations may be time-consuming but you can increase the speed by using a fast "
             "disk for the temporary storage.",
             n, folder.c_str()));

  // The largest segment that the limit and the allocator allow, halving from the whole list; two
  // records at least, which the store needs to cut a band in two.
  // The rows' table first: the segment takes what is left.
  const mvda::detail::RowTable rows(data);
  // The largest segment that the limit and the allocator allow, halving from the whole list; two
  // records at least, which the store needs to cut a band in two. When the allocator refused a
  // larger one, memory is at its end: half of what it grants is taken, so that the sorting, the
  // threads' stacks and the tree being built find room beside the segment.
  const std::uint64_t limit = GetDistanceListMemoryLimit();
  std::vector<DistanceAndIndex> segment;
  bool refused = false;
  for (std::size_t size = m;; size /= 2) {
    if (size <= 2) size = 2;
    if (size == 2 || limit == 0 || size * sizeof(DistanceAndIndex) <= limit) {
      try {
        segment.reserve(size);
        if (refused) {
          // A segment of a few records would cut the list into bands again and again, for hours;
          // better to say now what is missing.
          constexpr std::size_t kSmallest = std::size_t(1) << 16;
          if (size / 2 < kSmallest)
            throw NCError(Format(
                "Cluster analysis: not enough memory for single linkage of %u rows: the %u "
                "distances (%.0f bytes) do not fit in memory, and keeping them on the disk needs "
                "%zu bytes of memory at least besides the data, of which %zu could be had",
                n, m, 12.0 * m, 2 * kSmallest * sizeof(DistanceAndIndex),
                size * sizeof(DistanceAndIndex)));
          std::vector<DistanceAndIndex>().swap(segment);
          segment.reserve(size / 2);
        }
        break;
      } catch (const std::bad_alloc&) {
        if (size == 2) throw ClusterAllocationError(n);
        refused = true;
      }
    }
  }

  if (progress) {
    progress->SetRange(0, 2);
    progress->PushSubRange(0, 1);
  }
  // The store joins the calculator only when complete: a failed or stopped save takes its files
  // with it as the exception unwinds.
  auto store = std::make_unique<MegaDistances>(std::move(segment), progress, m);
  const int team = mvda::detail::TeamSize();
  store->SaveDistances([&](std::uint64_t first, std::uint64_t count, DistanceAndIndex* out) {
    mvda::detail::ComputePairRange(rows, {1.0f, true}, first, count, out, team);
  });
  if (progress) {
    progress->PopSubRange();
    progress->PushSubRange(1, 2);
  }
  store->SplitIntoBands();
  if (progress) progress->PopSubRange();
  mega_ = std::move(store);
}

float SingleLinkageDistanceCalculator::FindNearestAndMerge(int& first, int& second) {
  if (!clusters_) throw NCError("SingleLinkageDistanceCalculator::FindNearestAndMerge: no data");
  // Kruskal's algorithm on the sorted list: the shortest remaining edge between two clusters.
  DistanceAndIndex edge;
  try {
    for (;;) {
      if (mega_) {
        if (!mega_->Pop(edge))
          throw NCError("SingleLinkageDistanceCalculator::FindNearestAndMerge: no pair left");
        if (!clusters_->Joined(edge.first, edge.second)) break;
      } else {
        const DistanceAndIndex* next = list_ ? list_->Peek(clusters_->Labels()) : nullptr;
        if (!next)
          throw NCError("SingleLinkageDistanceCalculator::FindNearestAndMerge: no pair left");
        edge = *next;  // Peek passes only pairs of rows in different clusters
        list_->Pop();
        break;
      }
    }
  } catch (const std::bad_alloc&) {
    // Init reserved the list's workspace, or took the disk's segment with room to spare; what
    // is left are small tables for sorting.
    throw NCError(std::string("Cluster analysis: memory ran out while sorting the distances of "
                              "single linkage ") +
                  (mega_ ? "on the disk" : "in memory") +
                  " (a few megabytes more were needed for sorting)");
  }
  clusters_->Merge(edge.first, edge.second, first, second);
  return edge.distance;
}

}  // namespace DendroGram
