#include <mvda/containers/detail/parallel_for.h>
#include <mvda/validation/detail/pls_group_grams.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <mutex>
#include <type_traits>

#include <cblas.h>

namespace mvda::detail {

namespace {

// How far the trace of a kept product may stray from the sum of squares of the residual rows
// before the products are formed again. Rounding in the products and in the residuals stays near
// 1e-6 of the sum unless deflation has cancelled most of the data; a residual that moved by any
// other change, or by a component the products missed, strays by far more.
constexpr double kTraceTolerance = 1e-4;

// Up to this many multiply-adds the products are formed in double, as FormCrossProducts forms
// them: there they cost little and keep more digits through the deflations.
constexpr double kDoubleWork = 1 << 25;

std::size_t At(int row, int cols, int col) {
  return static_cast<std::size_t>(row) * cols + col;
}

// Scratch for one running piece: a block of rows packed side by side and its product. Taken from
// a pool, so that the memory is mapped once per formation rather than once per piece, which costs
// as much as the products where pages are dear.
template <class T>
struct Scratch {
  std::unique_ptr<T[]> packed, product;
};

// Each group's products (k, m and the three matrices set here): its rows, [X Y] packed side by
// side, multiplied by one single-threaded syrk in precision T per block of at most kGramBlockRows
// rows (cut by the group's size alone), the blocks added in double in order. Groups run on the
// library's team, each on one thread: the same bits for any team.
template <class T>
void Accumulate(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                const std::vector<std::vector<int>>& rows, std::vector<CrossProducts>& own) {
  const int k = x.SizeColumns(), m = y.SizeColumns(), width = k + m;
  const std::size_t square = static_cast<std::size_t>(width) * width;
  // One scratch per running piece, made when a piece finds none idle: as many as run at once
  // (held by pointer, so that growing the pool moves none in use).
  std::vector<std::unique_ptr<Scratch<T>>> pool;
  std::vector<Scratch<T>*> idle;
  std::mutex lock;
  ParallelFor(static_cast<int>(rows.size()), [&](int g) {
    Scratch<T>* taken;
    {
      const std::lock_guard<std::mutex> hold(lock);
      if (idle.empty()) {
        pool.push_back(std::make_unique<Scratch<T>>());
        idle.push_back(pool.back().get());
      }
      taken = idle.back();
      idle.pop_back();
    }
    Scratch<T>& scratch = *taken;
    if (!scratch.packed) {
      scratch.packed.reset(new T[static_cast<std::size_t>(kGramBlockRows) * width]);
      scratch.product.reset(new T[square]);
    }
    CrossProducts& to = own[static_cast<std::size_t>(g)];
    to.k = k;
    to.m = m;
    to.xx.assign(static_cast<std::size_t>(k) * k, 0.0);
    to.xy.assign(static_cast<std::size_t>(k) * m, 0.0);
    to.yy.assign(static_cast<std::size_t>(m) * m, 0.0);
    const std::vector<int>& list = rows[static_cast<std::size_t>(g)];
    const int count = static_cast<int>(list.size());
    for (int first = 0; first < count; first += kGramBlockRows) {
      const int block = std::min(kGramBlockRows, count - first);
      T* packed = scratch.packed.get();
      for (int r = 0; r < block; ++r) {
        const int i = list[static_cast<std::size_t>(first + r)];
        const float* xi = x[i].GetVector() + 1;
        const float* yi = y[i].GetVector() + 1;
        T* row = packed + static_cast<std::size_t>(r) * width;
        std::copy(xi, xi + k, row);
        std::copy(yi, yi + m, row + k);
      }
      T* product = scratch.product.get();
      if constexpr (std::is_same_v<T, float>)
        cblas_ssyrk(CblasRowMajor, CblasUpper, CblasTrans, width, block, 1.0f, packed, width,
                    0.0f, product, width);
      else
        cblas_dsyrk(CblasRowMajor, CblasUpper, CblasTrans, width, block, 1.0, packed, width, 0.0,
                    product, width);
      for (int j = 0; j < k; ++j) {
        const T* from = product + At(j, width, 0);
        double* xx = to.xx.data() + At(j, k, 0);
        for (int l = j; l < k; ++l) xx[l] += from[l];
        double* xy = to.xy.data() + At(j, m, 0);
        for (int l = 0; l < m; ++l) xy[l] += from[k + l];
      }
      for (int j = 0; j < m; ++j) {
        const T* from = product + At(k + j, width, 0);
        double* yy = to.yy.data() + At(j, m, 0);
        for (int l = j; l < m; ++l) yy[l] += from[k + l];
      }
    }
    // The upper halves hold every pair once; the lower halves are their mirror.
    for (int j = 0; j < k; ++j)
      for (int l = 0; l < j; ++l) to.xx[At(j, k, l)] = to.xx[At(l, k, j)];
    for (int j = 0; j < m; ++j)
      for (int l = 0; l < j; ++l) to.yy[At(j, m, l)] = to.yy[At(l, m, j)];
    const std::lock_guard<std::mutex> hold(lock);
    idle.push_back(taken);
  });
}

double Trace(const std::vector<double>& square, int n) {
  double sum = 0;
  for (int j = 0; j < n; ++j) sum += square[At(j, n, j)];
  return sum;
}

bool Matches(double trace, double ss) {
  return std::isfinite(trace) && std::abs(trace - ss) <= kTraceTolerance * ss;
}

// The sum of squares of n floats, in float lanes per row and double across rows: rounding far
// below the tolerance above, at the speed of reading the row.
double RowSS(const float* v, int n) {
  float sum = 0;
#pragma omp simd reduction(+ : sum)
  for (int j = 0; j < n; ++j) sum += v[j] * v[j];
  return sum;
}

// a -= u w' + v z' + s v w' (n x m); u, v n long, w, z m long.
void Deflate(std::vector<double>& a, int n, int m, const double* u, const double* v,
             const double* z, const double* w, double s) {
  for (int j = 0; j < n; ++j) {
    double* row = a.data() + At(j, m, 0);
    for (int l = 0; l < m; ++l) row[l] -= u[j] * w[l] + v[j] * z[l] + s * v[j] * w[l];
  }
}

}  // namespace

bool PlsGroupGrams::Suits(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                          const NCDataVector<float>& w, int groups) {
  const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
  return x.GetNumMisVal() == 0 && y.GetNumMisVal() == 0 && w.GetNumMisVal() == 0 && n >= k &&
         static_cast<double>(groups) * (k + m) <= n;
}

void PlsGroupGrams::Form(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int groups) {
  const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
  std::vector<std::vector<int>> rows(static_cast<std::size_t>(groups));
  for (int i = 1; i <= n; ++i) rows[static_cast<std::size_t>(ids_[i - 1])].push_back(i);
  // The memory of earlier products is reused where the shape allows; each group's are cleared by
  // the piece that sums them.
  training_.resize(static_cast<std::size_t>(groups));
  if (static_cast<double>(n) * k * (k + m) <= kDoubleWork)
    Accumulate<double>(x, y, rows, training_);
  else
    Accumulate<float>(x, y, rows, training_);
  // Each group's own products become those of the other rows: the whole, summed in group order,
  // less its own. Elements are independent, so bands of them run in parallel.
  const auto complement = [&](std::vector<double> CrossProducts::*part, std::size_t size) {
    const int bands = static_cast<int>((size + 4095) / 4096);
    ParallelFor(bands, [&](int band) {
      const std::size_t from = static_cast<std::size_t>(band) * 4096;
      const std::size_t to = std::min(size, from + 4096);
      for (std::size_t e = from; e < to; ++e) {
        double whole = 0;
        for (const CrossProducts& own : training_) whole += (own.*part)[e];
        for (CrossProducts& own : training_) (own.*part)[e] = whole - (own.*part)[e];
      }
    });
  };
  complement(&CrossProducts::xx, static_cast<std::size_t>(k) * k);
  complement(&CrossProducts::xy, static_cast<std::size_t>(k) * m);
  complement(&CrossProducts::yy, static_cast<std::size_t>(m) * m);
  ++formations_;
}

void PlsGroupGrams::Update(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                           const NCIntegralVector<int, -99>& ids, int groups, int level,
                           const NCDataMatrix<float>& wprim, const NCDataMatrix<float>& pprim,
                           const NCDataMatrix<float>& cprim) {
  const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
  std::vector<int> layout(ids.begin(), ids.begin() + n);
  const bool same = level_ >= 0 && layout == ids_ && static_cast<int>(training_.size()) == groups &&
                    training_.front().k == k && training_.front().m == m;
  const bool step = same && level == level_ + 1 && level >= 1 && wprim.SizeRows() >= level &&
                    pprim.SizeRows() >= level && cprim.SizeRows() >= level &&
                    wprim.SizeColumns() == k && pprim.SizeColumns() == k &&
                    cprim.SizeColumns() == m;
  const bool keep = same && level == level_;
  // Marked stale first: should anything fail half-way, the next call starts afresh.
  level_ = -1;
  if (!step && !keep) {
    ids_ = std::move(layout);
    Form(x, y, groups);
  } else if (step) {
    // The component's scores are t = X q with q = w / w'w on the rows before the deflation, so
    // X't = (X'X) q, Y't = (X'Y)'q and t't = q'X'X q come from the products themselves; b and f,
    // the same of the deflated rows, are X't - s p and Y't - s c. The training rows of a group
    // are deflated like any others.
    const float* wf = wprim[level].GetVector() + 1;
    double ww = 0;
    for (int j = 0; j < k; ++j) ww += static_cast<double>(wf[j]) * wf[j];
    std::vector<double> q(static_cast<std::size_t>(k));
    for (int j = 0; j < k; ++j) q[j] = PlainCoefficient(wf[j], ww);
    const float* pf = pprim[level].GetVector() + 1;
    const float* cf = cprim[level].GetVector() + 1;
    const std::vector<double> p(pf, pf + k), c(cf, cf + m);
    ParallelFor(groups, [&](int g) {
      CrossProducts& to = training_[static_cast<std::size_t>(g)];
      std::vector<double> b(static_cast<std::size_t>(k)), f(static_cast<std::size_t>(m), 0.0);
      SymmetricTimes(to.xx, k, q.data(), b.data());
      double s = 0;
      for (int j = 0; j < k; ++j) s += q[j] * b[j];
      for (int j = 0; j < k; ++j)
        for (int l = 0; l < m; ++l) f[l] += to.xy[At(j, m, l)] * q[j];
      for (int j = 0; j < k; ++j) b[j] -= s * p[j];
      for (int l = 0; l < m; ++l) f[l] -= s * c[l];
      Deflate(to.xx, k, k, b.data(), p.data(), b.data(), p.data(), s);
      Deflate(to.xy, k, m, b.data(), p.data(), f.data(), c.data(), s);
      Deflate(to.yy, m, m, f.data(), c.data(), f.data(), c.data(), s);
    });
  }
  level_ = level;
}

bool PlsGroupGrams::Verify(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                           const std::vector<double>& rowSSX) {
  const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
  const int groups = static_cast<int>(training_.size());
  // Each group's own sums, in row order, and the whole in group order.
  std::vector<double> ssx(static_cast<std::size_t>(groups), 0.0);
  std::vector<double> ssy(static_cast<std::size_t>(groups), 0.0);
  for (int i = 1; i <= n; ++i) {
    const std::size_t g = static_cast<std::size_t>(ids_[static_cast<std::size_t>(i - 1)]);
    ssx[g] += rowSSX[static_cast<std::size_t>(i - 1)];
    ssy[g] += RowSS(y[i].GetVector() + 1, m);
  }
  double allX = 0, allY = 0;
  for (int g = 0; g < groups; ++g) {
    allX += ssx[static_cast<std::size_t>(g)];
    allY += ssy[static_cast<std::size_t>(g)];
  }
  bool matches = true;
  for (int g = 0; g < groups && matches; ++g) {
    const CrossProducts& to = training_[static_cast<std::size_t>(g)];
    matches = Matches(Trace(to.xx, k), allX - ssx[static_cast<std::size_t>(g)]) &&
              Matches(Trace(to.yy, m), allY - ssy[static_cast<std::size_t>(g)]);
  }
  if (matches) return true;
  const int level = level_;
  level_ = -1;
  Form(x, y, groups);
  level_ = level;
  return false;
}

double PlsGroupGrams::RowSumOfSquares(const float* row, int n) { return RowSS(row, n); }

}  // namespace mvda::detail
