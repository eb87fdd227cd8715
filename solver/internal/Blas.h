// Dense kernels of the numeric stages, one name for both element types.
//
// The factorization and the solve are templates over float, double and their
// complex types; these overloads pick the front end of that element type in
// the runtime services (runtime/nrt.h), which binds OpenBLAS and keeps its
// thread count under the solver's control. Column-major, one-letter options, as the
// reference BLAS.
#pragma once

#include "runtime/nrt.h"

#include <complex>

namespace skyrinse::spds::blas {

inline void gemm(char ta, char tb, int m, int n, int k, float alpha, const float* a, int lda,
                 const float* b, int ldb, float beta, float* c, int ldc) {
    nrt_sgemm(ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
inline void gemm(char ta, char tb, int m, int n, int k, double alpha, const double* a, int lda,
                 const double* b, int ldb, double beta, double* c, int ldc) {
    nrt_dgemm(ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
inline void trsm(char side, char uplo, char ta, char diag, int m, int n, float alpha,
                 const float* a, int lda, float* b, int ldb) {
    nrt_strsm(side, uplo, ta, diag, m, n, alpha, a, lda, b, ldb);
}
inline void trsm(char side, char uplo, char ta, char diag, int m, int n, double alpha,
                 const double* a, int lda, double* b, int ldb) {
    nrt_dtrsm(side, uplo, ta, diag, m, n, alpha, a, lda, b, ldb);
}
inline void swap(int n, float* x, int incx, float* y, int incy) {
    nrt_sswap(n, x, incx, y, incy);
}
inline void swap(int n, double* x, int incx, double* y, int incy) {
    nrt_dswap(n, x, incx, y, incy);
}
inline void gemv(char t, int m, int n, float alpha, const float* a, int lda, const float* x,
                 int incx, float beta, float* y, int incy) {
    nrt_sgemv(t, m, n, alpha, a, lda, x, incx, beta, y, incy);
}
inline void gemv(char t, int m, int n, double alpha, const double* a, int lda, const double* x,
                 int incx, double beta, double* y, int incy) {
    nrt_dgemv(t, m, n, alpha, a, lda, x, incx, beta, y, incy);
}
inline void trsv(char uplo, char t, char diag, int n, const float* a, int lda, float* x, int incx) {
    nrt_strsv(uplo, t, diag, n, a, lda, x, incx);
}
inline void trsv(char uplo, char t, char diag, int n, const double* a, int lda, double* x,
                 int incx) {
    nrt_dtrsv(uplo, t, diag, n, a, lda, x, incx);
}

using ComplexF = std::complex<float>;
using ComplexD = std::complex<double>;

inline void gemm(char ta, char tb, int m, int n, int k, ComplexF alpha, const ComplexF* a, int lda,
                 const ComplexF* b, int ldb, ComplexF beta, ComplexF* c, int ldc) {
    nrt_cgemm(ta, tb, m, n, k, &alpha, a, lda, b, ldb, &beta, c, ldc);
}
inline void gemm(char ta, char tb, int m, int n, int k, ComplexD alpha, const ComplexD* a, int lda,
                 const ComplexD* b, int ldb, ComplexD beta, ComplexD* c, int ldc) {
    nrt_zgemm(ta, tb, m, n, k, &alpha, a, lda, b, ldb, &beta, c, ldc);
}
inline void trsm(char side, char uplo, char ta, char diag, int m, int n, ComplexF alpha,
                 const ComplexF* a, int lda, ComplexF* b, int ldb) {
    nrt_ctrsm(side, uplo, ta, diag, m, n, &alpha, a, lda, b, ldb);
}
inline void trsm(char side, char uplo, char ta, char diag, int m, int n, ComplexD alpha,
                 const ComplexD* a, int lda, ComplexD* b, int ldb) {
    nrt_ztrsm(side, uplo, ta, diag, m, n, &alpha, a, lda, b, ldb);
}
inline void swap(int n, ComplexF* x, int incx, ComplexF* y, int incy) {
    nrt_cswap(n, x, incx, y, incy);
}
inline void swap(int n, ComplexD* x, int incx, ComplexD* y, int incy) {
    nrt_zswap(n, x, incx, y, incy);
}
inline void gemv(char t, int m, int n, ComplexF alpha, const ComplexF* a, int lda,
                 const ComplexF* x, int incx, ComplexF beta, ComplexF* y, int incy) {
    nrt_cgemv(t, m, n, &alpha, a, lda, x, incx, &beta, y, incy);
}
inline void gemv(char t, int m, int n, ComplexD alpha, const ComplexD* a, int lda,
                 const ComplexD* x, int incx, ComplexD beta, ComplexD* y, int incy) {
    nrt_zgemv(t, m, n, &alpha, a, lda, x, incx, &beta, y, incy);
}
inline void trsv(char uplo, char t, char diag, int n, const ComplexF* a, int lda, ComplexF* x,
                 int incx) {
    nrt_ctrsv(uplo, t, diag, n, a, lda, x, incx);
}
inline void trsv(char uplo, char t, char diag, int n, const ComplexD* a, int lda, ComplexD* x,
                 int incx) {
    nrt_ztrsv(uplo, t, diag, n, a, lda, x, incx);
}

} // namespace skyrinse::spds::blas
