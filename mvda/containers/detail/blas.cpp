// Typed entry points into BLAS and LAPACK.
#include <mvda/containers/detail/blas.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <cblas.h>

// LAPACK through its Fortran symbols: no C interface to it is installed. Character arguments carry
// a trailing hidden length, as gfortran passes them.
extern "C" {
void sgetrf_(const int* m, const int* n, float* a, const int* lda, int* ipiv, int* info);
void dgetrf_(const int* m, const int* n, double* a, const int* lda, int* ipiv, int* info);
void sgetri_(const int* n, float* a, const int* lda, const int* ipiv, float* work, const int* lwork,
             int* info);
void dgetri_(const int* n, double* a, const int* lda, const int* ipiv, double* work,
             const int* lwork, int* info);
void sgesdd_(const char* jobz, const int* m, const int* n, float* a, const int* lda, float* s,
             float* u, const int* ldu, float* vt, const int* ldvt, float* work, const int* lwork,
             int* iwork, int* info, std::size_t jobz_length);
void dgesdd_(const char* jobz, const int* m, const int* n, double* a, const int* lda, double* s,
             double* u, const int* ldu, double* vt, const int* ldvt, double* work, const int* lwork,
             int* iwork, int* info, std::size_t jobz_length);
}

namespace mvda::detail {
namespace {

CBLAS_TRANSPOSE Op(bool transpose) { return transpose ? CblasTrans : CblasNoTrans; }

void Getrf(int n, float* a, int* pivots, int* info) { sgetrf_(&n, &n, a, &n, pivots, info); }
void Getrf(int n, double* a, int* pivots, int* info) { dgetrf_(&n, &n, a, &n, pivots, info); }
void Getri(int n, float* a, const int* pivots, float* work, int lwork, int* info) {
  sgetri_(&n, a, &n, pivots, work, &lwork, info);
}
void Getri(int n, double* a, const int* pivots, double* work, int lwork, int* info) {
  dgetri_(&n, a, &n, pivots, work, &lwork, info);
}
void Gesdd(int m, int n, float* a, float* s, float* u, int ldu, float* vt, int ldvt, float* work,
           int lwork, int* iwork, int* info) {
  const char jobz = 'S';
  sgesdd_(&jobz, &m, &n, a, &m, s, u, &ldu, vt, &ldvt, work, &lwork, iwork, info, 1);
}
void Gesdd(int m, int n, double* a, double* s, double* u, int ldu, double* vt, int ldvt,
           double* work, int lwork, int* iwork, int* info) {
  const char jobz = 'S';
  dgesdd_(&jobz, &m, &n, a, &m, s, u, &ldu, vt, &ldvt, work, &lwork, iwork, info, 1);
}

// A workspace size returned by a LAPACK query, as an element count. The query comes back as a
// floating-point number, which in single precision may round a large size down, so a little is
// added before truncating.
template <class T>
int WorkspaceSize(T query) {
  return std::max(1, static_cast<int>(static_cast<double>(query) * (1 + 1e-6)) + 1);
}

}  // namespace

void SetBlasThreads(int threads) {
#if defined(OPENBLAS_VERSION)
  openblas_set_num_threads(threads);
#else
  (void)threads;
#endif
}

template <>
void Gemv<float>(bool transpose, int m, int n, float alpha, const float* a, int lda, const float* x,
                 float beta, float* y) {
  cblas_sgemv(CblasRowMajor, Op(transpose), m, n, alpha, a, lda, x, 1, beta, y, 1);
}
template <>
void Gemv<double>(bool transpose, int m, int n, double alpha, const double* a, int lda,
                  const double* x, double beta, double* y) {
  cblas_dgemv(CblasRowMajor, Op(transpose), m, n, alpha, a, lda, x, 1, beta, y, 1);
}

template <>
float Dot<float>(int n, const float* x, const float* y) {
  return cblas_sdot(n, x, 1, y, 1);
}
template <>
double Dot<double>(int n, const double* x, const double* y) {
  return cblas_ddot(n, x, 1, y, 1);
}

template <>
void Axpy<float>(int n, float alpha, const float* x, float* y) {
  cblas_saxpy(n, alpha, x, 1, y, 1);
}
template <>
void Axpy<double>(int n, double alpha, const double* x, double* y) {
  cblas_daxpy(n, alpha, x, 1, y, 1);
}

template <>
void Gemm<float>(bool transposeA, bool transposeB, int m, int n, int k, const float* a, int lda,
                 const float* b, int ldb, float* c, int ldc) {
  cblas_sgemm(CblasRowMajor, Op(transposeA), Op(transposeB), m, n, k, 1.0f, a, lda, b, ldb, 0.0f, c,
              ldc);
}
template <>
void Gemm<double>(bool transposeA, bool transposeB, int m, int n, int k, const double* a, int lda,
                  const double* b, int ldb, double* c, int ldc) {
  cblas_dgemm(CblasRowMajor, Op(transposeA), Op(transposeB), m, n, k, 1.0, a, lda, b, ldb, 0.0, c,
              ldc);
}

// LAPACK works column-major, so it sees the transpose of our row-major matrix; the inverse of the
// transpose is the transpose of the inverse, so the buffer ends up holding our inverse.
template <class T>
bool Invert(T* a, int n) {
  if (n == 0) return true;
  std::vector<int> pivots(static_cast<std::size_t>(n));
  int info = 0;
  Getrf(n, a, pivots.data(), &info);
  if (info > 0) return false;
  if (info < 0) throw NCError("Invert: LAPACK getrf rejected argument " + std::to_string(-info));
  T query = 0;
  Getri(n, a, pivots.data(), &query, -1, &info);
  std::vector<T> work(static_cast<std::size_t>(WorkspaceSize(query)));
  Getri(n, a, pivots.data(), work.data(), static_cast<int>(work.size()), &info);
  if (info > 0) return false;
  if (info < 0) throw NCError("Invert: LAPACK getri rejected argument " + std::to_string(-info));
  return true;
}

// LAPACK sees the row-major m x n matrix as its n x m transpose A' = U2 S VT2. Then A = VT2' S U2':
// VT2 (k x m, column-major) read row-major is exactly our U (m x k), and V is U2 transposed.
template <class T>
void ThinSvd(T* a, int m, int n, T* s, T* u, T* v) {
  const int k = std::min(m, n);
  if (k == 0) return;
  std::vector<T> u2(static_cast<std::size_t>(n) * k);
  std::vector<int> iwork(static_cast<std::size_t>(8) * k);
  int info = 0;
  T query = 0;
  Gesdd(n, m, a, s, u2.data(), n, u, k, &query, -1, iwork.data(), &info);
  std::vector<T> work(static_cast<std::size_t>(WorkspaceSize(query)));
  Gesdd(n, m, a, s, u2.data(), n, u, k, work.data(), static_cast<int>(work.size()), iwork.data(),
        &info);
  if (info > 0) throw NCError("SVD: the singular value iteration did not converge");
  if (info < 0) throw NCError("SVD: LAPACK gesdd rejected argument " + std::to_string(-info));
  for (int j = 0; j < n; ++j)
    for (int l = 0; l < k; ++l)
      v[static_cast<std::size_t>(j) * k + l] = u2[j + static_cast<std::size_t>(l) * n];
}

template bool Invert<float>(float*, int);
template bool Invert<double>(double*, int);
template void ThinSvd<float>(float*, int, int, float*, float*, float*);
template void ThinSvd<double>(double*, int, int, double*, double*, double*);

}  // namespace mvda::detail
