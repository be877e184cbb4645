// Typed entry points into BLAS (through its C interface) and LAPACK (through its Fortran symbols)
// for float and double, so that the container algebra is written once for both precisions.
// Matrices are row-major with a leading dimension, as the containers' rows are laid out.
#ifndef MVDA_CONTAINERS_DETAIL_BLAS_H_
#define MVDA_CONTAINERS_DETAIL_BLAS_H_

namespace mvda::detail {

// BLAS splits a level-1 or level-2 call over its own threads above roughly this many elements.
// Calls made from inside the library's parallel loops stay at or below it, so they run on the
// calling thread: no second team competes with ours, and the arithmetic of a call does not depend
// on how many threads BLAS has.
inline constexpr int kBlasSingleThreadElements = 8192;

// Sets BLAS's own thread count (OpenBLAS; a no-op with other implementations).
void SetBlasThreads(int threads);

// y = alpha * op(A) x + beta * y; A is m x n row-major with leading dimension lda, op(A) = A' when
// transpose is true (then x has m elements and y n).
template <class T>
void Gemv(bool transpose, int m, int n, T alpha, const T* a, int lda, const T* x, T beta, T* y);

template <class T>
T Dot(int n, const T* x, const T* y);

// y += alpha * x
template <class T>
void Axpy(int n, T alpha, const T* x, T* y);

// C = op(A) op(B), C m x n, inner dimension k, all row-major.
template <class T>
void Gemm(bool transposeA, bool transposeB, int m, int n, int k, const T* a, int lda, const T* b,
          int ldb, T* c, int ldc);

// Inverts the n x n matrix a (contiguous, leading dimension n) in place by LU factorisation with
// partial pivoting. Returns false, with a in an unspecified state, when a pivot is exactly zero.
// Throws NCError if LAPACK rejects its arguments or cannot allocate.
template <class T>
bool Invert(T* a, int n);

// Thin singular value decomposition of the m x n row-major matrix a (contiguous), k = min(m, n):
// a = U diag(s) V' with U m x k and V n x k, both row-major; s descending. a is destroyed. Throws
// NCError when the iteration does not converge.
template <class T>
void ThinSvd(T* a, int m, int n, T* s, T* u, T* v);

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_BLAS_H_
