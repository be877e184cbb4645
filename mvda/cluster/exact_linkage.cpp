// DendroGram::GetExactDendroGram: the nearest-neighbour chain (Ward, average, complete, weighted)
// and Prim's minimum spanning tree (single), computing distances from the rows as they are needed.
#include <mvda/cluster/detail/admission.h>
#include <mvda/cluster/exact_linkage.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/containers/detail/simd_clones.h>
#include <mvda/platform/error.h>
#include <mvda/platform/progress.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace DendroGram {
namespace {

constexpr float kMissing = -99.0f;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// ---------------------------------------------------------------------------------------------
// Points in tiles: kLanes points side by side, column after column, so that the distances of one
// point to kLanes others come out of one pass over its columns in vector registers. Each distance
// is still summed column by column in order, so it is the same number whichever tile or lane the
// point sits in, and d(x, y) == d(y, x) to the bit.

constexpr int kLanes = 8;
// Half a tile: four doubles, one AVX2 register (two SSE2 ones).
typedef double Quad __attribute__((vector_size(4 * sizeof(double))));
typedef std::int64_t QuadMask __attribute__((vector_size(4 * sizeof(double))));

class Tiles {
 public:
  Tiles(int columns, bool complete) : columns_(columns), complete_(complete) {}
  int Size() const { return size_; }
  int TileCount() const { return (size_ + kLanes - 1) / kLanes; }
  // Room for `count` points, all NaN (missing).
  void Resize(int count) {
    size_ = count;
    values_.assign(static_cast<std::size_t>(TileCount()) * columns_ * kLanes,
                   std::numeric_limits<double>::quiet_NaN());
  }
  void Set(int p, const double* x) {
    double* at = Slot(p);
    for (int c = 0; c < columns_; ++c) at[c * kLanes] = x[c];
  }
  double Get(int p, int c) const { return Slot(p)[c * kLanes]; }
  // Moves the last point to position p and drops the last position.
  void RemoveByLast(int p) {
    const int last = size_ - 1;
    if (p != last) {
      double* to = Slot(p);
      const double* from = Slot(last);
      for (int c = 0; c < columns_; ++c) to[c * kLanes] = from[c * kLanes];
    }
    double* at = Slot(last);
    for (int c = 0; c < columns_; ++c) at[c * kLanes] = std::numeric_limits<double>::quiet_NaN();
    --size_;
  }
  // Squared distances of x to the points of tiles [first, last) into out[kLanes first ...]; see
  // SquaredToTiles.
  void Squared(const double* x, bool x_complete, int first, int last, double* out,
               const double* sizes = nullptr, double na = 0.0) const;

 private:
  double* Slot(int p) {
    return values_.data() + static_cast<std::size_t>(p / kLanes) * columns_ * kLanes + p % kLanes;
  }
  const double* Slot(int p) const {
    return values_.data() + static_cast<std::size_t>(p / kLanes) * columns_ * kLanes + p % kLanes;
  }

  int columns_;
  bool complete_;  // no point holds a missing value (NaN)
  int size_ = 0;
  std::vector<double> values_;
};

// Per lane: the sum over the columns that x and the point both have (missing values are NaN) of
// (x_c - y_c)^2 in double, scaled by columns / common when some but not all are common, 0 when
// none is. Lanes past the last point read as missing and give 0.
// With `sizes` (per point, tile-aligned), each result is multiplied by Ward's factor
// 2 na nc / (na + nc), nc the point's size: products and sums of counts are exact in double, so
// the factor, like the rest, is the same whichever of two clusters is searched from.
MVDA_AVX2_CLONES void SquaredToTiles(const double* x, bool complete, const double* tiles,
                                     int columns, int first, int last, const double* sizes,
                                     double na, double* out) {
  const std::size_t stride = static_cast<std::size_t>(columns) * kLanes;
  const Quad zero = {};
  const Quad one = zero + 1.0;
  const Quad width = zero + static_cast<double>(columns);
  for (int t = first; t < last; ++t) {
    const double* tile = tiles + t * stride;
    Quad s0 = {}, s1 = {};
    if (complete) {
      for (int c = 0; c < columns; ++c) {
        Quad y0, y1;
        std::memcpy(&y0, tile + c * kLanes, sizeof y0);
        std::memcpy(&y1, tile + c * kLanes + 4, sizeof y1);
        const Quad d0 = x[c] - y0, d1 = x[c] - y1;
        s0 += d0 * d0;
        s1 += d1 * d1;
      }
    } else {
      Quad n0 = {}, n1 = {};
      for (int c = 0; c < columns; ++c) {
        Quad y0, y1;
        std::memcpy(&y0, tile + c * kLanes, sizeof y0);
        std::memcpy(&y1, tile + c * kLanes + 4, sizeof y1);
        const double xc = x[c];
        const QuadMask x_present = xc == xc ? QuadMask{} - 1 : QuadMask{};
        const QuadMask p0 = (y0 == y0) & x_present, p1 = (y1 == y1) & x_present;
        const Quad d0 = xc - y0, d1 = xc - y1;
        s0 += p0 ? d0 * d0 : zero;
        s1 += p1 ? d1 * d1 : zero;
        n0 += p0 ? one : zero;
        n1 += p1 ? one : zero;
      }
      s0 = n0 > 0.0 && n0 < width ? s0 * (width / (n0 > 0.0 ? n0 : one)) : s0;
      s1 = n1 > 0.0 && n1 < width ? s1 * (width / (n1 > 0.0 ? n1 : one)) : s1;
    }
    if (sizes) {
      Quad c0, c1;
      std::memcpy(&c0, sizes + static_cast<std::size_t>(t) * kLanes, sizeof c0);
      std::memcpy(&c1, sizes + static_cast<std::size_t>(t) * kLanes + 4, sizeof c1);
      s0 *= 2.0 * na * c0 / (na + c0);
      s1 *= 2.0 * na * c1 / (na + c1);
    }
    std::memcpy(out + static_cast<std::size_t>(t) * kLanes, &s0, sizeof s0);
    std::memcpy(out + static_cast<std::size_t>(t) * kLanes + 4, &s1, sizeof s1);
  }
}

void Tiles::Squared(const double* x, bool x_complete, int first, int last, double* out,
                    const double* sizes, double na) const {
  SquaredToTiles(x, complete_ && x_complete, values_.data(), columns_, first, last, sizes, na, out);
}

// The rows as doubles, a missing value as NaN, row-major.
struct Points {
  int rows = 0, columns = 0;
  bool complete = true;
  std::vector<double> values;
  std::vector<char> row_complete;

  explicit Points(const NCDataMatrix<float>& data)
      : rows(data.SizeRows()), columns(data.SizeColumns()) {
    values.resize(static_cast<std::size_t>(rows) * columns);
    row_complete.assign(rows, 1);
    for (int i = 0; i < rows; ++i) {
      const float* x = data[i + 1].begin();
      for (int c = 0; c < columns; ++c) {
        const bool gap = x[c] == kMissing;
        values[static_cast<std::size_t>(i) * columns + c] =
            gap ? std::numeric_limits<double>::quiet_NaN() : static_cast<double>(x[c]);
        if (gap) row_complete[i] = 0, complete = false;
      }
    }
  }
  const double* Row(int i) const { return values.data() + static_cast<std::size_t>(i) * columns; }
};

// ---------------------------------------------------------------------------------------------
// Merges and the tree.

struct MergeRecord {
  int a, b;  // a row of each cluster (0-based)
  double height;
};

// Reports every 64 merges; a stop throws.
class Progress {
 public:
  Progress(NCProgress* progress, int rows) : progress_(progress) {
    if (progress_) {
      progress_->SetText("Merging clusters");
      progress_->SetRange(0, rows > 1 ? rows - 1 : 1);
    }
  }
  void Merged(int merges) {
    if (!progress_ || merges % 64 != 0) return;
    if (!progress_->SetValue(merges))
      throw NCError("Cluster analysis aborted.", NCError::kStopRequested);
    if (progress_->IsBreakPressed()) throw NCError("Cluster analysis aborted.", NCError::kUserStop);
  }

 private:
  NCProgress* progress_;
};

// Owns the nodes of a tree being built, so that they are freed when building is abandoned.
class NodeOwner {
 public:
  explicit NodeOwner(int n) : nodes_(n, nullptr) {}
  NodeOwner(const NodeOwner&) = delete;
  NodeOwner& operator=(const NodeOwner&) = delete;
  ~NodeOwner() {
    for (DendroGramNode* node : nodes_) DendroGramNode::DestroyNode(node);
  }
  DendroGramNode*& operator[](int i) { return nodes_[i]; }

 private:
  std::vector<DendroGramNode*> nodes_;
};

int Find(std::vector<int>& parent, int i) {
  while (parent[i] != i) i = parent[i] = parent[parent[i]];
  return i;
}

// The tree of the merges taken in order of height (a stable sort: merges of equal height keep
// the order in which they were made, which puts every merge after those that made its clusters).
DendroGramNode* BuildTree(int n, std::vector<MergeRecord>& merges) {
  std::stable_sort(merges.begin(), merges.end(),
                   [](const MergeRecord& x, const MergeRecord& y) { return x.height < y.height; });
  NodeOwner nodes(n);
  for (int i = 0; i < n; ++i) nodes[i] = new DendroGramNode(i + 1);
  std::vector<int> parent(n);
  std::iota(parent.begin(), parent.end(), 0);
  for (const MergeRecord& m : merges) {
    const int a = Find(parent, m.a), b = Find(parent, m.b);
    if (a == b) throw NCError("Internal error in DendroGram::GetExactDendroGram");
    DendroGramNode* joined = new DendroGramNode(static_cast<float>(m.height), nodes[a], nodes[b]);
    nodes[a] = nodes[b] = nullptr;
    const int root = std::min(a, b);
    parent[a] = parent[b] = root;
    nodes[root] = joined;
  }
  DendroGramNode* root = nodes[Find(parent, 0)];
  nodes[Find(parent, 0)] = nullptr;
  root->SortBySize();
  return root;
}

// ---------------------------------------------------------------------------------------------
// Single linkage: Prim's algorithm. The rows not yet in the tree sit in tiles; every step
// measures the row just added against them, piece by piece.

constexpr int kPrimTilesPerPiece = 64;

std::vector<MergeRecord> SingleLinkage(const Points& points, Progress& progress) {
  const int n = points.rows;
  std::vector<MergeRecord> merges;
  merges.reserve(n > 0 ? n - 1 : 0);
  Tiles rest(points.columns, points.complete);
  rest.Resize(n - 1);
  std::vector<int> row(n - 1);
  std::vector<int> nearest(n - 1, 0);          // the tree row closest to position p
  std::vector<double> best(n - 1, kInfinity);  // its squared distance
  for (int p = 0; p < n - 1; ++p) {
    row[p] = p + 1;
    rest.Set(p, points.Row(p + 1));
  }
  std::vector<double> out(static_cast<std::size_t>(rest.TileCount()) * kLanes);
  struct Candidate {
    double distance;
    int p;
  };
  std::vector<Candidate> piece_best;
  int added = 0;  // the row last taken into the tree
  for (int step = 1; step < n; ++step) {
    const int m = rest.Size();
    const int tiles = rest.TileCount();
    const int pieces = (tiles + kPrimTilesPerPiece - 1) / kPrimTilesPerPiece;
    piece_best.assign(pieces, {kInfinity, -1});
    const double* x = points.Row(added);
    const bool x_complete = points.row_complete[added] != 0;
    mvda::detail::ParallelFor(pieces, [&](int k) {
      const int first = k * kPrimTilesPerPiece, last = std::min(tiles, first + kPrimTilesPerPiece);
      rest.Squared(x, x_complete, first, last, out.data());
      Candidate local{kInfinity, -1};
      for (int p = first * kLanes; p < std::min(m, last * kLanes); ++p) {
        if (out[p] < best[p]) best[p] = out[p], nearest[p] = added;
        if (local.p < 0 || best[p] < local.distance) local = {best[p], p};
      }
      piece_best[k] = local;
    });
    Candidate take{kInfinity, -1};
    for (const Candidate& c : piece_best)
      if (c.p >= 0 && (take.p < 0 || c.distance < take.distance)) take = c;
    const int p = take.p;
    merges.push_back({nearest[p], row[p], std::sqrt(take.distance)});
    added = row[p];
    rest.RemoveByLast(p);
    row[p] = row[m - 1];
    nearest[p] = nearest[m - 1];
    best[p] = best[m - 1];
    progress.Merged(step);
  }
  return merges;
}

// ---------------------------------------------------------------------------------------------
// The nearest-neighbour chain. The active clusters sit in positions 0 .. m-1 (a merged cluster
// keeps one position, the other is filled with the last); a cluster is named by its slot, the
// smallest row it holds (0-based), which a merge keeps: the smaller of its parts' slots.

// What a criterion must offer the chain: the distance of two active clusters, symmetric to the
// bit, and a merge.
class ChainCriterion {
 public:
  virtual ~ChainCriterion() = default;
  // d[p] for every active position p (other than that of slot a, whose entry is left alone) into
  // d[0 .. active - 1]; returns the position of the smallest, the first one on a tie.
  virtual int DistancesFrom(int a, std::vector<double>& d) = 0;
  // Merges the cluster of slot b into that of slot a (a < b); the merge height as stored.
  virtual double Merge(int a, int b) = 0;
  virtual int Active() const = 0;
  virtual int SlotAt(int p) const = 0;
  virtual int PositionOf(int slot) const = 0;
};

// The smallest of each piece's d[first .. end) (skipping position `own`), the first on a tie,
// combined over the pieces in order: the same position for any thread count.
class PieceMinima {
 public:
  void Reset(int pieces) { best_.assign(pieces, -1); }
  void Scan(int piece, const std::vector<double>& d, int first, int end, int own) {
    int best = -1;
    double value = kInfinity;  // distances are finite
    for (int p = first; p < end; ++p) {
      const double v = d[p];
      if (v < value && p != own) value = v, best = p;
    }
    best_[piece] = best;
  }
  int Best(const std::vector<double>& d) const {
    int best = -1;
    for (const int p : best_)
      if (p >= 0 && (best < 0 || d[p] < d[best])) best = p;
    return best;
  }

 private:
  std::vector<int> best_;
};

// Active positions and slots, kept in step.
class ActiveSet {
 public:
  explicit ActiveSet(int n) : slot_(n), position_(n) {
    std::iota(slot_.begin(), slot_.end(), 0);
    std::iota(position_.begin(), position_.end(), 0);
  }
  int Size() const { return static_cast<int>(slot_.size()); }
  int SlotAt(int p) const { return slot_[p]; }
  int PositionOf(int slot) const { return position_[slot]; }
  // Drops slot's position by moving the last one in; returns the position that was emptied and
  // refilled (the caller moves its per-position data the same way).
  int Remove(int slot) {
    const int p = position_[slot], last = Size() - 1;
    slot_[p] = slot_[last];
    position_[slot_[p]] = p;
    slot_.pop_back();
    position_[slot] = -1;
    return p;
  }

 private:
  std::vector<int> slot_, position_;
};

// Ward's criterion on complete data from the cluster centroids: d(A, B) = 2 |A||B| / (|A| + |B|)
// times the squared distance of the centroids, which is the square of the stored height.
class WardCentroids : public ChainCriterion {
 public:
  static constexpr int kTilesPerPiece = 128;

  explicit WardCentroids(const Points& points)
      : points_(points), active_(points.rows), centroids_(points.columns, true) {
    const int n = points.rows;
    centroids_.Resize(n);
    for (int i = 0; i < n; ++i) centroids_.Set(i, points.Row(i));
    size_.assign(static_cast<std::size_t>(centroids_.TileCount()) * kLanes, 0.0);
    std::fill(size_.begin(), size_.begin() + n, 1.0);
    own_.resize(points.columns);
  }
  int Active() const override { return active_.Size(); }
  int SlotAt(int p) const override { return active_.SlotAt(p); }
  int PositionOf(int slot) const override { return active_.PositionOf(slot); }

  int DistancesFrom(int a, std::vector<double>& d) override {
    const int pa = active_.PositionOf(a);
    for (int c = 0; c < points_.columns; ++c) own_[c] = centroids_.Get(pa, c);
    const double na = size_[pa];
    const int tiles = centroids_.TileCount();
    const int pieces = (tiles + kTilesPerPiece - 1) / kTilesPerPiece;
    minima_.Reset(pieces);
    mvda::detail::ParallelFor(pieces, [&](int k) {
      const int first = k * kTilesPerPiece, last = std::min(tiles, first + kTilesPerPiece);
      centroids_.Squared(own_.data(), true, first, last, d.data(), size_.data(), na);
      const int end = std::min(Active(), last * kLanes);
      minima_.Scan(k, d, first * kLanes, end, pa);
    });
    return minima_.Best(d);
  }

  double Merge(int a, int b) override {
    const int pa = active_.PositionOf(a), pb = active_.PositionOf(b);
    const double na = size_[pa], nb = size_[pb];
    double s = 0.0;
    for (int c = 0; c < points_.columns; ++c) {
      const double d = centroids_.Get(pa, c) - centroids_.Get(pb, c);
      s += d * d;
    }
    const double height = std::sqrt(2.0 * na * nb / (na + nb) * s);
    for (int c = 0; c < points_.columns; ++c)
      own_[c] = (na * centroids_.Get(pa, c) + nb * centroids_.Get(pb, c)) / (na + nb);
    centroids_.Set(pa, own_.data());
    size_[pa] = na + nb;
    const int last = active_.Size() - 1;
    const int p = active_.Remove(b);
    size_[p] = size_[last];
    size_[last] = 0.0;
    centroids_.RemoveByLast(pb);
    return height;
  }

 private:
  const Points& points_;
  ActiveSet active_;
  Tiles centroids_;
  std::vector<double> size_;  // per position
  std::vector<double> own_;   // the centroid searched from
  PieceMinima minima_;
};

// Average, complete, weighted, and Ward with missing values: from the rows of both clusters.
// Members are chained lists (next row, -1 at the end). A sum over the pairs of two clusters runs
// with the cluster of the smaller slot outside, so that d(A, B) and d(B, A) are the same number.
class RowByRow : public ChainCriterion {
 public:
  static constexpr int kClustersPerPiece = 16;
  static constexpr int kRowTilesPerPiece = 64;

  RowByRow(const Points& points, ExactLinkage linkage)
      : points_(points),
        linkage_(linkage),
        active_(points.rows),
        next_(points.rows, -1),
        last_(points.rows),
        size_(points.rows, 1),
        weight_(points.rows, 1.0),
        pair_sum_(points.rows, 0.0),
        members_(points.columns, points.complete),
        cache_(std::max(8, std::min(64, points.columns))),
        changed_(points.rows, 0),
        all_(points.columns, points.complete) {
    std::iota(last_.begin(), last_.end(), 0);
    all_.Resize(points.rows);
    for (int i = 0; i < points.rows; ++i) all_.Set(i, points.Row(i));
    from_row_.resize(static_cast<std::size_t>(all_.TileCount()) * kLanes);
  }
  int Active() const override { return active_.Size(); }
  int SlotAt(int p) const override { return active_.SlotAt(p); }
  int PositionOf(int slot) const override { return active_.PositionOf(slot); }

  int DistancesFrom(int a, std::vector<double>& d) override {
    Gather(a);
    const int m = Active(), pa = active_.PositionOf(a);
    long stamp = -1;  // entries of clusters unchanged since then are still right
    CachedRow* row = Row(a, stamp);
    const bool single = size_[a] == 1;
    if (single) {
      // A single row: its distances to all rows first, eight at a time.
      const int tiles = all_.TileCount();
      mvda::detail::ParallelFor((tiles + kRowTilesPerPiece - 1) / kRowTilesPerPiece, [&](int k) {
        const int first = k * kRowTilesPerPiece;
        all_.Squared(points_.Row(a), points_.row_complete[a] != 0, first,
                     std::min(tiles, first + kRowTilesPerPiece), from_row_.data());
      });
    }
    const int pieces = (m + kClustersPerPiece - 1) / kClustersPerPiece;
    minima_.Reset(pieces);
    mvda::detail::ParallelFor(pieces, [&](int k) {
      std::vector<double> scratch;
      const int end = std::min(m, (k + 1) * kClustersPerPiece);
      for (int p = k * kClustersPerPiece; p < end; ++p) {
        if (p == pa) continue;
        const int c = active_.SlotAt(p);
        if (row && changed_[c] <= stamp) {
          d[p] = row->value[c];
          continue;
        }
        if (single) {
          d[p] = Linkage(a, c, AggregateFromRow(a, c));
          continue;
        }
        if (scratch.empty())
          scratch.resize(static_cast<std::size_t>(members_.TileCount()) * kLanes * 2);
        d[p] = Linkage(a, c, Aggregate(a, c, scratch));
        if (row) row->value[c] = d[p];
      }
      minima_.Scan(k, d, k * kClustersPerPiece, end, pa);
    });
    if (row) row->stamp = merges_;
    return minima_.Best(d);
  }

  double Merge(int a, int b) override {
    Gather(a);
    std::vector<double> scratch(static_cast<std::size_t>(members_.TileCount()) * kLanes * 2);
    const double aggregate = Aggregate(a, b, scratch);
    const double d = Linkage(a, b, aggregate);
    if (linkage_ == ExactLinkage::kWard) pair_sum_[a] += pair_sum_[b] + aggregate;
    if (linkage_ == ExactLinkage::kWeighted) {
      for (int i = a; i >= 0; i = next_[i]) weight_[i] *= 0.5;
      for (int i = b; i >= 0; i = next_[i]) weight_[i] *= 0.5;
    }
    next_[last_[a]] = b;
    last_[a] = last_[b];
    size_[a] += size_[b];
    active_.Remove(b);
    gathered_ = -1;
    for (CachedRow& row : cache_)
      if (row.slot == a || row.slot == b) row.slot = -1;
    changed_[a] = ++merges_;
    return linkage_ == ExactLinkage::kWard ? std::sqrt(std::max(d, 0.0)) : d;
  }

 private:
  // Rows of distances kept for the largest clusters searched from (the cluster by slot, each entry
  // by slot): the same cluster at the head of the chain again and again then costs only its
  // distances to the clusters that changed since. The values are those computed afresh, so the
  // tree is the same with or without them.
  struct CachedRow {
    int slot = -1;  // -1: free
    long stamp = 0;
    std::vector<double> value;
  };

  // The row of slot a and its stamp (-1 for a row just claimed, nothing in it yet), or null when
  // a is smaller than every cached cluster (or a single row).
  CachedRow* Row(int a, long& stamp) {
    CachedRow* victim = nullptr;
    for (CachedRow& row : cache_) {
      if (row.slot == a) {
        stamp = row.stamp;
        return &row;
      }
      if (!victim || (victim->slot >= 0 && (row.slot < 0 || size_[row.slot] < size_[victim->slot])))
        victim = &row;
    }
    if (size_[a] < 2 || (victim->slot >= 0 && size_[victim->slot] >= size_[a])) return nullptr;
    victim->slot = a;
    victim->value.resize(size_.size());
    stamp = -1;
    return victim;
  }

  // The members of slot a into the tiles, in list order.
  void Gather(int a) {
    if (gathered_ == a) return;
    members_.Resize(size_[a]);
    int p = 0;
    for (int i = a; i >= 0; i = next_[i]) members_.Set(p++, points_.Row(i));
    gathered_ = a;
  }

  // The criterion's sum (or maximum) over the pairs of a's rows (gathered) and c's rows.
  double Aggregate(int a, int c, std::vector<double>& scratch) const {
    const int tiles = members_.TileCount(), na = size_[a];
    double* dist = scratch.data();
    double* inner = scratch.data() + static_cast<std::size_t>(tiles) * kLanes;
    const bool a_outside = a < c;
    if (a_outside) std::fill(inner, inner + na, 0.0);
    double total = 0.0;
    for (int y = c; y >= 0; y = next_[y]) {
      members_.Squared(points_.Row(y), points_.row_complete[y] != 0, 0, tiles, dist);
      double row_total = 0.0;
      int x = a;
      for (int l = 0; l < na; ++l, x = next_[x]) {
        double v = dist[l];
        switch (linkage_) {
          case ExactLinkage::kWard:
            break;
          case ExactLinkage::kWeighted:
            v = std::sqrt(v) * (weight_[x] * weight_[y]);
            break;
          default:
            v = std::sqrt(v);
        }
        if (linkage_ == ExactLinkage::kComplete) {
          total = std::max(total, v);
        } else if (a_outside) {
          inner[l] += v;
        } else {
          row_total += v;
        }
      }
      if (linkage_ != ExactLinkage::kComplete && !a_outside) total += row_total;
    }
    if (linkage_ != ExactLinkage::kComplete && a_outside)
      for (int l = 0; l < na; ++l) total += inner[l];
    return total;
  }

  // Aggregate for a single row a from its distances in from_row_: the same terms in the same
  // order (c's rows in list order), so the same number.
  double AggregateFromRow(int a, int c) const {
    double total = 0.0;
    for (int y = c; y >= 0; y = next_[y]) {
      double v = from_row_[y];
      switch (linkage_) {
        case ExactLinkage::kWard:
          break;
        case ExactLinkage::kWeighted:
          v = std::sqrt(v) * (weight_[a] * weight_[y]);
          break;
        default:
          v = std::sqrt(v);
      }
      total = linkage_ == ExactLinkage::kComplete ? std::max(total, v) : total + v;
    }
    return total;
  }

  double Linkage(int a, int c, double aggregate) const {
    const double na = size_[a], nc = size_[c];
    switch (linkage_) {
      case ExactLinkage::kAverage:
        return aggregate / (na * nc);
      case ExactLinkage::kWard: {
        // Lance-Williams Ward on squared distances, written through the sums of squared
        // distances between and within the clusters (pairs within counted once).
        const double within = 2.0 * pair_sum_[a] / (na * na) + 2.0 * pair_sum_[c] / (nc * nc);
        return na * nc / (na + nc) * (2.0 * aggregate / (na * nc) - within);
      }
      default:
        return aggregate;
    }
  }

  const Points& points_;
  ExactLinkage linkage_;
  ActiveSet active_;
  std::vector<int> next_, last_;  // per row: the next member; per slot: the last member
  std::vector<int> size_;         // per slot
  std::vector<double> weight_;    // per row: 2^-merges its cluster went through (weighted)
  std::vector<double> pair_sum_;  // per slot: sum of squared distances within (Ward)
  Tiles members_;                 // the rows of the cluster searched from
  int gathered_ = -1;
  PieceMinima minima_;
  std::vector<CachedRow> cache_;  // O(rows x columns): at most max(8, min(64, columns)) rows
  std::vector<long> changed_;     // per slot: the merge count when the cluster last changed
  long merges_ = 0;
  Tiles all_;                     // every row, for the distances of a single row
  std::vector<double> from_row_;  // per row: squared distance to the single row searched from
};

std::vector<MergeRecord> NearestNeighbourChain(ChainCriterion& criterion, int n,
                                               Progress& progress) {
  std::vector<MergeRecord> merges;
  merges.reserve(n > 0 ? n - 1 : 0);
  std::vector<double> d(static_cast<std::size_t>((n + kLanes - 1) / kLanes) * kLanes);
  std::vector<double> formed(n, 0.0);  // per slot: the height of the merge that made it
  std::vector<int> chain;
  while (criterion.Active() > 1) {
    if (chain.empty()) chain.push_back(criterion.SlotAt(0));
    int a = -1, b = -1;
    double height = 0.0;
    for (;;) {
      a = chain.back();
      const int previous = chain.size() > 1 ? chain[chain.size() - 2] : -1;
      int best = criterion.DistancesFrom(a, d);
      // On a tie the cluster the chain came from wins, else the chain could cycle.
      if (previous >= 0 && d[criterion.PositionOf(previous)] <= d[best])
        best = criterion.PositionOf(previous);
      b = criterion.SlotAt(best);
      if (b == previous) break;
      chain.push_back(b);
    }
    chain.pop_back();
    chain.pop_back();
    if (a > b) std::swap(a, b);
    height = criterion.Merge(a, b);
    // Rounding can put a merge a hair below the one that made a cluster; it is lifted so that
    // heights never fall from a node to a child.
    height = std::max({height, formed[a], formed[b]});
    formed[a] = height;
    merges.push_back({a, b, height});
    progress.Merged(static_cast<int>(merges.size()));
  }
  return merges;
}

}  // namespace

DendroGramNode* GetExactDendroGram(const NCDataMatrix<float>& data, ExactLinkage linkage,
                                   NCProgress* progress) {
  const NCDataMatrix<float> x(data);  // shares the rows; the caller's later writes unshare them
  mvda::detail::CheckClusterShape(x, "DendroGram::GetExactDendroGram");
  if (x.GetNumMisVal() > 0) mvda::detail::CheckCommonColumns(x);
  const Points points(x);
  const int n = points.rows;
  Progress report(progress, n);
  std::vector<MergeRecord> merges;
  if (n > 1) {
    if (linkage == ExactLinkage::kSingle) {
      merges = SingleLinkage(points, report);
    } else if (linkage == ExactLinkage::kWard && points.complete) {
      WardCentroids criterion(points);
      merges = NearestNeighbourChain(criterion, n, report);
    } else {
      RowByRow criterion(points, linkage);
      merges = NearestNeighbourChain(criterion, n, report);
    }
  }
  return BuildTree(n, merges);
}

bool ExactLinkageFromName(const std::string& name, ExactLinkage& linkage) {
  static const std::pair<const char*, ExactLinkage> kNames[] = {
      {"ward-exact", ExactLinkage::kWard},
      {"average", ExactLinkage::kAverage},
      {"complete", ExactLinkage::kComplete},
      {"weighted", ExactLinkage::kWeighted},
      {"single-exact", ExactLinkage::kSingle}};
  for (const auto& entry : kNames) {
    if (name == entry.first) {
      linkage = entry.second;
      return true;
    }
  }
  return false;
}

}  // namespace DendroGram
