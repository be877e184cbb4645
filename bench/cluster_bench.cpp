// Speed of GetDendroGram with Ward (type 0) and single linkage on Gaussian blobs of 20 columns,
// complete and with 5% of the cells missing: in memory for N = 5000, 10000 and 20000, and single
// linkage through the disk store with an eighth of the list in memory. Arguments: rows, percent
// missing. Counter peak_rss_gb: the process's peak resident memory so far, in GiB (run one case per
// process to read it for that case; the list of N = 20000 alone takes 2.24 GiB).
//
// Baselines in the same binary: Ward with the straightforward list (every remaining entry visited
// at every merge, the reference the calculator's list must agree with), the textbook Lance-Williams
// Ward on a full distance matrix (an O(N^3) scan for the closest pair) and Prim's minimum spanning
// tree for single linkage (O(N^2), heights only, no tree). For comparison on this machine at
// N = 20000, a widely used fast hierarchical clustering library takes 3.3 s for single linkage and
// 7.7 s for Ward (its memory-saving variants), 6.0 s and 9.9 s with 5% missing values.
//
// Exact linkages (GetExactDendroGram), arguments rows, percent missing, criterion (0 Ward, 1
// average, 2 complete, 3 weighted, 4 single): memory in proportion to the rows; Ward on complete
// data up to N = 60000. bench/compare_fastcluster.py times the tool against fastcluster's
// linkage_vector on the same CSV, in one command.
//
// Checks after the timed loop: every Ward height is the increase of the error sum of squares of the
// two clusters it joins, worked out here from the rows below the node (with missing values: per
// column over the present values, scaled up by the share missing; two single rows: their scaled
// initial distance); the lowest Ward merges are the
// textbook ones (complete data, up to 2000 rows); single linkage heights are the spanning tree's
// edges.
#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/detail/ward_list.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/cluster/exact_linkage.h>
#include <mvda/containers/data_matrix.h>
#include <mvda/platform/user_comm.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <list>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/resource.h>

namespace {

constexpr int kColumns = 20;
constexpr float kMissing = -99.0f;

// n rows around 10 centres (spread 3) with unit noise; `percent` of the cells missing, at random.
NCDataMatrix<float> Blobs(int n, int percent) {
  std::mt19937 engine(2024);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<std::vector<float>> centres(10, std::vector<float>(kColumns));
  for (auto& c : centres)
    for (float& v : c) v = 3.0f * noise(engine);
  NCDataMatrix<float> x(n, kColumns, 0.0f);
  std::uniform_int_distribution<int> hundred(0, 99);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= kColumns; ++j) {
      const float v = centres[i % 10][j - 1] + noise(engine);
      x(i, j, hundred(engine) < percent ? kMissing : v);
    }
  return x;
}

double PeakRssGb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1048576.0;  // kilobytes
}

std::vector<double> SortedHeights(const DendroGram::DendroGramNode& root) {
  std::list<const DendroGram::DendroGramNode*> nodes;
  root.GetNodes(nodes);
  std::vector<double> h;
  for (const auto* node : nodes)
    if (!node->IsLeaf()) h.push_back(node->Height());
  std::sort(h.begin(), h.end());
  return h;
}

// Per column: sum, sum of squares and count of the present values of a cluster.
struct Sums {
  std::vector<double> sum, squares;
  std::vector<int> count;
  int size = 0;
  double Ess() const {
    double e = 0;
    for (int c = 0; c < kColumns; ++c) {
      if (count[c] == 0) continue;
      double v = squares[c] - sum[c] * sum[c] / count[c];
      if (count[c] < size) v *= double(size) / count[c];
      e += v;
    }
    return e;
  }
};

Sums Join(const Sums& a, const Sums& b) {
  Sums u = a;
  for (int c = 0; c < kColumns; ++c)
    u.sum[c] += b.sum[c], u.squares[c] += b.squares[c], u.count[c] += b.count[c];
  u.size += b.size;
  return u;
}

// True when every inner node's height is the increase of the error sum of squares of its two
// children's rows (relative tolerance 1e-3, as the calculator sums in float-fed long doubles).
bool WardHeightsAreIncreases(const DendroGram::DendroGramNode& root, const NCDataMatrix<float>& x) {
  // Post-order with an explicit stack: a deep tree must not overflow the call stack.
  struct Frame {
    const DendroGram::DendroGramNode* node;
    bool expanded;
  };
  std::vector<Frame> stack{{&root, false}};
  std::vector<Sums> done;
  while (!stack.empty()) {
    Frame f = stack.back();
    stack.pop_back();
    if (f.node->IsLeaf()) {
      Sums s{std::vector<double>(kColumns), std::vector<double>(kColumns),
             std::vector<int>(kColumns), 0};
      for (const std::uint32_t r : *f.node->Items()) {
        ++s.size;
        for (int c = 0; c < kColumns; ++c) {
          const float v = x[int(r)][c + 1];
          if (v == kMissing) continue;
          s.sum[c] += v, s.squares[c] += double(v) * v, ++s.count[c];
        }
      }
      done.push_back(std::move(s));
    } else if (!f.expanded) {
      stack.push_back({f.node, true});
      stack.push_back({f.node->GetRight(), false});
      stack.push_back({f.node->GetLeft(), false});
    } else {
      const Sums right = std::move(done.back());
      done.pop_back();
      const Sums left = std::move(done.back());
      done.pop_back();
      Sums u = Join(left, right);
      double increase = u.Ess() - left.Ess() - right.Ess();
      // Two rows merge at their initial distance: half the squared distance over the columns both
      // have, scaled to the full width (the increase itself would not be scaled).
      if (f.node->GetLeft()->IsLeaf() && f.node->GetRight()->IsLeaf()) {
        const int i = int(f.node->GetLeft()->Items()->front());
        const int j = int(f.node->GetRight()->Items()->front());
        double s = 0;
        int common = 0;
        for (int c = 1; c <= kColumns; ++c) {
          if (x[i][c] == kMissing || x[j][c] == kMissing) continue;
          s += 0.5 * (double(x[i][c]) - x[j][c]) * (double(x[i][c]) - x[j][c]);
          ++common;
        }
        increase = s * kColumns / common;
      }
      if (std::fabs(f.node->Height() - increase) > 1e-3 * std::fabs(increase) + 1e-3) return false;
      done.push_back(std::move(u));
    }
  }
  return true;
}

// Textbook Ward heights sqrt(D), D twice the increase of the error sum of squares.
std::vector<double> LanceWilliamsWard(const NCDataMatrix<float>& x) {
  const int n = x.SizeRows();
  std::vector<std::vector<double>> w(n, std::vector<double>(n, 0.0));
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j) {
      double s = 0;
      for (int c = 1; c <= kColumns; ++c)
        s += (double(x[i + 1][c]) - x[j + 1][c]) * (double(x[i + 1][c]) - x[j + 1][c]);
      w[i][j] = w[j][i] = s;
    }
  std::vector<int> size(n, 1);
  std::vector<bool> alive(n, true);
  std::vector<double> heights;
  for (int step = 1; step < n; ++step) {
    int bi = -1, bj = -1;
    double best = std::numeric_limits<double>::infinity();
    for (int i = 0; i < n; ++i) {
      if (!alive[i]) continue;
      for (int j = i + 1; j < n; ++j)
        if (alive[j] && w[i][j] < best) best = w[i][j], bi = i, bj = j;
    }
    heights.push_back(std::sqrt(best));
    for (int k = 0; k < n; ++k) {
      if (!alive[k] || k == bi || k == bj) continue;
      w[bi][k] = w[k][bi] =
          ((size[bi] + size[k]) * w[bi][k] + (size[bj] + size[k]) * w[bj][k] - size[k] * best) /
          (size[bi] + size[bj] + size[k]);
    }
    size[bi] += size[bj];
    alive[bj] = false;
  }
  std::sort(heights.begin(), heights.end());
  return heights;
}

// Spanning tree edges with the calculator's distance: over the common present columns, scaled by
// columns / common columns.
std::vector<double> PrimEdges(const NCDataMatrix<float>& x) {
  const int n = x.SizeRows();
  std::vector<double> best(n, std::numeric_limits<double>::infinity()), edges;
  std::vector<bool> in(n, false);
  best[0] = 0;
  for (int step = 0; step < n; ++step) {
    int v = -1;
    for (int i = 0; i < n; ++i)
      if (!in[i] && (v < 0 || best[i] < best[v])) v = i;
    in[v] = true;
    if (step > 0) edges.push_back(std::sqrt(best[v]));
    const float* a = x[v + 1].begin();
    for (int i = 0; i < n; ++i) {
      if (in[i]) continue;
      const float* b = x[i + 1].begin();
      double s = 0;
      int common = 0;
      for (int c = 0; c < kColumns; ++c) {
        if (a[c] == kMissing || b[c] == kMissing) continue;
        s += (double(a[c]) - b[c]) * (double(a[c]) - b[c]);
        ++common;
      }
      if (common < kColumns) s *= double(kColumns) / common;
      best[i] = std::min(best[i], s);
    }
  }
  std::sort(edges.begin(), edges.end());
  return edges;
}

void SetBytes(benchmark::State& state, int n) {
  state.SetBytesProcessed(std::int64_t(state.iterations()) * n * kColumns * sizeof(float));
  state.counters["peak_rss_gb"] = PeakRssGb();
}

void Ward(benchmark::State& state, bool straightforward) {
  const int n = static_cast<int>(state.range(0)), percent = static_cast<int>(state.range(1));
  const NCDataMatrix<float> x = Blobs(n, percent);
  mvda::detail::UseStraightforwardWardList(straightforward);
  DendroGram::DendroGramNode* root = nullptr;
  for (auto _ : state) {
    state.PauseTiming();
    if (root) root->Destroy();
    state.ResumeTiming();
    DendroGram::WardDistanceCalculator ward(DendroGram::WardDistanceCalculator::kErrorSumOfSquares);
    root = DendroGram::GetDendroGram(x, ward, nullptr, nullptr);
  }
  mvda::detail::UseStraightforwardWardList(false);
  SetBytes(state, n);
  if (!WardHeightsAreIncreases(*root, x))
    state.SkipWithError("a Ward height is not the increase of its clusters' error sum of squares");
  // The lazy order may take another pair than the textbook late in the merging; the lowest
  // merges are the textbook ones.
  if (percent == 0 && n <= 2000) {
    const std::vector<double> heights = SortedHeights(*root), textbook = LanceWilliamsWard(x);
    for (int k = 0; k < n / 10; ++k)
      if (std::fabs(std::sqrt(2 * heights[k]) - textbook[k]) > 1e-3 * textbook[k])
        state.SkipWithError("Ward heights differ from the textbook");
  }
  root->Destroy();
}

void BM_Ward(benchmark::State& state) { Ward(state, false); }

void BM_WardStraightforwardBaseline(benchmark::State& state) { Ward(state, true); }

void BM_WardTextbookBaseline(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const NCDataMatrix<float> x = Blobs(n, 0);
  std::vector<double> heights;
  for (auto _ : state) heights = LanceWilliamsWard(x);
  SetBytes(state, n);
  if (heights.size() != std::size_t(n - 1)) state.SkipWithError("wrong number of merges");
}

void SingleLinkage(benchmark::State& state, bool disk) {
  const int n = static_cast<int>(state.range(0)), percent = static_cast<int>(state.range(1));
  const NCDataMatrix<float> x = Blobs(n, percent);
  const std::uint64_t pairs = std::uint64_t(n) * (n - 1) / 2;
  DendroGram::SetDistanceListMemoryLimit(disk ? pairs * 12 / 8 : 0);
  DendroGram::DendroGramNode* root = nullptr;
  bool on_disk = true;
  for (auto _ : state) {
    state.PauseTiming();
    if (root) root->Destroy();
    state.ResumeTiming();
    DendroGram::SingleLinkageDistanceCalculator single;
    root = DendroGram::GetDendroGram(x, single, nullptr, nullptr);
    on_disk = on_disk && single.GetDiskStore() != nullptr;
  }
  DendroGram::SetDistanceListMemoryLimit(0);
  SetBytes(state, n);
  if (on_disk != disk) state.SkipWithError("the distances were not where they were meant to be");
  const std::vector<double> heights = SortedHeights(*root), edges = PrimEdges(x);
  root->Destroy();
  for (std::size_t k = 0; k < edges.size(); ++k)
    if (std::fabs(heights[k] - edges[k]) > 1e-5 * edges[k])
      state.SkipWithError("single linkage heights differ from the spanning tree");
}

void BM_SingleLinkage(benchmark::State& state) { SingleLinkage(state, false); }

void BM_SingleLinkageOnDisk(benchmark::State& state) {
  // The store tells the user that it uses the disk; not on every iteration here.
  UserComm::GetUserComm().SetInformationHandler([](const std::string&, const std::string&) {});
  SingleLinkage(state, true);
}

void BM_SingleLinkagePrimBaseline(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const NCDataMatrix<float> x = Blobs(n, static_cast<int>(state.range(1)));
  std::vector<double> edges;
  for (auto _ : state) edges = PrimEdges(x);
  SetBytes(state, n);
  if (edges.size() != std::size_t(n - 1)) state.SkipWithError("wrong number of edges");
}

void BM_ExactLinkage(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0)), percent = static_cast<int>(state.range(1));
  const auto linkage = static_cast<DendroGram::ExactLinkage>(state.range(2));
  const NCDataMatrix<float> x = Blobs(n, percent);
  DendroGram::DendroGramNode* root = nullptr;
  for (auto _ : state) {
    state.PauseTiming();
    if (root) root->Destroy();
    state.ResumeTiming();
    root = DendroGram::GetExactDendroGram(x, linkage, nullptr);
  }
  SetBytes(state, n);
  const std::vector<double> heights = SortedHeights(*root);
  root->Destroy();
  // Heights from the textbook: Lance-Williams Ward and Prim's tree, written in this file.
  std::vector<double> textbook;
  if (percent == 0 && linkage == DendroGram::ExactLinkage::kWard && n <= 2000)
    textbook = LanceWilliamsWard(x);
  if (linkage == DendroGram::ExactLinkage::kSingle) textbook = PrimEdges(x);
  for (std::size_t k = 0; k < textbook.size(); ++k)
    if (std::fabs(heights[k] - textbook[k]) > 1e-5 * (1.0 + textbook[k]))
      state.SkipWithError("exact linkage heights differ from the textbook");
}

const std::vector<std::int64_t> kLarge = {5000, 10000, 20000};

BENCHMARK(BM_Ward)->ArgsProduct({kLarge, {0, 5}})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WardStraightforwardBaseline)
    ->ArgsProduct({{2000}, {0, 5}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WardTextbookBaseline)->Args({2000, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SingleLinkage)->ArgsProduct({kLarge, {0, 5}})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SingleLinkageOnDisk)->ArgsProduct({{20000}, {0, 5}})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SingleLinkagePrimBaseline)
    ->ArgsProduct({{5000, 20000}, {0}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExactLinkage)
    ->ArgsProduct({{2000, 20000, 60000}, {0}, {0}})
    ->ArgsProduct({{2000}, {0, 5}, {1, 2, 3}})
    ->Args({2000, 5, 0})
    ->ArgsProduct({{5000, 20000}, {0, 5}, {4}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
