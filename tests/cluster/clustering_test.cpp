// GetDendroGram with both calculators against brute-force agglomeration written here from the
// definitions, against the textbook Ward and the minimum spanning tree on the wine data, and
// through the disk store, the cache and the checks on the input.
#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/detail/lazy_sorted_list.h>
#include <mvda/cluster/detail/ward_list.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/cluster/mega_distances.h>
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/platform/error.h>
#include <mvda/platform/md5.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/stream_source.h>
#include <mvda/platform/temp_file.h>
#include <mvda/platform/user_comm.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using namespace DendroGram;
using Rows = std::vector<std::vector<float>>;
using NCMultiThreading::ThreadingControl;

constexpr float kMissing = -99.0f;

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

std::vector<float> Heights(const DendroGramNode& root) {
  std::list<const DendroGramNode*> nodes;
  root.GetNodes(nodes);
  std::vector<float> h;
  for (const DendroGramNode* n : nodes)
    if (!n->IsLeaf()) h.push_back(n->Height());
  std::sort(h.begin(), h.end());
  return h;
}

// ---------------------------------------------------------------------------------------------
// Brute force, from the definitions: the distance of two rows over their common columns scaled to
// the full width; Ward's error sums of squares over member lists; single linkage as the closest
// pair of rows in different clusters. Ties go to the pair with the smaller rows, and Ward's list
// is kept as a plain sorted vector with stale entries, recomputed when they reach the back.

struct Merge {
  float height;
  int a, b;  // 0-based positions in the list of current clusters
};

float RowDistance(const Rows& x, int i, int j, float factor, bool root) {
  double s = 0;
  int common = 0;
  const int columns = static_cast<int>(x[i].size());
  for (int c = 0; c < columns; ++c) {
    if (x[i][c] == kMissing || x[j][c] == kMissing) continue;
    const float d = x[i][c] - x[j][c];
    s += double(d * d * factor);
    ++common;
  }
  if (common < columns) s *= double(columns) / common;
  return root ? std::sqrt(float(s)) : float(s);
}

long double ClusterESS(const Rows& x, const std::vector<int>& rows, int c, long double& sum,
                       long double& squares, int& n) {
  sum = squares = 0;
  n = 0;
  for (const int r : rows) {
    const float v = x[r - 1][c];
    if (v == kMissing) continue;
    sum += v, squares += static_cast<long double>(v) * v, ++n;
  }
  if (n == 0) return 0;
  long double e = squares - sum * sum / n;
  if (n < static_cast<long double>(rows.size())) e *= static_cast<long double>(rows.size()) / n;
  return e;
}

float WardIncrease(const Rows& x, const std::vector<int>& a, const std::vector<int>& b) {
  long double ta = 0, tb = 0, tu = 0;
  const long double size = static_cast<long double>(a.size() + b.size());
  for (std::size_t c = 0; c < x[0].size(); ++c) {
    long double sa, qa, sb, qb;
    int na, nb;
    ta += ClusterESS(x, a, int(c), sa, qa, na);
    tb += ClusterESS(x, b, int(c), sb, qb, nb);
    const int n = na + nb;
    if (n == 0) continue;
    long double e = (qa + qb) - (sa + sb) * (sa + sb) / n;
    if (n < size) e *= size / n;
    tu += e;
  }
  const long double increase = tu - ta - tb;
  return increase > 0 ? float(increase) : 0.0f;
}

struct Entry {
  float d;
  int a, b;  // 1-based clusters
};
bool PopsFirst(const Entry& x, const Entry& y) {
  return x.d != y.d ? x.d < y.d : x.a != y.a ? x.a < y.a : x.b < y.b;
}

std::vector<Merge> BruteWard(const Rows& x, int type) {
  const int n = static_cast<int>(x.size());
  std::vector<Entry> list;
  for (int i = 1; i <= n; ++i)
    for (int j = i + 1; j <= n; ++j)
      list.push_back({RowDistance(x, i - 1, j - 1, 0.5f, type == 1), i, j});
  std::sort(list.begin(), list.end(),
            [](const Entry& p, const Entry& q) { return PopsFirst(q, p); });
  std::vector<std::vector<int>> members;
  for (int i = 1; i <= n; ++i) members.push_back({i});
  const auto update = [&](Entry& e) {
    const float inc = WardIncrease(x, members[e.a - 1], members[e.b - 1]);
    e.d = type == 1 ? std::sqrt(inc) : inc;
  };
  std::vector<Merge> merges;
  while (members.size() > 1) {
    if (list.back().d < 0) {
      std::vector<Entry> tail;
      while (!list.empty() && list.back().d < 0) {
        update(list.back());
        tail.push_back(list.back());
        list.pop_back();
      }
      std::sort(tail.begin(), tail.end(),
                [](const Entry& p, const Entry& q) { return PopsFirst(q, p); });
      for (const Entry& t : tail) {  // each behind the last entry at least as far
        std::size_t at = 0;
        for (std::size_t q = 0; q < list.size(); ++q)
          if (list[q].d >= t.d) at = q + 1;
        list.insert(list.begin() + at, t);
      }
    }
    const Entry taken = list.back();
    list.pop_back();
    const int a = taken.a - 1, b = taken.b - 1;
    members[a].insert(members[a].end(), members[b].begin(), members[b].end());
    std::sort(members[a].begin(), members[a].end());
    members.erase(members.begin() + b);
    std::vector<Entry> kept;
    for (Entry e : list) {
      if (e.a == b + 1 || e.b == b + 1) continue;
      if (e.a > b + 1) --e.a;
      if (e.b > b + 1) --e.b;
      if (e.a == a + 1 || e.b == a + 1) e.d = -1;
      kept.push_back(e);
    }
    list = kept;
    merges.push_back({taken.d, a, b});
  }
  return merges;
}

std::vector<Merge> BruteSingleLinkage(const Rows& x) {
  const int n = static_cast<int>(x.size());
  std::vector<int> label(n);
  for (int i = 0; i < n; ++i) label[i] = i;
  std::vector<Merge> merges;
  for (int step = 1; step < n; ++step) {
    Entry best{std::numeric_limits<float>::infinity(), n + 1, n + 1};
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j) {
        const Entry e{RowDistance(x, i, j, 1.0f, true), i + 1, j + 1};
        if (label[i] != label[j] && PopsFirst(e, best)) best = e;
      }
    const int p = std::min(label[best.a - 1], label[best.b - 1]);
    const int q = std::max(label[best.a - 1], label[best.b - 1]);
    for (int& l : label) l = l == q ? p : l > q ? l - 1 : l;
    merges.push_back({best.d, p, q});
  }
  return merges;
}

// The tree that GetDendroGram builds from these merges.
DendroGramNode* Build(int n, const std::vector<Merge>& merges) {
  std::vector<DendroGramNode*> nodes;
  for (int r = 1; r <= n; ++r) nodes.push_back(new DendroGramNode(r));
  for (const Merge& m : merges) {
    nodes[m.a] = new DendroGramNode(m.height, nodes[m.a], nodes[m.b]);
    nodes.erase(nodes.begin() + m.b);
  }
  nodes[0]->SortBySize();
  return nodes[0];
}

Rows RandomRows(std::mt19937& random, int n, int columns, bool missing, bool ties) {
  std::normal_distribution<float> normal(0, 1);
  std::uniform_int_distribution<int> small(0, 2), column(0, columns - 1);
  std::bernoulli_distribution hole(0.3);
  Rows x(n, std::vector<float>(columns));
  for (auto& row : x) {
    for (float& v : row) v = ties ? float(small(random)) : normal(random);
    // At most one hole a row: any two rows share columns - 2, enough for the admission check.
    if (missing && hole(random)) row[column(random)] = kMissing;
  }
  return x;
}

TEST(Clustering, MatchesBruteForceOnSmallRandomSets) {
  std::mt19937 random(2024);
  for (int set = 0; set < 300; ++set) {
    const bool missing = set % 3 == 1, ties = set % 3 == 2;
    const Rows x = RandomRows(random, 12, 5, missing, ties);
    const NCDataMatrix<float> m = Matrix(x);
    SCOPED_TRACE(testing::Message()
                 << "set " << set << (missing ? " missing" : "") << (ties ? " ties" : ""));
    for (const int type : {0, 1}) {
      WardDistanceCalculator ward(static_cast<WardDistanceCalculator::DistanceType>(type));
      Tree got{GetDendroGram(m, ward, nullptr, nullptr)};
      Tree want{Build(12, BruteWard(x, type))};
      ASSERT_TRUE(*got.root == *want.root) << "Ward type " << type;
    }
    SingleLinkageDistanceCalculator single;
    Tree got{GetDendroGram(m, single, nullptr, nullptr)};
    Tree want{Build(12, BruteSingleLinkage(x))};
    ASSERT_TRUE(*got.root == *want.root) << "single linkage";
  }
}

// Identity of the calculator's list with the straightforward one on whole analyses, where the
// recomputed distances are real Ward values: sets of up to 90 rows, complete, with missing values
// and with ties, the initial list handed out in pieces of every size (the first one sorted out of
// copies made with the distances once the list holds more than one piece). Single linkage in
// pieces against the brute force on the smaller of the same sets.
// Sets the internal switches for one set of a test and puts them back when it ends, also when an
// assertion ends it early.
struct Switches {
  explicit Switches(std::size_t piece) { mvda::detail::SetLazySortPieceLimit(piece); }
  Switches(const Switches&) = delete;
  ~Switches() {
    mvda::detail::SetLazySortPieceLimit(0);
    mvda::detail::UseStraightforwardWardList(false);
  }
};

TEST(Clustering, LargerTreesInPiecesMatchTheReferences) {
  std::mt19937 random(99);
  // From 4 columns on, two rows with a hole each still share the k = 2 columns that are needed.
  std::uniform_int_distribution<int> rows(15, 90), columns(4, 7);
  const std::size_t pieces[] = {1, 13, 200, 0};
  for (int set = 0; set < 240; ++set) {
    const bool missing = set % 3 == 1, ties = set % 3 == 2;
    const int n = rows(random);
    const Rows x = RandomRows(random, n, columns(random), missing, ties);
    const NCDataMatrix<float> m = Matrix(x);
    const int type = (set / 3) % 2;
    const Switches switches(pieces[(set / 6) % 4]);
    SCOPED_TRACE(testing::Message() << "set " << set << ", " << n << " rows"
                                    << (missing ? ", missing" : "") << (ties ? ", ties" : "")
                                    << ", type " << type << ", piece " << pieces[(set / 6) % 4]);
    WardDistanceCalculator fast(static_cast<WardDistanceCalculator::DistanceType>(type));
    Tree got{GetDendroGram(m, fast, nullptr, nullptr)};
    mvda::detail::UseStraightforwardWardList(true);
    WardDistanceCalculator plain(static_cast<WardDistanceCalculator::DistanceType>(type));
    Tree want{GetDendroGram(m, plain, nullptr, nullptr)};
    mvda::detail::UseStraightforwardWardList(false);
    ASSERT_TRUE(*got.root == *want.root);
    if (type == 0 && n <= 60) {  // the brute force costs n^3
      SingleLinkageDistanceCalculator single;
      Tree linked{GetDendroGram(m, single, nullptr, nullptr)};
      Tree brute{Build(n, BruteSingleLinkage(x))};
      ASSERT_TRUE(*linked.root == *brute.root) << "single linkage";
    }
  }
}

TEST(Clustering, SmallCasesByHand) {
  // Rows 1 and 3 are identical: distance 0, merged first. Row 2 then joins at the error sum of
  // squares of all three, per column of 0, 0, 4: 16 - 16/3 = 32/3, so 64/3 in all.
  const NCDataMatrix<float> x = Matrix({{0, 0}, {4, 4}, {0, 0}});
  WardDistanceCalculator ward(WardDistanceCalculator::kErrorSumOfSquares);
  Tree t{GetDendroGram(x, ward, nullptr, nullptr)};
  EXPECT_EQ(Heights(*t.root), (std::vector<float>{0.0f, 64.0f / 3}));
  EXPECT_TRUE(t.root->GetLeft()->IsLeaf());  // SortBySize: the single row on the left
  EXPECT_EQ(*t.root->GetLeft()->Items(), std::vector<std::uint32_t>{2});
  // Type 1 takes roots: the first merge of (0,0) and (3,4) is sqrt(25/2).
  WardDistanceCalculator root(WardDistanceCalculator::kRootErrorSumOfSquares);
  Tree r{GetDendroGram(Matrix({{0, 0}, {3, 4}}), root, nullptr, nullptr)};
  EXPECT_FLOAT_EQ(r.root->Height(), std::sqrt(12.5f));
  // One row: a single leaf.
  SingleLinkageDistanceCalculator single;
  Tree one{GetDendroGram(Matrix({{1, 2, 3}}), single, nullptr, nullptr)};
  EXPECT_TRUE(one.root->IsLeaf());
  EXPECT_EQ(ward.GetId(), "WardDistanceCalculator0");
  EXPECT_EQ(root.GetId(), "WardDistanceCalculator1");
  EXPECT_EQ(single.GetId(), "SingleLinkageDistanceCalculator");
}

TEST(Clustering, ThreadCountDoesNotChangeTheTree) {
  const int processors = ThreadingControl::GetNumberOfProcessors();
  const bool on = ThreadingControl::IsThreadingOn();
  std::mt19937 random(5);
  const NCDataMatrix<float> x = Matrix(RandomRows(random, 400, 6, true, false));
  std::vector<DendroGramNode*> trees;
  for (const int p : {1, 2, 3}) {
    ThreadingControl::SetNumberOfProcessors(p);
    ThreadingControl::SetThreadingIsOn(p > 1);
    WardDistanceCalculator ward(WardDistanceCalculator::kErrorSumOfSquares);
    trees.push_back(GetDendroGram(x, ward, nullptr, nullptr));
  }
  ThreadingControl::SetNumberOfProcessors(processors);
  ThreadingControl::SetThreadingIsOn(on);
  EXPECT_TRUE(*trees[0] == *trees[1]);
  EXPECT_TRUE(*trees[0] == *trees[2]);
  for (DendroGramNode* t : trees) t->Destroy();
}

// ---------------------------------------------------------------------------------------------
// The textbook methods on real data (wine, 178 x 13, autoscaled here). Ward by the Lance-Williams
// update of squared Euclidean distances: its merge values D are twice the increase of the error
// sum of squares, so the textbook height sqrt(D) is sqrt(2 h) of our type 0. Single linkage: the
// heights are the edges of the minimum spanning tree (Prim's algorithm).

Rows Wine() {
  const char* folder = std::getenv("MVDA_DATA_DIR");
  const fs::path path = folder ? fs::path(folder) / "wine.csv"
                               : fs::path(__FILE__).parent_path() / "../../data/wine.csv";
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  Rows x;
  while (std::getline(in, line)) {
    std::stringstream fields(line);
    std::string field;
    std::getline(fields, field, ',');  // the sample name
    std::vector<float> row;
    for (int c = 0; c < 13 && std::getline(fields, field, ','); ++c)
      row.push_back(std::stof(field));
    x.push_back(row);
  }
  for (int c = 0; c < 13 && !x.empty(); ++c) {
    double s = 0, q = 0;
    for (const auto& r : x) s += r[c], q += double(r[c]) * r[c];
    const double mean = s / x.size(), sd = std::sqrt((q - s * mean) / (x.size() - 1));
    for (auto& r : x) r[c] = float((r[c] - mean) / sd);
  }
  return x;
}

std::vector<std::vector<double>> SquaredDistances(const Rows& x) {
  const std::size_t n = x.size();
  std::vector<std::vector<double>> d(n, std::vector<double>(n));
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      for (std::size_t c = 0; c < x[i].size(); ++c)
        d[i][j] += (double(x[i][c]) - x[j][c]) * (double(x[i][c]) - x[j][c]);
  return d;
}

std::vector<double> LanceWilliamsWard(const Rows& x) {
  const int n = static_cast<int>(x.size());
  std::vector<std::vector<double>> w = SquaredDistances(x);
  std::vector<double> heights;
  std::vector<int> size(n, 1);
  std::vector<bool> alive(n, true);
  for (int step = 1; step < n; ++step) {
    int bi = -1, bj = -1;
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j)
        if (alive[i] && alive[j] && (bi < 0 || w[i][j] < w[bi][bj])) bi = i, bj = j;
    heights.push_back(std::sqrt(w[bi][bj]));
    for (int k = 0; k < n; ++k) {
      if (!alive[k] || k == bi || k == bj) continue;
      w[bi][k] = w[k][bi] = ((size[bi] + size[k]) * w[bi][k] + (size[bj] + size[k]) * w[bj][k] -
                             size[k] * w[bi][bj]) /
                            (size[bi] + size[bj] + size[k]);
    }
    size[bi] += size[bj];
    alive[bj] = false;
  }
  std::sort(heights.begin(), heights.end());
  return heights;
}

TEST(Clustering, WardAgainstTheTextbookOnWine) {
  const Rows wine = Wine();
  ASSERT_EQ(wine.size(), 178u);
  // Cultivar 1 (the first 59 wines): here the lazy order takes the textbook pair at every merge.
  const Rows first(wine.begin(), wine.begin() + 59);
  const std::vector<double> textbook = LanceWilliamsWard(first);
  WardDistanceCalculator ward(WardDistanceCalculator::kErrorSumOfSquares);
  Tree t{GetDendroGram(Matrix(first), ward, nullptr, nullptr)};
  const std::vector<float> h = Heights(*t.root);
  ASSERT_EQ(h.size(), textbook.size());
  for (std::size_t k = 0; k < h.size(); ++k)
    EXPECT_NEAR(std::sqrt(2.0 * h[k]), textbook[k], 1e-4 * textbook[k]) << k;

  // All 178: from the 85th merge by height on, a stale entry passed over changes the order, so the
  // tree is not the textbook one. Every height must still be the increase of the error sum of
  // squares of the two clusters it joins, nA nB / (nA + nB) |cA - cB|^2 from their centroids, and
  // the tree must be the one the plain lazy list gives.
  WardDistanceCalculator all(WardDistanceCalculator::kErrorSumOfSquares);
  Tree w{GetDendroGram(Matrix(wine), all, nullptr, nullptr)};
  std::list<const DendroGramNode*> nodes;
  w.root->GetNodes(nodes);
  for (const DendroGramNode* node : nodes) {
    if (node->IsLeaf()) continue;
    double na = 0, nb = 0, gap = 0;
    std::vector<double> ca(13), cb(13);
    std::list<int> rows;
    node->GetLeft()->GetLeafs(rows);
    for (const int r : rows)
      na += 1, std::transform(ca.begin(), ca.end(), wine[r - 1].begin(), ca.begin(),
                              std::plus<double>());
    rows.clear();
    node->GetRight()->GetLeafs(rows);
    for (const int r : rows)
      nb += 1, std::transform(cb.begin(), cb.end(), wine[r - 1].begin(), cb.begin(),
                              std::plus<double>());
    for (int c = 0; c < 13; ++c) gap += (ca[c] / na - cb[c] / nb) * (ca[c] / na - cb[c] / nb);
    const double increase = na * nb / (na + nb) * gap;
    EXPECT_NEAR(node->Height(), increase, 1e-4 * increase + 1e-6);
  }
  Tree lazy{Build(178, BruteWard(wine, 0))};
  EXPECT_TRUE(*w.root == *lazy.root);
  EXPECT_GT(std::fabs(std::sqrt(2.0 * Heights(*w.root)[84]) - LanceWilliamsWard(wine)[84]), 1e-3);
}

TEST(Clustering, SingleLinkageIsTheMinimumSpanningTreeOnWine) {
  const Rows wine = Wine();
  const int n = static_cast<int>(wine.size());
  const std::vector<std::vector<double>> d = SquaredDistances(wine);
  std::vector<double> edges, best(n, std::numeric_limits<double>::infinity());
  std::vector<bool> in(n, false);
  best[0] = 0;
  for (int step = 0; step < n; ++step) {
    int v = -1;
    for (int i = 0; i < n; ++i)
      if (!in[i] && (v < 0 || best[i] < best[v])) v = i;
    in[v] = true;
    if (step > 0) edges.push_back(std::sqrt(best[v]));
    for (int i = 0; i < n; ++i)
      if (!in[i]) best[i] = std::min(best[i], d[v][i]);
  }
  std::sort(edges.begin(), edges.end());
  SingleLinkageDistanceCalculator single;
  Tree s{GetDendroGram(Matrix(wine), single, nullptr, nullptr)};
  const std::vector<float> h = Heights(*s.root);
  ASSERT_EQ(h.size(), edges.size());
  for (std::size_t k = 0; k < h.size(); ++k) EXPECT_NEAR(h[k], edges[k], 1e-5 * edges[k]) << k;
}

// ---------------------------------------------------------------------------------------------
// Input checks

std::string ErrorOf(const NCDataMatrix<float>& x, ClusterDistanceCalculator& calc) {
  try {
    Tree t{GetDendroGram(x, calc, nullptr, nullptr)};
  } catch (const NCError& e) {
    return e.what();
  }
  return "";
}

TEST(Clustering, AdmissionOfMissingValues) {
  const std::string too_many =
      "Cluster analysis can not be performed on data that has rows with more than 50% missing "
      "values";
  const std::string too_few =
      "Cluster analysis can not be performed on data where two rows have less than\nthe square "
      "root of the number of columns common non-missing elements.";
  const float M = kMissing;
  struct Case {
    const char* name;
    Rows x;
    std::string error;
  };
  std::vector<float> half(100, 1.0f), over(100, 1.0f);
  std::fill(half.begin(), half.begin() + 50, M);
  std::fill(over.begin(), over.begin() + 51, M);
  const Case cases[] = {
      {"2 of 4 missing is exactly half", {{M, M, 1, 2}, {1, 2, 3, 4}, {2, 2, 2, 2}}, ""},
      {"3 of 4 missing", {{M, M, M, 2}, {1, 2, 3, 4}}, too_many},
      {"50 of 100", {half, std::vector<float>(100, 2.0f)}, ""},
      {"51 of 100", {over, std::vector<float>(100, 2.0f)}, too_many},
      // 10 columns: k = round(sqrt(10)) = 3.
      {"2 common of 10", {{M, M, M, M, 1, 1, 1, 1, 1, 1}, {1, 1, 1, 1, M, M, M, M, 1, 1}}, too_few},
      {"3 common of 10", {{M, M, M, M, 1, 1, 1, 1, 1, 1}, {1, 1, 1, M, M, M, M, 1, 1, 1}}, ""},
      {"a NaN",
       {{1, std::nanf("")}, {1, 2}},
       "DendroGram::GetDendroGram: row 1, column 2 holds a value that is not finite"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SingleLinkageDistanceCalculator single;
    EXPECT_EQ(ErrorOf(Matrix(c.x), single), c.error);
  }
  SingleLinkageDistanceCalculator single;
  EXPECT_EQ(ErrorOf(NCDataMatrix<float>(0, 3, 0.0f), single),
            "DendroGram::GetDendroGram: the data have no rows");
  EXPECT_EQ(ErrorOf(NCDataMatrix<float>(3, 0, 0.0f), single),
            "DendroGram::GetDendroGram: the data have no columns");
}

TEST(Clustering, TooManyRowsAndTooLittleMemory) {
  const std::string text =
      "Memory allocation error.\nWhen doing cluster analysis, a total of N*(N-1)/2 initial "
      "distances are calculated. In this case, enough RAM to hold these distances could not be "
      "allocated (N=65536). ";
  SingleLinkageDistanceCalculator single;
  const NCDataMatrix<float> big(65536, 1, 0.0f);
  try {
    Tree t{GetDendroGram(big, single, nullptr, nullptr)};
    ADD_FAILURE() << "no exception";
  } catch (const ClusterAllocationError&) {
    ADD_FAILURE() << "the row count is not an allocation failure that the disk could cure";
  } catch (const NCError& e) {
    EXPECT_EQ(e.what(), text);
  }
  // Ward has no disk store: a list over the limit is an error.
  SetDistanceListMemoryLimit(100);  // 3 rows need 36 bytes, 10 rows 540
  WardDistanceCalculator ward(WardDistanceCalculator::kErrorSumOfSquares);
  EXPECT_NO_THROW(Tree{GetDendroGram(Matrix({{1}, {2}, {4}}), ward, nullptr, nullptr)});
  EXPECT_THROW(Tree{GetDendroGram(Matrix(Rows(10, {1.0f})), ward, nullptr, nullptr)},
               ClusterAllocationError);
  SetDistanceListMemoryLimit(0);
}

// A reporter that asks to stop at the k-th IsBreakPressed.
class StopAt : public NCProgress {
 public:
  explicit StopAt(int k) : left_(k) {}
  bool IsBreakPressed() override { return --left_ == 0; }

 private:
  int left_;
};

TEST(Clustering, BreakDuringMergingAborts) {
  std::mt19937 random(3);
  const NCDataMatrix<float> x = Matrix(RandomRows(random, 30, 3, false, false));
  StopAt stop(5);
  WardDistanceCalculator ward(WardDistanceCalculator::kErrorSumOfSquares);
  try {
    Tree t{GetDendroGram(x, ward, &stop, nullptr)};
    ADD_FAILURE() << "no exception";
  } catch (const NCError& e) {
    EXPECT_STREQ(e.what(), "Cluster analysis aborted.");
  }
}

// ---------------------------------------------------------------------------------------------
// The disk store. Each test gets a temporary directory of its own, so that it can see which files
// the store leaves behind.

class DiskStore : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* old = std::getenv("TMPDIR");
    old_ = old ? old : "";
    had_ = old != nullptr;
    std::random_device seed;
    folder_ = fs::temp_directory_path() / ("mvda-cluster-" + std::to_string(seed()));
    fs::create_directories(folder_);
    setenv("TMPDIR", folder_.c_str(), 1);
    UserComm::GetUserComm().SetInformationHandler(
        [this](const std::string& caption, const std::string& text) {
          info_ = caption + ": " + text;
        });
  }
  void TearDown() override {
    SetDistanceListMemoryLimit(0);
    TwSetDiskFreeSpaceQuery({});
    UserComm::GetUserComm().SetQuestionHandler({});
    UserComm::GetUserComm().SetInformationHandler({});
    if (had_)
      setenv("TMPDIR", old_.c_str(), 1);
    else
      unsetenv("TMPDIR");
    fs::remove_all(folder_);
  }
  int StoreFiles() const {
    int count = 0;
    for (const auto& f : fs::directory_iterator(folder_)) {
      const std::string name = f.path().filename().string();
      count += name.rfind("ncd-", 0) == 0 && f.path().extension() == ".clu";
    }
    return count;
  }

  fs::path folder_;
  std::string info_;
  std::string old_;
  bool had_ = false;
};

TEST_F(DiskStore, GivesTheSameTreeAsMemory) {
  std::mt19937 random(17);
  struct Case {
    const char* name;
    Rows x;
    std::uint64_t limit;
  };
  const Case cases[] = {
      // 300 rows: 44850 pairs; a limit of an eighth gives a segment of 5606 records and 17 bands.
      {"gaussian, an eighth", RandomRows(random, 300, 5, true, false), 44850 * 12 / 8},
      // Few distinct distances: bands of equal distances are cut by rows.
      {"ties, a tenth", RandomRows(random, 200, 3, false, true), 19900 * 12 / 10},
      {"a segment of two records", RandomRows(random, 30, 2, false, false), 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const NCDataMatrix<float> x = Matrix(c.x);
    SingleLinkageDistanceCalculator memory;
    Tree want{GetDendroGram(x, memory, nullptr, nullptr)};
    ASSERT_EQ(memory.GetDiskStore(), nullptr);
    SetDistanceListMemoryLimit(c.limit);
    {
      NCProgress progress;
      SingleLinkageDistanceCalculator disk;
      Tree got{GetDendroGram(x, disk, &progress, nullptr)};
      SetDistanceListMemoryLimit(0);
      ASSERT_NE(disk.GetDiskStore(), nullptr);
      EXPECT_LE(disk.GetDiskStore()->SegmentCapacity() * 12, std::max<std::uint64_t>(c.limit, 24));
      EXPECT_GT(disk.GetDiskStore()->GetRepartitionCount(), 0);
      EXPECT_TRUE(*got.root == *want.root);
      EXPECT_NE(info_.find("The disk ('" + folder_.string() + "') will be used"),
                std::string::npos);
    }
    EXPECT_EQ(StoreFiles(), 0);  // released with the calculator
  }
}

TEST_F(DiskStore, UserDeclinesTheDisk) {
  std::mt19937 random(1);
  const NCDataMatrix<float> x = Matrix(RandomRows(random, 40, 2, false, false));
  struct Case {
    std::uintmax_t free;
    const char* sizes;  // 780 pairs need 780 * 24 = 18720 bytes
  };
  const Case cases[] = {
      {1000,
       "needs 18720.000 bytes of free space on the disk where Velda stores temporary files "
       "('%s'). The free space on the disk is currently 1000.000 bytes."},
      // Both above 1024 once: 18720/1024 and 5000/1024.
      {5000,
       "needs 18.281 Kilobytes of free space on the disk where Velda stores temporary files "
       "('%s'). The free space on the disk is currently 4.883 Kilobytes."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.free);
    TwSetDiskFreeSpaceQuery([&](const fs::path&, std::uintmax_t& bytes) {
      bytes = c.free;
      return true;
    });
    std::string asked;
    int kind = 0;
    UserComm::GetUserComm().SetQuestionHandler(
        [&](int k, const std::string& caption, const std::string& text) {
          kind = k;
          asked = caption + ": " + text;
          return UserComm::kAnswerAbort;
        });
    SetDistanceListMemoryLimit(100);
    SingleLinkageDistanceCalculator single;
    EXPECT_EQ(ErrorOf(x, single), "Cluster analysis aborted.");
    EXPECT_EQ(kind, 3);
    std::string sizes = c.sizes;
    sizes.replace(sizes.find("%s"), 2, folder_.string());
    EXPECT_EQ(asked,
              "Cluster Analysis: When doing cluster analysis, a total of N*(N-1)/2 initial "
              "distances are calculated. In this case, enough RAM to hold these distances could "
              "not be allocated (N=40). Velda can use your disk to store these numbers but it " +
                  sizes +
                  " Please make sure that there is enough free space on the disk.\nDo you want to "
                  "continue?");
    EXPECT_EQ(StoreFiles(), 0);
  }
  // Going on anyway works.
  UserComm::GetUserComm().SetQuestionHandler(
      [](int, const std::string&, const std::string&) { return UserComm::kAnswerContinue; });
  SingleLinkageDistanceCalculator single;
  EXPECT_EQ(ErrorOf(x, single), "");
  EXPECT_NE(single.GetDiskStore(), nullptr);
}

TEST_F(DiskStore, BreakWhileSavingRemovesTheFiles) {
  std::mt19937 random(9);
  const NCDataMatrix<float> x = Matrix(RandomRows(random, 100, 2, false, false));
  SetDistanceListMemoryLimit(1000);
  StopAt stop(100);
  SingleLinkageDistanceCalculator single;
  try {
    Tree t{GetDendroGram(x, single, &stop, nullptr)};
    ADD_FAILURE() << "no exception";
  } catch (const NCError& e) {
    EXPECT_STREQ(e.what(), "Cluster analysis aborted");  // the one text without a full stop
  }
  EXPECT_EQ(StoreFiles(), 0);
}

// ---------------------------------------------------------------------------------------------
// The cache

class CountingWard : public WardDistanceCalculator {
 public:
  using WardDistanceCalculator::WardDistanceCalculator;
  void Init(const NCDataMatrix<float>& data, NCProgress* progress) override {
    ++inits;
    WardDistanceCalculator::Init(data, progress);
  }
  int inits = 0;
};

TEST_F(DiskStore, CacheReturnsTheStoredTree) {
  EXPECT_EQ(MD5().HexDigest(), "d41d8cd98f00b204e9800998ecf8427e");  // RFC 1321 test suite
  MD5 abc;
  abc.Update("abc");
  EXPECT_EQ(abc.HexDigest(), "900150983cd24fb0d6963f7d28e17f72");

  std::mt19937 random(4);
  const Rows rows = RandomRows(random, 12, 5, true, false);
  const NCDataMatrix<float> x = Matrix(rows);
  TwFolderStreamSource cache(folder_ / "cache");
  CountingWard first(WardDistanceCalculator::kErrorSumOfSquares);
  Tree computed{GetDendroGram(x, first, nullptr, &cache)};
  // The name: rows, columns, and the digest of the row bytes followed by the calculator's id.
  MD5 digest;
  for (const auto& r : rows) digest.Update(r.data(), r.size() * sizeof(float));
  digest.Update("WardDistanceCalculator0");
  const fs::path file = folder_ / "cache" / ("Dendro_12_5_" + digest.HexDigest());
  ASSERT_TRUE(fs::exists(file));

  CountingWard second(WardDistanceCalculator::kErrorSumOfSquares);
  Tree cached{GetDendroGram(x, second, nullptr, &cache)};
  EXPECT_EQ(second.inits, 0);
  EXPECT_TRUE(*cached.root == *computed.root);

  CountingWard other(WardDistanceCalculator::kRootErrorSumOfSquares);
  Tree rooted{GetDendroGram(x, other, nullptr, &cache)};
  EXPECT_EQ(other.inits, 1);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_ / "cache"), fs::directory_iterator()), 2);

  // A damaged entry is computed again and replaced.
  std::ofstream(file, std::ios::binary | std::ios::trunc) << "Dendro but not quite";
  CountingWard third(WardDistanceCalculator::kErrorSumOfSquares);
  Tree again{GetDendroGram(x, third, nullptr, &cache)};
  EXPECT_EQ(third.inits, 1);
  EXPECT_TRUE(*again.root == *computed.root);
  CountingWard fourth(WardDistanceCalculator::kErrorSumOfSquares);
  Tree reread{GetDendroGram(x, fourth, nullptr, &cache)};
  EXPECT_EQ(fourth.inits, 0);
}

TEST(Clustering, ChainOfPointsOnALine) {
  // Single linkage on points 0, 1, 3, 6, ... (gaps growing by one) joins each point to the chain
  // of all before it, at the gap: a tree as deep as it is wide.
  constexpr int kRows = 1500;
  Rows x(kRows, std::vector<float>(1));
  for (int i = 1; i < kRows; ++i) x[i][0] = x[i - 1][0] + float(i);
  SingleLinkageDistanceCalculator single;
  Tree t{GetDendroGram(Matrix(x), single, nullptr, nullptr)};
  int depth = 0;
  for (const DendroGramNode* n = t.root; !n->IsLeaf(); n = n->GetRight(), ++depth) {
    ASSERT_TRUE(n->GetLeft()->IsLeaf());  // SortBySize puts the single row left
    EXPECT_EQ(n->Height(), float(kRows - 1 - depth));
  }
  EXPECT_EQ(depth, kRows - 1);
}

}  // namespace
