/*
 * nrt.h - numerical runtime services of Skyrinse.
 *
 * What the numerical code asks of the process: how many threads it may use,
 * which processor it runs on, where its memory comes from, and what time it is.
 *
 * Rules shared by every function of this header:
 *  - Any thread may call any function at any time; none of them fails or throws.
 *  - The environment is read once, at the first call that needs it; later
 *    changes of the variables have no effect on the running process.
 *  - Thread counts are always at least 1.
 *  - Sizes are in bytes; alignments in bytes. An alignment below 4 means "no
 *    alignment"; a power of two is honoured as given; anything else becomes 64.
 *  - The dense-kernel front ends (nrt_sgemm ...) take column-major arrays and
 *    one-letter option characters, like the reference BLAS, and return
 *    one-based indices where the reference BLAS does.
 *
 * Environment variables read: NRT_NUM_THREADS, NRT_DOMAIN_NUM_THREADS,
 * NRT_DYNAMIC, OMP_NUM_THREADS, NRT_MPI_PROCESSES_PER_NODE,
 * NRT_MPI_THREAD_LEVEL, NRT_DEBUG_CPU_TYPE, NRT_DEBUG_CPU_MA,
 * NRT_DISABLE_FAST_MM, NRT_MM_DISABLE. docs/runtime.md describes each.
 */
#ifndef SKYRINSE_RUNTIME_NRT_H
#define SKYRINSE_RUNTIME_NRT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Thread control ---------------------------------------------------- */

/* Thread domains for nrt_domain_get_max_threads. */
enum { NRT_DOMAIN_ALL = 0, NRT_DOMAIN_BLAS = 1, NRT_DOMAIN_FFT = 2, NRT_DOMAIN_VEC = 3 };

/* Threads a parallel region of the numerical code may use. Inside an OpenMP
 * parallel region with dynamic adjustment on, the answer is 1 (no nesting). */
int nrt_get_max_threads(void);
/* The same for one domain of kernels (NRT_DOMAIN_*); an unknown domain is
 * treated as NRT_DOMAIN_ALL. */
int nrt_domain_get_max_threads(int domain);
/* Replaces the requested thread count; values below 1 are ignored. A call
 * before the first query wins over NRT_NUM_THREADS. */
void nrt_set_num_threads(int n);
/* 1 if the library may reduce the thread count (the default), 0 if not. */
int nrt_get_dynamic(void);
/* Distinct physical cores available to the process: those of its affinity
 * mask (hardware threads of one core count once), lowered to its cgroup CPU
 * quota rounded up. */
int nrt_physical_cores(void);
/* The count nrt_get_max_threads gives outside a parallel region, with the
 * reason in one line of English: the affinity mask, the CPU quota, a
 * variable, the program's request. A request above 0 answers as if
 * nrt_set_num_threads(request) had been called, without calling it, so that a
 * program can say what a count it is about to pass on will give. The reason is
 * copied into text, truncated to size bytes with the terminating zero; text
 * may be null when size is 0. */
int nrt_explain_threads(int request, char* text, size_t size);

/* ---- Processor detection ----------------------------------------------- */

/* Processor type 0 (baseline), 2 (SSE2), 3 (SSE3), 4 (SSSE3), 5 (SSE4.2). */
int nrt_cpu_detect(void);
/* Sub-code: 66 (type 5 with AES), 64 (type 5), 33 (type 4 with SSE4.1),
 * 32 (type 4), 0 otherwise. */
int nrt_cpu_subcode(void);
/* Feature bits of the image primitives (NRT_FEATURE_*), ANDed with the mask
 * set by nrt_set_feature_mask. The high 32 bits are always 0. */
unsigned long long nrt_cpu_features(void);
/* Mask applied to every read of the feature word; all ones by default. Lets a
 * caller force a lower dispatch index, e.g. to test a baseline path. */
void nrt_set_feature_mask(unsigned long long mask);

enum {
    NRT_FEATURE_MMX = 1 << 0,
    NRT_FEATURE_SSE = 1 << 1,
    NRT_FEATURE_SSE2 = 1 << 2,
    NRT_FEATURE_SSE3 = 1 << 3,
    NRT_FEATURE_SSSE3 = 1 << 4,
    NRT_FEATURE_MOVBE = 1 << 5,
    NRT_FEATURE_SSE41 = 1 << 6,
    NRT_FEATURE_SSE42 = 1 << 7,
    NRT_FEATURE_AVX = 1 << 8,
    NRT_FEATURE_AVX_OS = 1 << 9,
    NRT_FEATURE_AES = 1 << 10,
    NRT_FEATURE_PCLMULQDQ = 1 << 11
};

/* ---- Image primitive dispatch ------------------------------------------ */

/* Chooses the variant index of the image primitives from the feature word.
 * Returns 0, or 20 when the processor cannot report its features. Call before
 * the first image primitive; calling again is harmless. */
int nrt_image_primitives_init(void);
/* Variant index 0..5 chosen by the last nrt_image_primitives_init (0 before). */
int nrt_image_dispatch_index(void);
/* Secondary value 0..2 chosen with the index. */
int nrt_image_dispatch_secondary(void);

/* ---- Dense kernels ----------------------------------------------------- */
/*
 * Front ends of the BLAS kernels used by the solver. Each binds its slot on
 * first use and then costs one test and one indirect call. A call made inside
 * an OpenMP parallel region runs the kernel on one thread; a call outside runs
 * it with nrt_domain_get_max_threads(NRT_DOMAIN_BLAS) threads.
 */
void nrt_sgemm(char transa, char transb, int m, int n, int k, float alpha, const float* a, int lda,
               const float* b, int ldb, float beta, float* c, int ldc);
void nrt_dgemm(char transa, char transb, int m, int n, int k, double alpha, const double* a,
               int lda, const double* b, int ldb, double beta, double* c, int ldc);
void nrt_strsm(char side, char uplo, char transa, char diag, int m, int n, float alpha,
               const float* a, int lda, float* b, int ldb);
void nrt_dtrsm(char side, char uplo, char transa, char diag, int m, int n, double alpha,
               const double* a, int lda, double* b, int ldb);
/* From 5001 elements up, with both strides non-zero, the swap is split among
 * the BLAS domain's threads. */
void nrt_sswap(int n, float* x, int incx, float* y, int incy);
void nrt_dswap(int n, double* x, int incx, double* y, int incy);
/* One-based index of the first element of largest magnitude; 0 when n < 1 or
 * incx < 1. */
int nrt_isamax(int n, const float* x, int incx);
int nrt_idamax(int n, const double* x, int incx);
void nrt_sscal(int n, float alpha, float* x, int incx);
void nrt_dscal(int n, double alpha, double* x, int incx);
void nrt_sger(int m, int n, float alpha, const float* x, int incx, const float* y, int incy,
              float* a, int lda);
void nrt_dger(int m, int n, double alpha, const double* x, int incx, const double* y, int incy,
              double* a, int lda);
void nrt_ssyr(char uplo, int n, float alpha, const float* x, int incx, float* a, int lda);
void nrt_dsyr(char uplo, int n, double alpha, const double* x, int incx, double* a, int lda);
void nrt_sgemv(char trans, int m, int n, float alpha, const float* a, int lda, const float* x,
               int incx, float beta, float* y, int incy);
void nrt_dgemv(char trans, int m, int n, double alpha, const double* a, int lda, const double* x,
               int incx, double beta, double* y, int incy);
void nrt_strsv(char uplo, char trans, char diag, int n, const float* a, int lda, float* x,
               int incx);
void nrt_dtrsv(char uplo, char trans, char diag, int n, const double* a, int lda, double* x,
               int incx);

/* The complex kernels: arrays of interleaved (real, imaginary) pairs of the
 * precision the prefix names (c single, z double), scalars by address. */
void nrt_cgemm(char transa, char transb, int m, int n, int k, const void* alpha, const void* a,
               int lda, const void* b, int ldb, const void* beta, void* c, int ldc);
void nrt_zgemm(char transa, char transb, int m, int n, int k, const void* alpha, const void* a,
               int lda, const void* b, int ldb, const void* beta, void* c, int ldc);
void nrt_ctrsm(char side, char uplo, char transa, char diag, int m, int n, const void* alpha,
               const void* a, int lda, void* b, int ldb);
void nrt_ztrsm(char side, char uplo, char transa, char diag, int m, int n, const void* alpha,
               const void* a, int lda, void* b, int ldb);
void nrt_cswap(int n, void* x, int incx, void* y, int incy);
void nrt_zswap(int n, void* x, int incx, void* y, int incy);
void nrt_cgemv(char trans, int m, int n, const void* alpha, const void* a, int lda, const void* x,
               int incx, const void* beta, void* y, int incy);
void nrt_zgemv(char trans, int m, int n, const void* alpha, const void* a, int lda, const void* x,
               int incx, const void* beta, void* y, int incy);
void nrt_ctrsv(char uplo, char trans, char diag, int n, const void* a, int lda, void* x, int incx);
void nrt_ztrsv(char uplo, char trans, char diag, int n, const void* a, int lda, void* x, int incx);

/* Processor type the kernel slots were bound for, or -1 before the first
 * kernel call. */
int nrt_blas_bound_type(void);

/* ---- Memory ------------------------------------------------------------ */

/* The four system heap operations used by every allocator of this header.
 * They start as the C library's functions. Replacing them is meant for tests
 * (e.g. failing the k-th allocation) and must happen while no block obtained
 * through the old operations is still live. */
typedef struct nrt_heap_ops {
    void* (*malloc_fn)(size_t size);
    void* (*calloc_fn)(size_t count, size_t size);
    void* (*realloc_fn)(void* p, size_t size);
    void (*free_fn)(void* p);
} nrt_heap_ops;
/* Installs ops (null restores the C library's functions). */
void nrt_set_heap_ops(const nrt_heap_ops* ops);
nrt_heap_ops nrt_get_heap_ops(void);

/* Aligned allocator, for large long-lived arrays. Null for size 0 or failure. */
void* nrt_malloc(size_t size, int alignment);
/* Zero-filled; null when count * size is 0 or overflows, or on failure. */
void* nrt_calloc(size_t count, size_t size, int alignment);
/* Keeps the contents up to the smaller size and the alignment p was made with.
 * A null p allocates as nrt_malloc(size, alignment) does (the solver passes
 * 64); for a non-null p the argument is ignored. Size 0 frees p and returns
 * null. On failure p stays valid and null is returned. */
void* nrt_realloc(void* p, size_t size, int alignment);
/* Releases a block of nrt_malloc, nrt_calloc or nrt_realloc; null is accepted. */
void nrt_free(void* p);

/* Fast allocator, for short-lived work blocks asked for again and again with
 * the same size: each thread keeps up to five blocks for reuse. Null for size 0
 * or failure. Blocks above NRT_FAST_MM_LIMIT bytes, and every block when the
 * cache is switched off, come straight from the system heap and then carry
 * only its alignment (16 bytes with the C library). A block may be released on
 * any thread. */
#define NRT_FAST_MM_LIMIT 41943040u
void* nrt_fast_malloc(size_t size, int alignment);
void nrt_fast_free(void* p);

/* ---- Clock ------------------------------------------------------------- */

/* Seconds since an arbitrary origin, from the time stamp counter calibrated
 * against the monotonic clock at first use (which takes about 10 ms). Only
 * differences mean something. */
double nrt_seconds(void);
/* Raw time stamp counter (monotonic nanoseconds where there is none). */
unsigned long long nrt_clocks(void);

#ifdef __cplusplus
}
#endif

#endif /* SKYRINSE_RUNTIME_NRT_H */
