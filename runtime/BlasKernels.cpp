// Front ends of the dense kernels.
//
// Each kernel has a slot, null until the first call, which then asks for the
// processor type and binds the variant for it; afterwards a call costs one
// test and one indirect call. OpenBLAS already carries one variant per
// processor and picks it itself, so every type binds the same OpenBLAS entry
// here; the type is kept for the solver's supernode limit and its reports.
//
// Options are single letters and arrays column-major, as the solver's code
// was written against the reference interface. A bad option or dimension is
// reported in that interface's words and the call does nothing.

#include "runtime/internal/BlasThreads.h"
#include "runtime/internal/SpinLock.h"
#include "runtime/nrt.h"

#include <algorithm>
#include <atomic>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <type_traits>

#include <cblas.h>
#include <omp.h>
#include <sys/resource.h>
#include <unistd.h>

extern "C" void openblas_set_num_threads(int num_threads);

namespace nrt::detail {
namespace {

std::atomic<int> boundType{-1};
std::atomic<int> blasThreads{-1};

// One slot: the pointer is written at most with one value, so two threads
// binding at once need no lock.
template <typename Fn>
class KernelSlot {
public:
    explicit constexpr KernelSlot(Fn variant) : variant_(variant) {}

    Fn get() noexcept {
        Fn fn = slot_.load(std::memory_order_acquire);
        if (fn == nullptr) [[unlikely]] {
            const int type = nrt_cpu_detect();
            boundType.store(type, std::memory_order_relaxed);
            fn = variant_; // the same entry for types 0, 2, 3, 4 and 5
            slot_.store(fn, std::memory_order_release);
        }
        return fn;
    }

private:
    std::atomic<Fn> slot_{nullptr};
    Fn variant_;
};

// OpenBLAS takes a work buffer for each call; it keeps the buffers it made
// for reuse, and when it cannot map a new one it tries again without end. A
// call that may need one more buffer than any before it (more calls at once
// than ever, or the first call of a thread) is let through only when the
// address-space limit can hold that buffer: a process that cannot go on says
// so at once instead of spinning.
std::atomic<int> callsInFlight{0};
std::atomic<int> mostInFlight{0};
thread_local bool threadHasCalled = false;

class BufferClaim {
public:
    BufferClaim() noexcept {
        const int inFlight = callsInFlight.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (!threadHasCalled || inFlight > mostInFlight.load(std::memory_order_acquire))
            [[unlikely]]
            admit(inFlight);
    }
    ~BufferClaim() { callsInFlight.fetch_sub(1, std::memory_order_acq_rel); }
    BufferClaim(const BufferClaim&) = delete;
    BufferClaim& operator=(const BufferClaim&) = delete;

private:
    static void admit(int inFlight) noexcept {
        std::lock_guard guard(runtimeLock());
        const long long left = addressSpaceLeft();
        if (left >= 0 && left < static_cast<long long>(kBlasBufferBytes)) {
            std::fprintf(stderr,
                         "NRT ERROR: not enough address space for the BLAS work buffer of "
                         "another thread: %zu MiB needed, %lld MiB left under the limit\n",
                         kBlasBufferBytes >> 20, left >> 20);
            std::abort();
        }
        threadHasCalled = true;
        if (inFlight > mostInFlight.load(std::memory_order_relaxed))
            mostInFlight.store(inFlight, std::memory_order_release);
    }
};

bool reportBadParameter(int position, const char* kernel) {
    std::printf("NRT ERROR: Parameter %d was incorrect on entry to %s\n", position, kernel);
    std::fflush(stdout);
    return false;
}

bool toTranspose(char c, CBLAS_TRANSPOSE& out) {
    switch (c) {
    case 'N':
    case 'n':
        out = CblasNoTrans;
        return true;
    case 'T':
    case 't':
        out = CblasTrans;
        return true;
    case 'C':
    case 'c':
        out = CblasConjTrans;
        return true;
    default:
        return false;
    }
}

bool toSide(char c, CBLAS_SIDE& out) {
    switch (c) {
    case 'L':
    case 'l':
        out = CblasLeft;
        return true;
    case 'R':
    case 'r':
        out = CblasRight;
        return true;
    default:
        return false;
    }
}

bool toUplo(char c, CBLAS_UPLO& out) {
    switch (c) {
    case 'U':
    case 'u':
        out = CblasUpper;
        return true;
    case 'L':
    case 'l':
        out = CblasLower;
        return true;
    default:
        return false;
    }
}

bool toDiag(char c, CBLAS_DIAG& out) {
    switch (c) {
    case 'N':
    case 'n':
        out = CblasNonUnit;
        return true;
    case 'U':
    case 'u':
        out = CblasUnit;
        return true;
    default:
        return false;
    }
}

// Element-type traits: the OpenBLAS entries of one precision.
template <typename T>
struct Blas;

template <>
struct Blas<float> {
    static constexpr auto gemm = &cblas_sgemm;
    static constexpr auto trsm = &cblas_strsm;
    static constexpr auto swap = &cblas_sswap;
    static constexpr auto iamax = &cblas_isamax;
    static constexpr auto scal = &cblas_sscal;
    static constexpr auto ger = &cblas_sger;
    static constexpr auto syr = &cblas_ssyr;
    static constexpr auto gemv = &cblas_sgemv;
    static constexpr auto trsv = &cblas_strsv;
    static constexpr char prefix = 's';
};

template <>
struct Blas<double> {
    static constexpr auto gemm = &cblas_dgemm;
    static constexpr auto trsm = &cblas_dtrsm;
    static constexpr auto swap = &cblas_dswap;
    static constexpr auto iamax = &cblas_idamax;
    static constexpr auto scal = &cblas_dscal;
    static constexpr auto ger = &cblas_dger;
    static constexpr auto syr = &cblas_dsyr;
    static constexpr auto gemv = &cblas_dgemv;
    static constexpr auto trsv = &cblas_dtrsv;
    static constexpr char prefix = 'd';
};

// The complex entries take the scalars by address and the arrays untyped;
// these adapters give them the signatures of the real ones, so that one
// template serves all four element types.
template <typename C, auto Gemm, auto Trsm, auto Swap, auto Gemv, auto Trsv>
struct ComplexBlas {
    static void gemmEntry(CBLAS_ORDER o, CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, blasint m,
                          blasint n, blasint k, C alpha, const C* a, blasint lda, const C* b,
                          blasint ldb, C beta, C* c, blasint ldc) {
        Gemm(o, ta, tb, m, n, k, &alpha, a, lda, b, ldb, &beta, c, ldc);
    }
    static void trsmEntry(CBLAS_ORDER o, CBLAS_SIDE s, CBLAS_UPLO u, CBLAS_TRANSPOSE t,
                          CBLAS_DIAG d, blasint m, blasint n, C alpha, const C* a, blasint lda,
                          C* b, blasint ldb) {
        Trsm(o, s, u, t, d, m, n, &alpha, a, lda, b, ldb);
    }
    static void swapEntry(blasint n, C* x, blasint incx, C* y, blasint incy) {
        Swap(n, x, incx, y, incy);
    }
    static void gemvEntry(CBLAS_ORDER o, CBLAS_TRANSPOSE t, blasint m, blasint n, C alpha,
                          const C* a, blasint lda, const C* x, blasint incx, C beta, C* y,
                          blasint incy) {
        Gemv(o, t, m, n, &alpha, a, lda, x, incx, &beta, y, incy);
    }
    static void trsvEntry(CBLAS_ORDER o, CBLAS_UPLO u, CBLAS_TRANSPOSE t, CBLAS_DIAG d, blasint n,
                          const C* a, blasint lda, C* x, blasint incx) {
        Trsv(o, u, t, d, n, a, lda, x, incx);
    }
    static constexpr auto gemm = &gemmEntry;
    static constexpr auto trsm = &trsmEntry;
    static constexpr auto swap = &swapEntry;
    static constexpr auto gemv = &gemvEntry;
    static constexpr auto trsv = &trsvEntry;
};

template <>
struct Blas<std::complex<float>> : ComplexBlas<std::complex<float>, &cblas_cgemm, &cblas_ctrsm,
                                               &cblas_cswap, &cblas_cgemv, &cblas_ctrsv> {
    static constexpr char prefix = 'c';
};

template <>
struct Blas<std::complex<double>> : ComplexBlas<std::complex<double>, &cblas_zgemm, &cblas_ztrsm,
                                                &cblas_zswap, &cblas_zgemv, &cblas_ztrsv> {
    static constexpr char prefix = 'z';
};

template <typename T>
struct Slots {
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::gemm)>> gemm{Blas<T>::gemm};
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::trsm)>> trsm{Blas<T>::trsm};
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::swap)>> swap{Blas<T>::swap};
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::gemv)>> gemv{Blas<T>::gemv};
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::trsv)>> trsv{Blas<T>::trsv};
};

// The kernels only the real types have.
template <typename T>
struct RealSlots {
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::iamax)>> iamax{Blas<T>::iamax};
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::scal)>> scal{Blas<T>::scal};
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::ger)>> ger{Blas<T>::ger};
    static inline KernelSlot<std::remove_const_t<decltype(Blas<T>::syr)>> syr{Blas<T>::syr};
};

template <typename T>
struct Name {
    char text[8];
    explicit Name(const char* base) {
        text[0] = Blas<T>::prefix;
        std::size_t i = 1;
        for (; base[i - 1] != '\0' && i + 1 < sizeof text; ++i)
            text[i] = base[i - 1];
        text[i] = '\0';
    }
};

template <typename T>
void gemm(char transa, char transb, int m, int n, int k, T alpha, const T* a, int lda, const T* b,
          int ldb, T beta, T* c, int ldc) {
    const Name<T> kernelName("gemm");
    const char* name = kernelName.text;
    CBLAS_TRANSPOSE ta{}, tb{};
    if (!toTranspose(transa, ta)) return void(reportBadParameter(1, name));
    if (!toTranspose(transb, tb)) return void(reportBadParameter(2, name));
    if (m < 0) return void(reportBadParameter(3, name));
    if (n < 0) return void(reportBadParameter(4, name));
    if (k < 0) return void(reportBadParameter(5, name));
    if (lda < std::max(1, ta == CblasNoTrans ? m : k)) return void(reportBadParameter(8, name));
    if (ldb < std::max(1, tb == CblasNoTrans ? k : n)) return void(reportBadParameter(10, name));
    if (ldc < std::max(1, m)) return void(reportBadParameter(13, name));
    if (m == 0 || n == 0) return;
    prepareBlasThreads();
    const BufferClaim claim;
    Slots<T>::gemm.get()(CblasColMajor, ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

template <typename T>
void trsm(char side, char uplo, char transa, char diag, int m, int n, T alpha, const T* a, int lda,
          T* b, int ldb) {
    const Name<T> kernelName("trsm");
    const char* name = kernelName.text;
    CBLAS_SIDE s{};
    CBLAS_UPLO u{};
    CBLAS_TRANSPOSE t{};
    CBLAS_DIAG d{};
    if (!toSide(side, s)) return void(reportBadParameter(1, name));
    if (!toUplo(uplo, u)) return void(reportBadParameter(2, name));
    if (!toTranspose(transa, t)) return void(reportBadParameter(3, name));
    if (!toDiag(diag, d)) return void(reportBadParameter(4, name));
    if (m < 0) return void(reportBadParameter(5, name));
    if (n < 0) return void(reportBadParameter(6, name));
    if (lda < std::max(1, s == CblasLeft ? m : n)) return void(reportBadParameter(9, name));
    if (ldb < std::max(1, m)) return void(reportBadParameter(11, name));
    if (m == 0 || n == 0) return;
    prepareBlasThreads();
    const BufferClaim claim;
    Slots<T>::trsm.get()(CblasColMajor, s, u, t, d, m, n, alpha, a, lda, b, ldb);
}

// The first element of the chunk [lo, hi) of a strided vector of n elements;
// a negative stride walks the vector from its far end, as the reference
// interface defines.
template <typename T>
T* chunkStart(T* x, int inc, int n, int lo, int hi) {
    return inc > 0 ? x + static_cast<long>(lo) * inc : x + static_cast<long>(n - hi) * (-inc);
}

// Below this length a swap is not worth a thread count query, let alone a
// split.
constexpr int kParallelSwapMin = 5001;

template <typename T>
void swap(int n, T* x, int incx, T* y, int incy) {
    auto kernel = Slots<T>::swap.get();
    if (n < kParallelSwapMin) {
        kernel(n, x, incx, y, incy);
        return;
    }
    const int subcode = nrt_cpu_subcode();
    const bool splittable = subcode == 32 || subcode == 33 || subcode == 64 || subcode == 66;
    int threads = 1;
    if (splittable && incx != 0 && incy != 0) threads = nrt_domain_get_max_threads(NRT_DOMAIN_BLAS);
    if (threads <= 1) {
        kernel(n, x, incx, y, incy);
        return;
    }
#pragma omp parallel num_threads(threads)
    {
        const int team = omp_get_num_threads();
        const int id = omp_get_thread_num();
        const int lo = static_cast<int>(static_cast<long>(n) * id / team);
        const int hi = static_cast<int>(static_cast<long>(n) * (id + 1) / team);
        if (hi > lo)
            kernel(hi - lo, chunkStart(x, incx, n, lo, hi), incx, chunkStart(y, incy, n, lo, hi),
                   incy);
    }
}

template <typename T>
int iamax(int n, const T* x, int incx) {
    if (n < 1 || incx < 1) return 0;
    return static_cast<int>(RealSlots<T>::iamax.get()(n, x, incx)) + 1;
}

template <typename T>
void scal(int n, T alpha, T* x, int incx) {
    if (n < 1 || incx < 1) return;
    RealSlots<T>::scal.get()(n, alpha, x, incx);
}

template <typename T>
void ger(int m, int n, T alpha, const T* x, int incx, const T* y, int incy, T* a, int lda) {
    const Name<T> kernelName("ger");
    const char* name = kernelName.text;
    if (m < 0) return void(reportBadParameter(1, name));
    if (n < 0) return void(reportBadParameter(2, name));
    if (incx == 0) return void(reportBadParameter(5, name));
    if (incy == 0) return void(reportBadParameter(7, name));
    if (lda < std::max(1, m)) return void(reportBadParameter(9, name));
    if (m == 0 || n == 0) return;
    prepareBlasThreads();
    const BufferClaim claim;
    RealSlots<T>::ger.get()(CblasColMajor, m, n, alpha, x, incx, y, incy, a, lda);
}

template <typename T>
void syr(char uplo, int n, T alpha, const T* x, int incx, T* a, int lda) {
    const Name<T> kernelName("syr");
    const char* name = kernelName.text;
    CBLAS_UPLO u{};
    if (!toUplo(uplo, u)) return void(reportBadParameter(1, name));
    if (n < 0) return void(reportBadParameter(2, name));
    if (incx == 0) return void(reportBadParameter(5, name));
    if (lda < std::max(1, n)) return void(reportBadParameter(7, name));
    if (n == 0) return;
    prepareBlasThreads();
    const BufferClaim claim;
    RealSlots<T>::syr.get()(CblasColMajor, u, n, alpha, x, incx, a, lda);
}

template <typename T>
void gemv(char trans, int m, int n, T alpha, const T* a, int lda, const T* x, int incx, T beta,
          T* y, int incy) {
    const Name<T> kernelName("gemv");
    const char* name = kernelName.text;
    CBLAS_TRANSPOSE t{};
    if (!toTranspose(trans, t)) return void(reportBadParameter(1, name));
    if (m < 0) return void(reportBadParameter(2, name));
    if (n < 0) return void(reportBadParameter(3, name));
    if (lda < std::max(1, m)) return void(reportBadParameter(6, name));
    if (incx == 0) return void(reportBadParameter(8, name));
    if (incy == 0) return void(reportBadParameter(11, name));
    if (m == 0 || n == 0) return;
    prepareBlasThreads();
    const BufferClaim claim;
    Slots<T>::gemv.get()(CblasColMajor, t, m, n, alpha, a, lda, x, incx, beta, y, incy);
}

template <typename T>
void trsv(char uplo, char trans, char diag, int n, const T* a, int lda, T* x, int incx) {
    const Name<T> kernelName("trsv");
    const char* name = kernelName.text;
    CBLAS_UPLO u{};
    CBLAS_TRANSPOSE t{};
    CBLAS_DIAG d{};
    if (!toUplo(uplo, u)) return void(reportBadParameter(1, name));
    if (!toTranspose(trans, t)) return void(reportBadParameter(2, name));
    if (!toDiag(diag, d)) return void(reportBadParameter(3, name));
    if (n < 0) return void(reportBadParameter(4, name));
    if (lda < std::max(1, n)) return void(reportBadParameter(6, name));
    if (incx == 0) return void(reportBadParameter(8, name));
    if (n == 0) return;
    prepareBlasThreads();
    const BufferClaim claim;
    Slots<T>::trsv.get()(CblasColMajor, u, t, d, n, a, lda, x, incx);
}

} // namespace

void prepareBlasThreads() {
    const int wanted = omp_in_parallel() ? 1 : nrt_domain_get_max_threads(NRT_DOMAIN_BLAS);
    if (blasThreads.load(std::memory_order_acquire) == wanted) return;
    std::lock_guard guard(runtimeLock());
    if (blasThreads.load(std::memory_order_relaxed) != wanted) {
        openblas_set_num_threads(wanted);
        blasThreads.store(wanted, std::memory_order_release);
    }
}

int blasThreadsInEffect() noexcept {
    return blasThreads.load(std::memory_order_acquire);
}

long long addressSpaceLeft() noexcept {
    rlimit space{};
    if (::getrlimit(RLIMIT_AS, &space) != 0 || space.rlim_cur == RLIM_INFINITY) return -1;
    long long pages = 0;
    if (std::FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%lld", &pages) != 1) pages = 0;
        std::fclose(statm);
    }
    const long long mapped = pages * ::sysconf(_SC_PAGESIZE);
    return std::max(0LL, static_cast<long long>(space.rlim_cur) - mapped);
}

} // namespace nrt::detail

using namespace nrt::detail;

extern "C" {

void nrt_sgemm(char transa, char transb, int m, int n, int k, float alpha, const float* a, int lda,
               const float* b, int ldb, float beta, float* c, int ldc) {
    gemm(transa, transb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
void nrt_dgemm(char transa, char transb, int m, int n, int k, double alpha, const double* a,
               int lda, const double* b, int ldb, double beta, double* c, int ldc) {
    gemm(transa, transb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
void nrt_strsm(char side, char uplo, char transa, char diag, int m, int n, float alpha,
               const float* a, int lda, float* b, int ldb) {
    trsm(side, uplo, transa, diag, m, n, alpha, a, lda, b, ldb);
}
void nrt_dtrsm(char side, char uplo, char transa, char diag, int m, int n, double alpha,
               const double* a, int lda, double* b, int ldb) {
    trsm(side, uplo, transa, diag, m, n, alpha, a, lda, b, ldb);
}
void nrt_sswap(int n, float* x, int incx, float* y, int incy) {
    swap(n, x, incx, y, incy);
}
void nrt_dswap(int n, double* x, int incx, double* y, int incy) {
    swap(n, x, incx, y, incy);
}
int nrt_isamax(int n, const float* x, int incx) {
    return iamax(n, x, incx);
}
int nrt_idamax(int n, const double* x, int incx) {
    return iamax(n, x, incx);
}
void nrt_sscal(int n, float alpha, float* x, int incx) {
    scal(n, alpha, x, incx);
}
void nrt_dscal(int n, double alpha, double* x, int incx) {
    scal(n, alpha, x, incx);
}
void nrt_sger(int m, int n, float alpha, const float* x, int incx, const float* y, int incy,
              float* a, int lda) {
    ger(m, n, alpha, x, incx, y, incy, a, lda);
}
void nrt_dger(int m, int n, double alpha, const double* x, int incx, const double* y, int incy,
              double* a, int lda) {
    ger(m, n, alpha, x, incx, y, incy, a, lda);
}
void nrt_ssyr(char uplo, int n, float alpha, const float* x, int incx, float* a, int lda) {
    syr(uplo, n, alpha, x, incx, a, lda);
}
void nrt_dsyr(char uplo, int n, double alpha, const double* x, int incx, double* a, int lda) {
    syr(uplo, n, alpha, x, incx, a, lda);
}
void nrt_sgemv(char trans, int m, int n, float alpha, const float* a, int lda, const float* x,
               int incx, float beta, float* y, int incy) {
    gemv(trans, m, n, alpha, a, lda, x, incx, beta, y, incy);
}
void nrt_dgemv(char trans, int m, int n, double alpha, const double* a, int lda, const double* x,
               int incx, double beta, double* y, int incy) {
    gemv(trans, m, n, alpha, a, lda, x, incx, beta, y, incy);
}
void nrt_strsv(char uplo, char trans, char diag, int n, const float* a, int lda, float* x,
               int incx) {
    trsv(uplo, trans, diag, n, a, lda, x, incx);
}
void nrt_dtrsv(char uplo, char trans, char diag, int n, const double* a, int lda, double* x,
               int incx) {
    trsv(uplo, trans, diag, n, a, lda, x, incx);
}
void nrt_cgemm(char transa, char transb, int m, int n, int k, const void* alpha, const void* a,
               int lda, const void* b, int ldb, const void* beta, void* c, int ldc) {
    using C = std::complex<float>;
    gemm(transa, transb, m, n, k, *static_cast<const C*>(alpha), static_cast<const C*>(a), lda,
         static_cast<const C*>(b), ldb, *static_cast<const C*>(beta), static_cast<C*>(c), ldc);
}
void nrt_zgemm(char transa, char transb, int m, int n, int k, const void* alpha, const void* a,
               int lda, const void* b, int ldb, const void* beta, void* c, int ldc) {
    using C = std::complex<double>;
    gemm(transa, transb, m, n, k, *static_cast<const C*>(alpha), static_cast<const C*>(a), lda,
         static_cast<const C*>(b), ldb, *static_cast<const C*>(beta), static_cast<C*>(c), ldc);
}
void nrt_ctrsm(char side, char uplo, char transa, char diag, int m, int n, const void* alpha,
               const void* a, int lda, void* b, int ldb) {
    using C = std::complex<float>;
    trsm(side, uplo, transa, diag, m, n, *static_cast<const C*>(alpha), static_cast<const C*>(a),
         lda, static_cast<C*>(b), ldb);
}
void nrt_ztrsm(char side, char uplo, char transa, char diag, int m, int n, const void* alpha,
               const void* a, int lda, void* b, int ldb) {
    using C = std::complex<double>;
    trsm(side, uplo, transa, diag, m, n, *static_cast<const C*>(alpha), static_cast<const C*>(a),
         lda, static_cast<C*>(b), ldb);
}
void nrt_cswap(int n, void* x, int incx, void* y, int incy) {
    using C = std::complex<float>;
    swap(n, static_cast<C*>(x), incx, static_cast<C*>(y), incy);
}
void nrt_zswap(int n, void* x, int incx, void* y, int incy) {
    using C = std::complex<double>;
    swap(n, static_cast<C*>(x), incx, static_cast<C*>(y), incy);
}
void nrt_cgemv(char trans, int m, int n, const void* alpha, const void* a, int lda, const void* x,
               int incx, const void* beta, void* y, int incy) {
    using C = std::complex<float>;
    gemv(trans, m, n, *static_cast<const C*>(alpha), static_cast<const C*>(a), lda,
         static_cast<const C*>(x), incx, *static_cast<const C*>(beta), static_cast<C*>(y), incy);
}
void nrt_zgemv(char trans, int m, int n, const void* alpha, const void* a, int lda, const void* x,
               int incx, const void* beta, void* y, int incy) {
    using C = std::complex<double>;
    gemv(trans, m, n, *static_cast<const C*>(alpha), static_cast<const C*>(a), lda,
         static_cast<const C*>(x), incx, *static_cast<const C*>(beta), static_cast<C*>(y), incy);
}
void nrt_ctrsv(char uplo, char trans, char diag, int n, const void* a, int lda, void* x, int incx) {
    using C = std::complex<float>;
    trsv(uplo, trans, diag, n, static_cast<const C*>(a), lda, static_cast<C*>(x), incx);
}
void nrt_ztrsv(char uplo, char trans, char diag, int n, const void* a, int lda, void* x, int incx) {
    using C = std::complex<double>;
    trsv(uplo, trans, diag, n, static_cast<const C*>(a), lda, static_cast<C*>(x), incx);
}
int nrt_blas_bound_type(void) {
    return boundType.load(std::memory_order_relaxed);
}

} // extern "C"
