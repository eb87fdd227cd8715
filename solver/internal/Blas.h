// Dense kernels of the numeric stages, one name for both element types.
//
// The factorization and the solve are templates over float and double; these
// overloads pick the single- or double-precision front end of the runtime
// services (runtime/nrt.h), which binds OpenBLAS and keeps its thread count
// under the solver's control. Column-major, one-letter options, as the
// reference BLAS.
#pragma once

#include "runtime/nrt.h"

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

} // namespace skyrinse::spds::blas
