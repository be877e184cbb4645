// Speed of GetDendroGram with Ward (type 0) and single linkage on Gaussian blobs of 20 columns,
// in memory and, for single linkage, through the disk store with an eighth of the list in memory.
// Baselines in the same binary: the textbook Lance-Williams Ward on a full distance matrix (an
// O(N^3) scan for the closest pair) and Prim's minimum spanning tree for single linkage (O(N^2),
// heights only, no tree).
#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/distance_calculators.h>
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

namespace {

constexpr int kColumns = 20;

// n rows around 10 centres (spread 3) with unit noise, from a fixed seed.
NCDataMatrix<float> Blobs(int n) {
  std::mt19937 engine(2024);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<std::vector<float>> centres(10, std::vector<float>(kColumns));
  for (auto& c : centres)
    for (float& v : c) v = 3.0f * noise(engine);
  NCDataMatrix<float> x(n, kColumns, 0.0f);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= kColumns; ++j) x(i, j, centres[i % 10][j - 1] + noise(engine));
  return x;
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

std::vector<std::vector<double>> SquaredDistances(const NCDataMatrix<float>& x) {
  const int n = x.SizeRows();
  std::vector<std::vector<double>> d(n, std::vector<double>(n, 0.0));
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j) {
      double s = 0;
      for (int c = 1; c <= kColumns; ++c)
        s += (double(x[i + 1][c]) - x[j + 1][c]) * (double(x[i + 1][c]) - x[j + 1][c]);
      d[i][j] = d[j][i] = s;
    }
  return d;
}

// Textbook Ward heights sqrt(D), D twice the increase of the error sum of squares.
std::vector<double> LanceWilliamsWard(const NCDataMatrix<float>& x) {
  const int n = x.SizeRows();
  std::vector<std::vector<double>> w = SquaredDistances(x);
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
    for (int i = 0; i < n; ++i) {
      if (in[i]) continue;
      double s = 0;
      for (int c = 1; c <= kColumns; ++c)
        s += (double(x[v + 1][c]) - x[i + 1][c]) * (double(x[v + 1][c]) - x[i + 1][c]);
      best[i] = std::min(best[i], s);
    }
  }
  std::sort(edges.begin(), edges.end());
  return edges;
}

void SetBytes(benchmark::State& state, int n) {
  state.SetBytesProcessed(std::int64_t(state.iterations()) * n * kColumns * sizeof(float));
}

void BM_Ward(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const NCDataMatrix<float> x = Blobs(n);
  std::vector<double> heights;
  for (auto _ : state) {
    DendroGram::WardDistanceCalculator ward(DendroGram::WardDistanceCalculator::kErrorSumOfSquares);
    DendroGram::DendroGramNode* root = DendroGram::GetDendroGram(x, ward, nullptr, nullptr);
    state.PauseTiming();
    heights = SortedHeights(*root);
    root->Destroy();
    state.ResumeTiming();
  }
  SetBytes(state, n);
  // The lazy order may take another pair than the textbook late in the merging; the lowest
  // merges are the textbook ones.
  const std::vector<double> textbook = LanceWilliamsWard(x);
  for (int k = 0; k < n / 10; ++k)
    if (std::fabs(std::sqrt(2 * heights[k]) - textbook[k]) > 1e-3 * textbook[k])
      state.SkipWithError("Ward heights differ from the textbook");
}

void BM_WardTextbookBaseline(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const NCDataMatrix<float> x = Blobs(n);
  std::vector<double> heights;
  for (auto _ : state) heights = LanceWilliamsWard(x);
  SetBytes(state, n);
  if (heights.size() != std::size_t(n - 1)) state.SkipWithError("wrong number of merges");
}

void SingleLinkage(benchmark::State& state, std::uint64_t limit) {
  const int n = static_cast<int>(state.range(0));
  const NCDataMatrix<float> x = Blobs(n);
  std::vector<double> heights;
  DendroGram::SetDistanceListMemoryLimit(limit);
  for (auto _ : state) {
    DendroGram::SingleLinkageDistanceCalculator single;
    DendroGram::DendroGramNode* root = DendroGram::GetDendroGram(x, single, nullptr, nullptr);
    state.PauseTiming();
    heights = SortedHeights(*root);
    root->Destroy();
    state.ResumeTiming();
  }
  DendroGram::SetDistanceListMemoryLimit(0);
  SetBytes(state, n);
  const std::vector<double> edges = PrimEdges(x);
  for (std::size_t k = 0; k < edges.size(); ++k)
    if (std::fabs(heights[k] - edges[k]) > 1e-5 * edges[k])
      state.SkipWithError("single linkage heights differ from the spanning tree");
}

void BM_SingleLinkage(benchmark::State& state) { SingleLinkage(state, 0); }

void BM_SingleLinkageOnDisk(benchmark::State& state) {
  // The store tells the user that it uses the disk; not on every iteration here.
  UserComm::GetUserComm().SetInformationHandler([](const std::string&, const std::string&) {});
  const std::uint64_t n = static_cast<std::uint64_t>(state.range(0));
  SingleLinkage(state, n * (n - 1) / 2 * 12 / 8);
}

void BM_SingleLinkagePrimBaseline(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const NCDataMatrix<float> x = Blobs(n);
  std::vector<double> edges;
  for (auto _ : state) edges = PrimEdges(x);
  SetBytes(state, n);
  if (edges.size() != std::size_t(n - 1)) state.SkipWithError("wrong number of edges");
}

BENCHMARK(BM_Ward)->Arg(1000)->Arg(2000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WardTextbookBaseline)->Arg(1000)->Arg(2000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SingleLinkage)->Arg(1000)->Arg(2000)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SingleLinkageOnDisk)->Arg(2000)->Arg(5000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SingleLinkagePrimBaseline)
    ->Arg(1000)
    ->Arg(2000)
    ->Arg(5000)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
