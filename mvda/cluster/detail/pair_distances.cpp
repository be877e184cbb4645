#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/detail/pair_distances.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/platform/progress.h>

#include <cmath>
#include <cstdio>
#include <new>
#include <stdexcept>

#include <boost/thread/thread.hpp>

namespace mvda::detail {
namespace {

constexpr float kMissing = -99.0f;

// Joins every thread started so far when it goes out of scope, on the normal path and when
// starting a later thread throws: no worker outlives the call that started it.
class JoinGuard {
 public:
  explicit JoinGuard(boost::thread_group& group) : group_(group) {}
  JoinGuard(const JoinGuard&) = delete;
  JoinGuard& operator=(const JoinGuard&) = delete;
  ~JoinGuard() { group_.join_all(); }

 private:
  boost::thread_group& group_;
};

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
  for (int i = 1; i <= rows_; ++i) {
    row_.push_back(data[i].begin());
    missing_.push_back(data[i].GetNumMisVal());
  }
}

float RowTable::Distance(int i, int j, PairFunctions fn) const {
  const float* x = row_[i - 1];
  const float* y = row_[j - 1];
  double s = 0.0;
  if (missing_[i - 1] == 0 && missing_[j - 1] == 0) {
    for (int c = 0; c < columns_; ++c) {
      const float d = x[c] - y[c];
      s += static_cast<double>(d * d * fn.factor);
    }
  } else {
    int common = 0;
    for (int c = 0; c < columns_; ++c) {
      if (x[c] == kMissing || y[c] == kMissing) continue;
      const float d = x[c] - y[c];
      s += static_cast<double>(d * d * fn.factor);
      ++common;
    }
    // The admission check guarantees common columns; two rows without any are as far apart as
    // nothing tells (0) rather than NaN, which would break the order of the list.
    if (common > 0 && common < columns_) s *= static_cast<double>(columns_) / common;
  }
  const float v = static_cast<float>(s);
  return fn.root ? std::sqrt(v) : v;
}

InitDistancesThreadClass::InitDistancesThreadClass(const RowTable& rows, PairFunctions fn,
                                                   int first, int last, DistanceAndIndex* list)
    : rows_(&rows), fn_(fn), first_(first), last_(last), list_(list) {}

int RowTable::CompleteDistances(int i, int j, PairFunctions fn, float* out) const {
  if (missing_[i - 1] != 0 || j + 3 > rows_) return 0;
  for (int k = 0; k < 4; ++k)
    if (missing_[j - 1 + k] != 0) return 0;
  const float* x = row_[i - 1];
  const float* y0 = row_[j - 1];
  const float* y1 = row_[j];
  const float* y2 = row_[j + 1];
  const float* y3 = row_[j + 2];
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  for (int c = 0; c < columns_; ++c) {
    const float xc = x[c];
    const float d0 = xc - y0[c], d1 = xc - y1[c], d2 = xc - y2[c], d3 = xc - y3[c];
    s0 += static_cast<double>(d0 * d0 * fn.factor);
    s1 += static_cast<double>(d1 * d1 * fn.factor);
    s2 += static_cast<double>(d2 * d2 * fn.factor);
    s3 += static_cast<double>(d3 * d3 * fn.factor);
  }
  const double s[4] = {s0, s1, s2, s3};
  for (int k = 0; k < 4; ++k) {
    const float v = static_cast<float>(s[k]);
    out[k] = fn.root ? std::sqrt(v) : v;
  }
  return 4;
}

void InitDistancesThreadClass::operator()() const noexcept {
  const int n = rows_->Rows();
  if (first_ > last_) return;
  DistanceAndIndex* out = list_ + PairIndex(first_, first_ + 1, n);
  float four[4];
  for (int i = first_; i <= last_; ++i) {
    for (int j = i + 1; j <= n;) {
      if (rows_->CompleteDistances(i, j, fn_, four) == 4) {
        for (int k = 0; k < 4; ++k) *out++ = {four[k], i, j + k};
        j += 4;
      } else {
        *out++ = {rows_->Distance(i, j, fn_), i, j};
        ++j;
      }
    }
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
      int i = 0, j = 0;
      PairAt(first, rows->Rows(), i, j);
      for (std::uint64_t k = 0; k < count; ++k) {
        out[k] = {rows->Distance(i, j, fn), i, j};
        if (++j > rows->Rows()) ++i, j = i + 1;
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

void CheckRowCount(int n) {
  if (n > std::sqrt(4294967294.0)) throw NCError(DendroGram::ClusterAllocationError::Text(n));
}

void ComputeDistanceList(const NCDataMatrix<float>& data, PairFunctions fn, NCProgress* progress,
                         std::vector<DistanceAndIndex>& list, bool sort) {
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
  std::vector<InitDistancesThreadClass> workers;
  for (std::size_t b = 0; b + 1 < starts.size(); ++b)
    if (starts[b] < starts[b + 1])
      workers.emplace_back(rows, fn, starts[b], starts[b + 1] - 1, list.data());
  if (!workers.empty()) RunOnThreads(workers);
  if (progress) {
    progress->SetValue(2);
    progress->SetText("Sorting");
  }
  if (sort) SortForPopping(list, 0, list.size(), team);
  if (progress) progress->SetValue(3);
}

}  // namespace mvda::detail
