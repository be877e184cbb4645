// GetExactDendroGram against a naive Lance-Williams agglomeration written here (the full distance
// matrix, the closest pair merged each time): heights, and the partitions at every cut, with and
// without missing values, with ties; the smallest inputs, the thread count and the input checks.
#include <mvda/cluster/distance_calculators.h>
#include <mvda/cluster/exact_linkage.h>
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <list>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace DendroGram;
using NCMultiThreading::ThreadingControl;
using Rows = std::vector<std::vector<float>>;

constexpr float kMissing = -99.0f;
const ExactLinkage kAll[] = {ExactLinkage::kWard, ExactLinkage::kAverage, ExactLinkage::kComplete,
                             ExactLinkage::kWeighted, ExactLinkage::kSingle};
const char* const kNames[] = {"ward", "average", "complete", "weighted", "single"};

NCDataMatrix<float> Matrix(const Rows& rows) {
  NCDataMatrix<float> m(static_cast<int>(rows.size()), static_cast<int>(rows[0].size()), 0.0f);
  for (std::size_t i = 0; i < rows.size(); ++i)
    for (std::size_t j = 0; j < rows[i].size(); ++j) m(int(i) + 1, int(j) + 1, rows[i][j]);
  return m;
}

struct Tree {
  DendroGramNode* root;
  Tree(const Tree&) = delete;
  ~Tree() { DendroGramNode::DestroyNode(root); }
};

struct OracleMerge {
  int a, b;  // 0-based rows, one of each cluster
  double height;
};

// The textbook agglomeration: the distance matrix from the definition (squared distance over the
// common columns, scaled by columns / common), Lance-Williams updates. Clusters are named by
// their smallest row.
class Naive {
 public:
  Naive(const Rows& x, ExactLinkage linkage)
      : n_(static_cast<int>(x.size())), linkage_(linkage), size_(n_, 1), alive_(n_, true) {
    const int k = static_cast<int>(x[0].size());
    d_.assign(n_, std::vector<double>(n_, 0.0));
    for (int i = 0; i < n_; ++i)
      for (int j = 0; j < n_; ++j) {
        double s = 0.0;
        int common = 0;
        for (int c = 0; c < k; ++c) {
          if (x[i][c] == kMissing || x[j][c] == kMissing) continue;
          s += (double(x[i][c]) - x[j][c]) * (double(x[i][c]) - x[j][c]);
          ++common;
        }
        if (common > 0) s *= double(k) / common;
        d_[i][j] = Ward() ? s : std::sqrt(s);  // Ward works on squared distances
      }
  }
  bool Ward() const { return linkage_ == ExactLinkage::kWard; }
  double Height(int i, int j) const { return Ward() ? std::sqrt(std::max(d_[i][j], 0.0)) : d_[i][j]; }
  // The closest pair, the first one in row order on a tie.
  void Closest(int& bi, int& bj) const {
    bi = bj = -1;
    for (int i = 0; i < n_; ++i)
      for (int j = i + 1; j < n_; ++j)
        if (alive_[i] && alive_[j] && (bi < 0 || d_[i][j] < d_[bi][bj])) bi = i, bj = j;
  }
  // Merges the clusters named i and j, the new one named by the smaller; returns the height.
  double Merge(int i, int j) {
    if (i > j) std::swap(i, j);
    const double dij = d_[i][j], ni = size_[i], nj = size_[j];
    for (int m = 0; m < n_; ++m) {
      if (!alive_[m] || m == i || m == j) continue;
      const double nm = size_[m], dim = d_[i][m], djm = d_[j][m];
      double v = 0.0;
      switch (linkage_) {
        case ExactLinkage::kWard:
          v = ((ni + nm) * dim + (nj + nm) * djm - nm * dij) / (ni + nj + nm);
          break;
        case ExactLinkage::kAverage:
          v = (ni * dim + nj * djm) / (ni + nj);
          break;
        case ExactLinkage::kComplete:
          v = std::max(dim, djm);
          break;
        case ExactLinkage::kWeighted:
          v = 0.5 * (dim + djm);
          break;
        case ExactLinkage::kSingle:
          v = std::min(dim, djm);
          break;
      }
      d_[i][m] = d_[m][i] = v;
    }
    const double height = Height(i, j);
    size_[i] += size_[j];
    alive_[j] = false;
    return height;
  }

 private:
  int n_;
  ExactLinkage linkage_;
  std::vector<std::vector<double>> d_;
  std::vector<int> size_;
  std::vector<bool> alive_;
};

std::vector<OracleMerge> Oracle(const Rows& x, ExactLinkage linkage) {
  Naive naive(x, linkage);
  std::vector<OracleMerge> merges;
  for (std::size_t step = 1; step < x.size(); ++step) {
    int i, j;
    naive.Closest(i, j);
    merges.push_back({i, j, naive.Merge(i, j)});
  }
  return merges;
}

// With ties the tree is not unique: each merge of the tree, replayed bottom-up in the naive
// agglomeration, must join a closest pair at that moment, at that pair's height.
void ExpectValidMerges(const Rows& x, ExactLinkage linkage, const DendroGramNode& root) {
  NCDataVector<float> heights;
  NCIntegralVector<unsigned long, 0> a, b, merged;
  CreateMergeData(root, heights, a, b, merged, nullptr, nullptr);
  const int n = static_cast<int>(x.size());
  std::vector<int> name(2 * n + 1, -1);  // cluster number -> naive name
  for (int r = 1; r <= n; ++r) name[r] = r - 1;
  Naive naive(x, linkage);
  for (int k = 1; k <= heights.Size(); ++k) {
    int ci, cj;
    naive.Closest(ci, cj);
    const double closest = naive.Height(ci, cj);
    const int i = name[a[k]], j = name[b[k]];
    ASSERT_GE(i, 0);
    ASSERT_GE(j, 0);
    ASSERT_LE(naive.Height(i, j), closest + 1e-9 * (1.0 + closest)) << "merge " << k;
    const double height = naive.Merge(i, j);
    ASSERT_NEAR(heights[k], height, 2e-6 * (1.0 + height)) << "merge " << k;
    name[merged[k]] = std::min(i, j);
  }
}

// Per row, the smallest row of its cluster when the tree is cut at `height`.
std::vector<int> Cut(const DendroGramNode& root, int n, float height) {
  std::list<const DendroGramNode*> clusters;
  root.GetNodes(clusters, height);
  std::vector<int> label(n, -1);
  for (const DendroGramNode* cluster : clusters) {
    std::list<int> rows;
    cluster->GetLeafs(rows);
    const int smallest = *std::min_element(rows.begin(), rows.end()) - 1;
    for (const int r : rows) label[r - 1] = smallest;
  }
  return label;
}

std::vector<int> Cut(const std::vector<OracleMerge>& merges, int n, double height) {
  std::vector<int> parent(n);
  std::iota(parent.begin(), parent.end(), 0);
  const auto find = [&](int i) {
    while (parent[i] != i) i = parent[i];
    return i;
  };
  for (const OracleMerge& m : merges) {
    if (m.height > height) continue;
    const int a = find(m.a), b = find(m.b);
    parent[std::max(a, b)] = std::min(a, b);
  }
  std::vector<int> label(n);
  for (int i = 0; i < n; ++i) label[i] = find(i);
  return label;
}

// Heights agree to float precision (after sorting), every parent stands at least as high as its
// children, and the partitions agree at cuts between every two distinct heights.
void ExpectSameTree(const Rows& x, ExactLinkage linkage, const std::string& what,
                    bool ties = false) {
  SCOPED_TRACE(what);
  const int n = static_cast<int>(x.size());
  const Tree tree{GetExactDendroGram(Matrix(x), linkage, nullptr)};
  ExpectValidMerges(x, linkage, *tree.root);
  if (ties) return;  // a tie may rightly go either way, and change what follows
  const std::vector<OracleMerge> oracle = Oracle(x, linkage);
  std::list<const DendroGramNode*> nodes;
  tree.root->GetNodes(nodes);
  std::vector<double> got, want;
  for (const DendroGramNode* node : nodes) {
    if (node->IsLeaf()) continue;
    got.push_back(node->Height());
    EXPECT_GE(node->Height(), node->GetLeft()->Height());
    EXPECT_GE(node->Height(), node->GetRight()->Height());
  }
  for (const OracleMerge& m : oracle) want.push_back(m.height);
  std::sort(got.begin(), got.end());
  std::sort(want.begin(), want.end());
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    ASSERT_NEAR(got[i], want[i], 2e-6 * (1.0 + want[i])) << "merge " << i;
  // Cuts between heights that float rounding cannot confuse.
  std::vector<double> cuts = {-1.0};
  for (std::size_t i = 0; i + 1 < want.size(); ++i)
    if (want[i + 1] - want[i] > 1e-4 * (1.0 + want[i + 1]))
      cuts.push_back(0.5 * (want[i] + want[i + 1]));
  for (const double h : cuts)
    ASSERT_EQ(Cut(*tree.root, n, static_cast<float>(h)), Cut(oracle, n, h)) << "cut at " << h;
}

// Points around a few centres, rounded to a coarse grid when `grid` so that distances tie.
Rows Blobs(int n, int k, unsigned seed, double missing_share = 0.0, bool grid = false) {
  std::mt19937 engine(seed);
  std::normal_distribution<double> normal;
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  Rows centres(4, std::vector<float>(k));
  for (auto& c : centres)
    for (float& v : c) v = static_cast<float>(4.0 * normal(engine));
  Rows x(n, std::vector<float>(k));
  for (int i = 0; i < n; ++i) {
    for (int c = 0; c < k; ++c) {
      double v = centres[i % 4][c] + normal(engine) + 100.0;  // an offset tests cancellation
      if (grid) v = std::round(v);
      x[i][c] = static_cast<float>(v);
    }
    // At most one gap in three columns keeps every pair over the admission threshold.
    for (int c = i % 3; c < k; c += 3)
      if (uniform(engine) < missing_share) x[i][c] = kMissing;
  }
  return x;
}

TEST(ExactLinkage, MatchesLanceWilliamsOnCompleteData) {
  for (int e = 0; e < 5; ++e) {
    ExpectSameTree(Blobs(70, 6, 11), kAll[e], std::string(kNames[e]) + " blobs");
    ExpectSameTree(Blobs(40, 3, 12), kAll[e], std::string(kNames[e]) + " three columns");
  }
}

TEST(ExactLinkage, MatchesLanceWilliamsWithMissingValues) {
  for (int e = 0; e < 5; ++e)
    ExpectSameTree(Blobs(60, 9, 21, 0.3), kAll[e], std::string(kNames[e]) + " with gaps");
}

TEST(ExactLinkage, TiesAndIdenticalRows) {
  Rows twins = Blobs(30, 4, 31);
  for (int i = 0; i < 10; ++i) twins.push_back(twins[i * 2]);  // ten rows twice, one three times
  twins.push_back(twins[0]);
  for (int e = 0; e < 5; ++e) {
    ExpectSameTree(twins, kAll[e], std::string(kNames[e]) + " identical rows", true);
    ExpectSameTree(Blobs(50, 2, 32, 0.0, true), kAll[e], std::string(kNames[e]) + " on a grid",
                   true);
  }
  // All rows the same: every merge at height 0.
  const Rows same(12, std::vector<float>{1.5f, -2.0f, 3.0f});
  for (const ExactLinkage linkage : kAll) {
    const Tree tree{GetExactDendroGram(Matrix(same), linkage, nullptr)};
    EXPECT_EQ(tree.root->SizeLeafs(), 12u);
    EXPECT_EQ(tree.root->Height(), 0.0f);
  }
}

TEST(ExactLinkage, OneAndTwoRows) {
  for (const ExactLinkage linkage : kAll) {
    const Tree one{GetExactDendroGram(Matrix({{1.0f, 2.0f}}), linkage, nullptr)};
    ASSERT_TRUE(one.root->IsLeaf());
    EXPECT_EQ(*one.root->Items(), std::vector<std::uint32_t>{1});
    // Two rows 3-4-5 apart: every criterion, Ward's sqrt(2 x increase) too, gives the distance 5.
    const Tree two{GetExactDendroGram(Matrix({{1.0f, 2.0f}, {4.0f, 6.0f}}), linkage, nullptr)};
    ASSERT_FALSE(two.root->IsLeaf());
    EXPECT_FLOAT_EQ(two.root->Height(), 5.0f);
    EXPECT_EQ(two.root->SizeLeafs(), 2u);
  }
  // Ward's height is sqrt(2) times the host calculator's root of the increase (12.5 here).
  WardDistanceCalculator host(WardDistanceCalculator::kRootErrorSumOfSquares);
  const Tree hosted{GetDendroGram(Matrix({{1.0f, 2.0f}, {4.0f, 6.0f}}), host, nullptr, nullptr)};
  EXPECT_FLOAT_EQ(hosted.root->Height() * std::sqrt(2.0f), 5.0f);
}

TEST(ExactLinkage, SameTreeForEveryThreadCount) {
  // Large enough for several pieces in every search (Ward's centroid scan cuts 1024 clusters).
  const Rows complete = Blobs(2100, 5, 41);
  const Rows gaps = Blobs(250, 9, 42, 0.2);
  for (int e = 0; e < 5; ++e) {
    SCOPED_TRACE(kNames[e]);
    for (const Rows* x : {&complete, &gaps}) {
      if (x == &complete && kAll[e] != ExactLinkage::kWard && kAll[e] != ExactLinkage::kSingle)
        continue;  // row by row: the smaller set already has many pieces
      ThreadingControl::SetThreadingIsOn(false);
      const Tree one{GetExactDendroGram(Matrix(*x), kAll[e], nullptr)};
      ThreadingControl::SetThreadingIsOn(true);
      ThreadingControl::SetNumberOfProcessors(3);
      const Tree three{GetExactDendroGram(Matrix(*x), kAll[e], nullptr)};
      ThreadingControl::Reset();
      EXPECT_TRUE(*one.root == *three.root);
    }
  }
}

TEST(ExactLinkage, RefusesBadInput) {
  const auto fails = [](const Rows& x, const std::string& text) {
    try {
      const Tree tree{GetExactDendroGram(Matrix(x), ExactLinkage::kAverage, nullptr)};
      ADD_FAILURE() << "no error for " << text;
    } catch (const NCError& e) {
      EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
    }
  };
  fails({{1.0f, std::numeric_limits<float>::quiet_NaN()}, {2.0f, 3.0f}},
        "row 1, column 2 holds a value that is not finite");
  fails({{1.0f, 2.0f, 3.0f}, {kMissing, kMissing, 1.0f}}, "more than 50% missing");
  fails({{1.0f, 2.0f, kMissing, 4.0f}, {kMissing, kMissing, 3.0f, 4.0f}}, "common non-missing");
  EXPECT_THROW(GetExactDendroGram(NCDataMatrix<float>(), ExactLinkage::kWard, nullptr), NCError);

  ExactLinkage linkage = ExactLinkage::kSingle;
  EXPECT_TRUE(ExactLinkageFromName("ward-exact", linkage));
  EXPECT_EQ(linkage, ExactLinkage::kWard);
  EXPECT_FALSE(ExactLinkageFromName("ward", linkage));
}

}  // namespace
