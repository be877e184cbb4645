// BlockedGemm and BlockedCrossProduct: matrix products through single-threaded BLAS calls on
// pieces whose bounds depend on the sizes alone, run in parallel by RunPieces, with the partial
// sums added in a fixed order. Their answer is bit-identical whatever the thread count, the
// load of the machine or the addresses of the operands.
#ifndef MVDA_CONTAINERS_DETAIL_BLOCKED_PRODUCTS_H_
#define MVDA_CONTAINERS_DETAIL_BLOCKED_PRODUCTS_H_

namespace mvda::detail {

// C = op(A) op(B): C is m x n with leading dimension ldc, the inner dimension is k, all row-major
// and contiguous with their leading dimensions (A is m x k, or k x m when transposeA).
// - The inner dimension is cut into at most 16 blocks of at least 2048 (fewer when the partial
//   results would exceed 32 Mi elements), the rows of C into bands; every (block, band) piece is
//   one single-threaded Gemm. The blocks' partial results are added in block order in double and
//   rounded once. Every cut is a function of m, n and k only.
// - Results agree with one Gemm over the whole product to the rounding of float sums, not bit for
//   bit; they are bit-identical between calls with the same values and sizes.
// - C must not overlap A or B. With m, n or k zero, C (if any) is set to 0.
template <class T>
void BlockedGemm(bool transposeA, bool transposeB, int m, int n, int k, const T* a, int lda,
                 const T* b, int ldb, T* c, int ldc);

// The cross product X'Y of two matrices given by their rows: X'Y[p][q] = sum over i of
// x[i][p] * y[i][q], with x[i] pointing at element 1 of X's row i (0-based i < rows, xCols
// elements each) and likewise y. With y null the Gram matrix X'X is formed, whose elements are
// computed once for each pair and mirrored, so that it is exactly symmetric. out is xCols x yCols
// (xCols x xCols for X'X), row-major and contiguous.
// - The rows are cut into at most 16 blocks of at least 1024 rows (fewer when the partial results
//   would exceed 32 Mi elements), by their count and the output size alone. Each piece, a block
//   or (with fewer than 8 blocks) a block's band of output rows, is copied into a private
//   contiguous buffer, so that no BLAS call ever sees where the rows lie in memory, and is one
//   single-threaded Gemm. Block results are added in block order in double, then rounded once.
// - The rows must be complete (no missing marker); the caller handles gaps.
// - Memory: the partial results of the blocks (at most 32 Mi elements beyond out) and one copy of
//   a block's rows per running piece. Each thread keeps these buffers for its next call as long
//   as none exceeds 8 MB.
template <class T>
void BlockedCrossProduct(const T* const* x, int xCols, const T* const* y, int yCols, int rows,
                         T* out);

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_BLOCKED_PRODUCTS_H_
