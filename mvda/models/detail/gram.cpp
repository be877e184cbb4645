// FormCrossProducts and RowProducts: blocked BLAS products over the rows of complete matrices.
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/detail/gram.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <cblas.h>

namespace mvda::detail {

namespace {

// Blocks computed side by side before their sums are added: fixed, not the team size, so that the
// order of the additions is the same for any team.
constexpr int kWave = 4;

struct Block {
  int set;    // which row set
  int first;  // position of the block's first row in the set's list
  int count;  // rows in the block
};

// The block's rows of m, one after another.
void Pack(const NCDataMatrix<float>& m, const std::vector<int>& rows, const Block& b,
          std::vector<float>& to) {
  const int width = m.SizeColumns();
  to.resize(static_cast<std::size_t>(b.count) * width);
  for (int r = 0; r < b.count; ++r)
    std::memcpy(to.data() + static_cast<std::size_t>(r) * width,
                m[rows[static_cast<std::size_t>(b.first + r)] + 1].GetVector() + 1,
                sizeof(float) * width);
}

// Scratch of one block being worked on: its packed rows and its products in single precision.
struct Slot {
  std::vector<float> x, y, xx, xy, yy;
};

}  // namespace

std::vector<CrossProducts> FormCrossProducts(const NCDataMatrix<float>& x,
                                             const NCDataMatrix<float>* y,
                                             const std::vector<std::vector<int>>& rowSets) {
  const int k = x.SizeColumns(), m = y ? y->SizeColumns() : 0;
  std::vector<std::vector<int>> all;
  if (rowSets.empty()) {
    all.emplace_back(static_cast<std::size_t>(x.SizeRows()));
    for (int i = 0; i < x.SizeRows(); ++i) all[0][static_cast<std::size_t>(i)] = i;
  }
  const std::vector<std::vector<int>>& sets = rowSets.empty() ? all : rowSets;

  std::vector<CrossProducts> out(sets.size());
  std::vector<Block> blocks;
  for (std::size_t s = 0; s < sets.size(); ++s) {
    out[s].k = k;
    out[s].m = m;
    out[s].xx.assign(static_cast<std::size_t>(k) * k, 0.0);
    out[s].xy.assign(static_cast<std::size_t>(k) * m, 0.0);
    out[s].yy.assign(static_cast<std::size_t>(m) * m, 0.0);
    const int n = static_cast<int>(sets[s].size());
    for (int first = 0; first < n; first += kGramBlockRows)
      blocks.push_back({static_cast<int>(s), first, std::min(kGramBlockRows, n - first)});
  }
  if (k == 0) return out;

  std::vector<Slot> slots(kWave);
  for (std::size_t wave = 0; wave < blocks.size(); wave += kWave) {
    const int width = static_cast<int>(std::min<std::size_t>(kWave, blocks.size() - wave));
    ParallelFor(width, [&](int w) {
      const Block& b = blocks[wave + static_cast<std::size_t>(w)];
      Slot& slot = slots[static_cast<std::size_t>(w)];
      const std::vector<int>& rows = sets[static_cast<std::size_t>(b.set)];
      Pack(x, rows, b, slot.x);
      slot.xx.resize(static_cast<std::size_t>(k) * k);
      cblas_ssyrk(CblasRowMajor, CblasUpper, CblasTrans, k, b.count, 1.0f, slot.x.data(), k, 0.0f,
                  slot.xx.data(), k);
      if (m > 0) {
        Pack(*y, rows, b, slot.y);
        slot.xy.resize(static_cast<std::size_t>(k) * m);
        slot.yy.resize(static_cast<std::size_t>(m) * m);
        cblas_sgemm(CblasRowMajor, CblasTrans, CblasNoTrans, k, m, b.count, 1.0f, slot.x.data(), k,
                    slot.y.data(), m, 0.0f, slot.xy.data(), m);
        cblas_ssyrk(CblasRowMajor, CblasUpper, CblasTrans, m, b.count, 1.0f, slot.y.data(), m, 0.0f,
                    slot.yy.data(), m);
      }
    });
    // In block order: the same additions whichever thread computed which block.
    for (int w = 0; w < width; ++w) {
      const Block& b = blocks[wave + static_cast<std::size_t>(w)];
      const Slot& slot = slots[static_cast<std::size_t>(w)];
      CrossProducts& to = out[static_cast<std::size_t>(b.set)];
      ParallelFor(k, [&](int j) {  // rows of the sum are independent
        const std::size_t r = static_cast<std::size_t>(j) * k;
        for (int l = j; l < k; ++l) to.xx[r + l] += slot.xx[r + l];
      });
      for (std::size_t e = 0; e < to.xy.size(); ++e) to.xy[e] += slot.xy[e];
      for (int j = 0; j < m; ++j)
        for (int l = j; l < m; ++l)
          to.yy[static_cast<std::size_t>(j) * m + l] +=
              slot.yy[static_cast<std::size_t>(j) * m + l];
    }
  }
  for (CrossProducts& p : out) {
    for (int j = 0; j < k; ++j)
      for (int l = 0; l < j; ++l)
        p.xx[static_cast<std::size_t>(j) * k + l] = p.xx[static_cast<std::size_t>(l) * k + j];
    for (int j = 0; j < m; ++j)
      for (int l = 0; l < j; ++l)
        p.yy[static_cast<std::size_t>(j) * m + l] = p.yy[static_cast<std::size_t>(l) * m + j];
  }
  return out;
}

void RowProducts(const NCDataMatrix<float>& x, const float* v, int q, float* out) {
  const int n = x.SizeRows(), k = x.SizeColumns();
  if (n == 0 || q == 0) return;
  if (k == 0) {
    std::fill(out, out + static_cast<std::size_t>(n) * q, 0.0f);
    return;
  }
  const int blocks = (n + kGramBlockRows - 1) / kGramBlockRows;
  ParallelFor(blocks, [&](int b) {
    const int first = b * kGramBlockRows, count = std::min(kGramBlockRows, n - first);
    std::vector<float> packed(static_cast<std::size_t>(count) * k);
    for (int r = 0; r < count; ++r)
      std::memcpy(packed.data() + static_cast<std::size_t>(r) * k, x[first + r + 1].GetVector() + 1,
                  sizeof(float) * k);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, count, q, k, 1.0f, packed.data(), k, v,
                q, 0.0f, out + static_cast<std::size_t>(first) * q, q);
  });
}

}  // namespace mvda::detail
