// BlockedGemm and BlockedCrossProduct.
#include <mvda/containers/detail/blas.h>
#include <mvda/containers/detail/blocked_products.h>
#include <mvda/containers/detail/pieces.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

namespace mvda::detail {
namespace {

// The inner dimension is cut only where each block keeps the BLAS efficient, and the partial
// results stay within a bound.
constexpr int kMinBlock = 2048;
constexpr int kMaxBlocks = 16;
constexpr long long kMaxPartialElements = 32LL << 20;
// Below this many multiply-adds a product is one piece: threads would cost more than they save.
constexpr long long kMinParallelWork = 1LL << 22;

// The work of a product with `madds` multiply-adds, in the elements-read units of RunPieces: the
// BLAS kernels run a multiply-add many times faster than the masked loops read an element.
constexpr long long kMaddsPerElement = 16;
inline long long GemmWork(long long madds) { return madds / kMaddsPerElement; }

// A cut of [0, size) into `count` ranges of `step` (the last one shorter).
struct Cut {
  int size = 0, step = 1, count = 1;
  Cut(int s, int pieces) : size(s) {
    count = std::max(1, std::min(pieces, s));
    step = s > 0 ? (s + count - 1) / count : 1;
    count = s > 0 ? (s + step - 1) / step : 1;
  }
  int Begin(int p) const { return std::min(size, p * step); }
  int End(int p) const { return std::min(size, (p + 1) * step); }
};

Cut InnerBlocks(int k, long long outElements, int minBlock = kMinBlock) {
  const long long byMemory = outElements > 0 ? kMaxPartialElements / outElements : kMaxBlocks;
  const int most = static_cast<int>(std::max(1LL, std::min<long long>(kMaxBlocks, byMemory)));
  return Cut(k, std::max(1, std::min(most, k / minBlock)));
}

// The cross products copy each piece's rows; with enough row blocks to go round, a piece is a
// whole block, copied once, rather than a band of it.
constexpr int kMinRowBlock = 1024;
constexpr int kEnoughBlocks = 8;

// Bands of output rows: about four, or one for a small product.
Cut Bands(int m, long long work) {
  if (work < kMinParallelWork) return Cut(m, 1);
  return Cut(m, std::max(1, std::min(4, m / 32)));
}

// A buffer whose first element sits on a 64-byte boundary, whatever the allocator returns, so
// that even a BLAS kernel that peeled elements for alignment would see the same layout each time.
// Each thread keeps three such buffers between calls, up to kKeepBytes each: fresh multi-megabyte
// buffers per piece cost page faults every time, and on several threads at once the kernel's TLB
// shootdowns whenever one was given back, which made the threaded products slower than one
// thread. Elements are not cleared: every user writes what it reads.
constexpr std::size_t kKeepBytes = std::size_t{8} << 20;

template <class T>
class AlignedBuffer {
 public:
  T* Get(std::size_t n) {
    const std::size_t need = n + 64 / sizeof(T);
    if (size_ < need) {
      storage_.reset();
      storage_.reset(new T[need]);
      size_ = need;
    }
    void* p = storage_.get();
    std::size_t space = size_ * sizeof(T);
    return static_cast<T*>(std::align(64, n * sizeof(T), p, space));
  }
  // Gives the memory back if it is more than a thread should keep.
  void Trim() {
    if (size_ * sizeof(T) > kKeepBytes) {
      storage_.reset();
      size_ = 0;
    }
  }

 private:
  std::unique_ptr<T[]> storage_;
  std::size_t size_ = 0;
};

// A buffer of the calling thread's own, trimmed when given back; a local one should the thread's
// be in use further up its stack.
template <class T>
class Borrowed {
 public:
  Borrowed() {
    thread_local AlignedBuffer<T> kept[3];
    thread_local bool busy[3] = {false, false, false};
    for (int k = 0; k < 3 && !buffer_; ++k)
      if (!busy[k]) {
        busy[k] = true;
        buffer_ = &kept[k];
        busy_ = &busy[k];
      }
    if (!buffer_) buffer_ = &local_;
  }
  ~Borrowed() {
    buffer_->Trim();
    if (busy_) *busy_ = false;
  }
  Borrowed(const Borrowed&) = delete;
  Borrowed& operator=(const Borrowed&) = delete;
  T* Get(std::size_t n) { return buffer_->Get(n); }

 private:
  AlignedBuffer<T> local_;
  AlignedBuffer<T>* buffer_ = nullptr;
  bool* busy_ = nullptr;
};

// Adds the block partials (each m x n, contiguous) in block order into c, band by band.
template <class T>
void AddPartials(const T* partials, int blocks, int m, int n, T* c, int ldc, bool upperOnly) {
  const std::size_t size = static_cast<std::size_t>(m) * n;
  const Cut bands(m, std::max(1, std::min(16, m / 16)));
  RunPieces(bands.count, static_cast<long long>(blocks) * size, [&](int band) {
    std::vector<double> sum(static_cast<std::size_t>(n));
    for (int i = bands.Begin(band); i < bands.End(band); ++i) {
      const int j0 = upperOnly ? i : 0;
      std::fill(sum.begin() + j0, sum.end(), 0.0);
      for (int b = 0; b < blocks; ++b) {
        const T* from = partials + b * size + static_cast<std::size_t>(i) * n;
        for (int j = j0; j < n; ++j) sum[j] += from[j];
      }
      T* to = c + static_cast<std::size_t>(i) * ldc;
      for (int j = j0; j < n; ++j) to[j] = static_cast<T>(sum[j]);
    }
  });
}

template <class T>
void MirrorUpper(T* c, int n) {
  for (int i = 1; i < n; ++i)
    for (int j = 0; j < i; ++j)
      c[static_cast<std::size_t>(i) * n + j] = c[static_cast<std::size_t>(j) * n + i];
}

}  // namespace

template <class T>
void BlockedGemm(bool transposeA, bool transposeB, int m, int n, int k, const T* a, int lda,
                 const T* b, int ldb, T* c, int ldc) {
  if (m <= 0 || n <= 0) return;
  if (k <= 0) {
    for (int i = 0; i < m; ++i) {
      T* row = c + static_cast<std::size_t>(i) * ldc;
      std::fill(row, row + n, T(0));
    }
    return;
  }
  const long long out = static_cast<long long>(m) * n;
  const Cut blocks = InnerBlocks(k, out);
  const Cut bands = Bands(m, out * k);
  Borrowed<T> partialBuffer;
  T* const partials =
      blocks.count > 1 ? partialBuffer.Get(static_cast<std::size_t>(blocks.count) * out) : nullptr;
  RunPieces(blocks.count * bands.count, GemmWork(out * k), [&](int piece) {
    const int block = piece / bands.count, band = piece % bands.count;
    const int k0 = blocks.Begin(block), kk = blocks.End(block) - k0;
    const int i0 = bands.Begin(band), mm = bands.End(band) - i0;
    const T* as = transposeA ? a + static_cast<std::size_t>(k0) * lda + i0
                             : a + static_cast<std::size_t>(i0) * lda + k0;
    const T* bs = transposeB ? b + k0 : b + static_cast<std::size_t>(k0) * ldb;
    T* to = blocks.count > 1 ? partials + block * out + static_cast<std::size_t>(i0) * n
                             : c + static_cast<std::size_t>(i0) * ldc;
    Gemm(transposeA, transposeB, mm, n, kk, as, lda, bs, ldb, to, blocks.count > 1 ? n : ldc);
  });
  if (blocks.count > 1) AddPartials(partials, blocks.count, m, n, c, ldc, false);
}

template <class T>
void BlockedCrossProduct(const T* const* x, int xCols, const T* const* y, int yCols, int rows,
                         T* out) {
  const bool gram = y == nullptr;
  const int m = xCols, n = gram ? xCols : yCols;
  if (m <= 0 || n <= 0) return;
  const long long size = static_cast<long long>(m) * n;
  if (rows <= 0) {
    std::fill(out, out + size, T(0));
    return;
  }
  const Cut blocks = InnerBlocks(rows, size, kMinRowBlock);
  const Cut bands = blocks.count >= kEnoughBlocks ? Cut(m, 1) : Bands(m, size * rows);
  Borrowed<T> partialBuffer;
  T* const partials =
      blocks.count > 1 ? partialBuffer.Get(static_cast<std::size_t>(blocks.count) * size) : nullptr;
  RunPieces(blocks.count * bands.count, GemmWork((gram ? size / 2 : size) * rows), [&](int piece) {
    const int block = piece / bands.count, band = piece % bands.count;
    const int r0 = blocks.Begin(block), kk = blocks.End(block) - r0;
    const int i0 = bands.Begin(band), mm = bands.End(band) - i0;
    T* to = (blocks.count > 1 ? partials + block * size : out) +
            static_cast<std::size_t>(i0) * n;
    Borrowed<T> first, second;
    if (gram) {
      // Columns i0.. of the block: the band's own columns lead, so A and B share the copy.
      const int w = m - i0;
      T* p = first.Get(static_cast<std::size_t>(kk) * w);
      for (int r = 0; r < kk; ++r)
        std::memcpy(p + static_cast<std::size_t>(r) * w, x[r0 + r] + i0, sizeof(T) * w);
      Gemm(true, false, mm, w, kk, p, w, p, w, to + i0, n);
    } else {
      T* pa = first.Get(static_cast<std::size_t>(kk) * mm);
      T* pb = second.Get(static_cast<std::size_t>(kk) * n);
      for (int r = 0; r < kk; ++r) {
        std::memcpy(pa + static_cast<std::size_t>(r) * mm, x[r0 + r] + i0, sizeof(T) * mm);
        std::memcpy(pb + static_cast<std::size_t>(r) * n, y[r0 + r], sizeof(T) * n);
      }
      Gemm(true, false, mm, n, kk, pa, mm, pb, n, to, n);
    }
  });
  if (blocks.count > 1) AddPartials(partials, blocks.count, m, n, out, n, gram);
  if (gram) MirrorUpper(out, m);
}

template void BlockedGemm<float>(bool, bool, int, int, int, const float*, int, const float*, int,
                                 float*, int);
template void BlockedGemm<double>(bool, bool, int, int, int, const double*, int, const double*,
                                  int, double*, int);
template void BlockedCrossProduct<float>(const float* const*, int, const float* const*, int, int,
                                         float*);
template void BlockedCrossProduct<double>(const double* const*, int, const double* const*, int,
                                          int, double*);

}  // namespace mvda::detail
