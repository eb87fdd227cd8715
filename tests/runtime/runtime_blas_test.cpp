// Dense-kernel front ends: results against plain loops in column-major order,
// one-based pivots, the swap split from 5001 elements (no thread query below),
// parameter reports, the BLAS thread count inside and outside regions, and
// a work buffer that an address-space limit cannot hold.

#include "runtime/internal/BlasThreads.h"
#include "runtime/internal/ThreadControl.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <omp.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

template <typename T>
std::vector<T> randomVector(std::size_t n, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> dist(-1.0, 1.0);
    std::vector<T> v(n);
    for (T& x : v)
        x = static_cast<T>(dist(engine));
    return v;
}

// Element (i, j) of op(A) for a column-major A with leading dimension ld.
template <typename T>
T opAt(const std::vector<T>& a, int ld, char trans, int i, int j) {
    return trans == 'N' ? a[i + static_cast<std::size_t>(j) * ld]
                        : a[j + static_cast<std::size_t>(i) * ld];
}

template <typename T>
class DenseKernels : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(DenseKernels, Precisions);

template <typename T>
void gemmCall(char ta, char tb, int m, int n, int k, T alpha, const T* a, int lda, const T* b,
              int ldb, T beta, T* c, int ldc) {
    if constexpr (std::is_same_v<T, float>)
        nrt_sgemm(ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
    else
        nrt_dgemm(ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

template <typename T>
T tolerance() {
    return std::is_same_v<T, float> ? T(1e-4) : T(1e-12);
}

TYPED_TEST(DenseKernels, GemmMatchesLoopsForEveryTransposeWithPaddedLeadingDimensions) {
    using T = TypeParam;
    const int m = 7, n = 5, k = 6;
    for (char ta : {'N', 'T'}) {
        for (char tb : {'n', 't'}) {
            const int lda = (ta == 'N' ? m : k) + 3, ldb = (tb == 'n' ? k : n) + 2, ldc = m + 1;
            const auto a = randomVector<T>(static_cast<std::size_t>(lda) * (ta == 'N' ? k : m), 1);
            const auto b = randomVector<T>(static_cast<std::size_t>(ldb) * (tb == 'n' ? n : k), 2);
            auto c = randomVector<T>(static_cast<std::size_t>(ldc) * n, 3);
            const auto c0 = c;
            gemmCall<T>(ta, tb, m, n, k, T(1.5), a.data(), lda, b.data(), ldb, T(-0.5), c.data(),
                        ldc);
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < m; ++i) {
                    T sum = 0;
                    for (int p = 0; p < k; ++p)
                        sum += opAt(a, lda, ta, i, p) * opAt(b, ldb, tb == 'n' ? 'N' : 'T', p, j);
                    const T want = T(1.5) * sum - T(0.5) * c0[i + j * ldc];
                    EXPECT_NEAR(c[i + j * ldc], want, tolerance<T>()) << ta << tb << i << j;
                }
            // The padding rows of C are not touched.
            for (int j = 0; j < n; ++j)
                EXPECT_EQ(c[m + j * ldc], c0[m + j * ldc]);
        }
    }
}

TYPED_TEST(DenseKernels, TrsmSolvesLowerLeftAndUpperRight) {
    using T = TypeParam;
    const int m = 6, n = 4;
    auto tri = randomVector<T>(m * m, 4);
    for (int i = 0; i < m; ++i)
        tri[i + i * m] = T(3) + T(i); // well conditioned
    auto b = randomVector<T>(m * n, 5);
    const auto b0 = b;
    if constexpr (std::is_same_v<T, float>)
        nrt_strsm('L', 'L', 'N', 'N', m, n, T(2), tri.data(), m, b.data(), m);
    else
        nrt_dtrsm('L', 'L', 'N', 'N', m, n, T(2), tri.data(), m, b.data(), m);
    // L * X must give 2 * B, using only the lower triangle.
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i) {
            T sum = 0;
            for (int p = 0; p <= i; ++p)
                sum += tri[i + p * m] * b[p + j * m];
            EXPECT_NEAR(sum, T(2) * b0[i + j * m], 10 * tolerance<T>());
        }

    auto x = randomVector<T>(n * m, 6); // n x m, solve X * U = B on the right
    const auto x0 = x;
    std::vector<T> upper = randomVector<T>(m * m, 7);
    for (int i = 0; i < m; ++i)
        upper[i + i * m] = T(2) + T(i);
    if constexpr (std::is_same_v<T, float>)
        nrt_strsm('R', 'U', 'N', 'U', n, m, T(1), upper.data(), m, x.data(), n);
    else
        nrt_dtrsm('R', 'U', 'N', 'U', n, m, T(1), upper.data(), m, x.data(), n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < m; ++j) {
            T sum = x[i + j * n]; // unit diagonal
            for (int p = 0; p < j; ++p)
                sum += x[i + p * n] * upper[p + j * m];
            EXPECT_NEAR(sum, x0[i + j * n], 10 * tolerance<T>());
        }
}

TYPED_TEST(DenseKernels, AmaxIsOneBasedAndTakesTheFirstOfEqualMagnitudes) {
    using T = TypeParam;
    const std::vector<T> x = {1, -7, 3, 7, 2, -7};
    auto amax = [](int n, const T* p, int inc) {
        if constexpr (std::is_same_v<T, float>)
            return nrt_isamax(n, p, inc);
        else
            return nrt_idamax(n, p, inc);
    };
    EXPECT_EQ(amax(6, x.data(), 1), 2);
    EXPECT_EQ(amax(3, x.data(), 2), 2); // 1, 3, 2
    EXPECT_EQ(amax(0, x.data(), 1), 0);
    EXPECT_EQ(amax(6, x.data(), 0), 0);
}

TYPED_TEST(DenseKernels, ScalGerGemv) {
    using T = TypeParam;
    const bool single = std::is_same_v<T, float>;
    std::vector<T> v = {1, 2, 3, 4};
    if constexpr (std::is_same_v<T, float>)
        nrt_sscal(2, 3, v.data(), 2);
    else
        nrt_dscal(2, 3, v.data(), 2);
    EXPECT_EQ(v, (std::vector<T>{3, 2, 9, 4}));

    const int m = 3, n = 2;
    std::vector<T> a(m * n, T(1));
    const std::vector<T> x = {1, 2, 3}, y = {10, 20};
    if constexpr (std::is_same_v<T, float>)
        nrt_sger(m, n, 2, x.data(), 1, y.data(), 1, a.data(), m);
    else
        nrt_dger(m, n, 2, x.data(), 1, y.data(), 1, a.data(), m);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i)
            EXPECT_EQ(a[i + j * m], T(1) + T(2) * x[i] * y[j]);

    std::vector<T> out(n, T(1));
    if constexpr (std::is_same_v<T, float>)
        nrt_sgemv('T', m, n, 1, a.data(), m, x.data(), 1, 2, out.data(), 1);
    else
        nrt_dgemv('T', m, n, 1, a.data(), m, x.data(), 1, 2, out.data(), 1);
    for (int j = 0; j < n; ++j) {
        T sum = 2;
        for (int i = 0; i < m; ++i)
            sum += a[i + j * m] * x[i];
        EXPECT_NEAR(out[j], sum, single ? 1e-3 : 1e-12);
    }
}

TYPED_TEST(DenseKernels, SwapBelowTheSplitLengthNeverAsksForThreads) {
    using T = TypeParam;
    auto x = randomVector<T>(5000, 8), y = randomVector<T>(5000, 9);
    const auto x0 = x, y0 = y;
    const long long before = nrt::detail::domainQueryCount();
    if constexpr (std::is_same_v<T, float>)
        nrt_sswap(5000, x.data(), 1, y.data(), 1);
    else
        nrt_dswap(5000, x.data(), 1, y.data(), 1);
    EXPECT_EQ(nrt::detail::domainQueryCount(), before);
    EXPECT_EQ(x, y0);
    EXPECT_EQ(y, x0);
}

TYPED_TEST(DenseKernels, LongSwapIsSplitCorrectlyForEveryStride) {
    using T = TypeParam;
    const int n = 20011; // not a multiple of the team size
    const bool splits = [] {
        const int s = nrt_cpu_subcode();
        return s == 32 || s == 33 || s == 64 || s == 66;
    }();
    for (auto [incx, incy] : {std::pair{1, 1}, std::pair{-2, 3}}) {
        const std::size_t lx = static_cast<std::size_t>(n) * std::abs(incx);
        const std::size_t ly = static_cast<std::size_t>(n) * std::abs(incy);
        auto x = randomVector<T>(lx, 10), y = randomVector<T>(ly, 11);
        const auto x0 = x, y0 = y;
        const long long before = nrt::detail::domainQueryCount();
        if constexpr (std::is_same_v<T, float>)
            nrt_sswap(n, x.data(), incx, y.data(), incy);
        else
            nrt_dswap(n, x.data(), incx, y.data(), incy);
        EXPECT_EQ(nrt::detail::domainQueryCount(), before + (splits ? 1 : 0));
        // Logical element k sits at k * inc from the start, or from the far
        // end for a negative stride.
        auto at = [n](int inc, int k) {
            return static_cast<std::size_t>(inc > 0 ? k * inc : (n - 1 - k) * -inc);
        };
        for (int k = 0; k < n; ++k) {
            ASSERT_EQ(x[at(incx, k)], y0[at(incy, k)]) << incx << ',' << incy << " k=" << k;
            ASSERT_EQ(y[at(incy, k)], x0[at(incx, k)]) << incx << ',' << incy << " k=" << k;
        }
    }
}

// The complex front ends: products with every option (the conjugate ones
// included) and the conjugate-transposed triangular solves the Hermitian
// factorization takes, against loops.
template <typename C>
class ComplexKernels : public ::testing::Test {};
using ComplexPrecisions = ::testing::Types<std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(ComplexKernels, ComplexPrecisions);

template <typename C>
std::vector<C> randomComplex(std::size_t n, unsigned seed) {
    const auto re = randomVector<double>(n, seed), im = randomVector<double>(n, seed + 100);
    std::vector<C> v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = C(static_cast<typename C::value_type>(re[i]),
                 static_cast<typename C::value_type>(im[i]));
    return v;
}

template <typename C>
C complexOpAt(const std::vector<C>& a, int ld, char trans, int i, int j) {
    if (trans == 'N') return a[i + static_cast<std::size_t>(j) * ld];
    const C v = a[j + static_cast<std::size_t>(i) * ld];
    return trans == 'C' ? std::conj(v) : v;
}

TYPED_TEST(ComplexKernels, GemmAndTrsmMatchLoopsForEveryOption) {
    using C = TypeParam;
    const double tol = std::is_same_v<C, std::complex<float>> ? 1e-4 : 1e-12;
    const int m = 5, n = 4, k = 3;
    const C alpha(1.5, -0.5), beta(-0.5, 0.25);
    for (char ta : {'N', 'T', 'C'})
        for (char tb : {'N', 'T', 'C'}) {
            const int lda = ta == 'N' ? m : k, ldb = tb == 'N' ? k : n;
            const auto a = randomComplex<C>(static_cast<std::size_t>(lda) * (ta == 'N' ? k : m), 1);
            const auto b = randomComplex<C>(static_cast<std::size_t>(ldb) * (tb == 'N' ? n : k), 2);
            auto c = randomComplex<C>(static_cast<std::size_t>(m) * n, 3);
            const auto c0 = c;
            if constexpr (std::is_same_v<C, std::complex<float>>)
                nrt_cgemm(ta, tb, m, n, k, &alpha, a.data(), lda, b.data(), ldb, &beta, c.data(),
                          m);
            else
                nrt_zgemm(ta, tb, m, n, k, &alpha, a.data(), lda, b.data(), ldb, &beta, c.data(),
                          m);
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < m; ++i) {
                    C sum = 0;
                    for (int p = 0; p < k; ++p)
                        sum += complexOpAt(a, lda, ta, i, p) * complexOpAt(b, ldb, tb, p, j);
                    EXPECT_LE(std::abs(c[i + j * m] - (alpha * sum + beta * c0[i + j * m])), tol)
                        << ta << tb;
                }
        }
    // X L^H = B on the right, as the Cholesky panel solves it.
    auto tri = randomComplex<C>(m * m, 4);
    for (int i = 0; i < m; ++i)
        tri[i + i * m] = C(3 + i, 1);
    auto x = randomComplex<C>(n * m, 5);
    const auto x0 = x;
    const C one(1);
    if constexpr (std::is_same_v<C, std::complex<float>>)
        nrt_ctrsm('R', 'L', 'C', 'N', n, m, &one, tri.data(), m, x.data(), n);
    else
        nrt_ztrsm('R', 'L', 'C', 'N', n, m, &one, tri.data(), m, x.data(), n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < m; ++j) {
            C sum = 0; // (X L^H)(i, j) = sum over p <= j of X(i, p) conj(L(j, p))
            for (int p = 0; p <= j; ++p)
                sum += x[i + p * n] * std::conj(tri[j + p * m]);
            EXPECT_LE(std::abs(sum - x0[i + j * n]), 10 * tol);
        }
}

TEST(DenseKernelParameters, BadArgumentsAreReportedAndChangeNothing) {
    std::vector<float> a(4, 1), b(4, 1), c(4, 7);
    ::testing::internal::CaptureStdout();
    nrt_sgemm('X', 'N', 2, 2, 2, 1, a.data(), 2, b.data(), 2, 0, c.data(), 2);
    nrt_dgemm('N', 'N', 2, 2, 2, 1, nullptr, 1, nullptr, 2, 0, nullptr, 2);

    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("NRT ERROR: Parameter 1 was incorrect on entry to sgemm"), std::string::npos)
        << out;
    EXPECT_NE(out.find("NRT ERROR: Parameter 8 was incorrect on entry to dgemm"), std::string::npos)
        << out;
    EXPECT_EQ(c, std::vector<float>(4, 7));
}

TEST(DenseKernelThreads, OneThreadInsideARegionTheDomainCountOutside) {
    std::vector<double> a(64 * 64, 1.0), c(64 * 64, 0.0);
    nrt_dgemm('N', 'N', 64, 64, 64, 1, a.data(), 64, a.data(), 64, 0, c.data(), 64);
    EXPECT_EQ(nrt::detail::blasThreadsInEffect(), nrt_domain_get_max_threads(NRT_DOMAIN_BLAS));
    EXPECT_EQ(nrt_blas_bound_type(), nrt_cpu_detect());

    std::vector<int> inEffect(2, -1);
    std::vector<std::vector<double>> results(2, std::vector<double>(64 * 64, 0.0));
#pragma omp parallel num_threads(2)
    {
        const int id = omp_get_thread_num();
        nrt_dgemm('N', 'N', 64, 64, 64, 1, a.data(), 64, a.data(), 64, 0, results[id].data(), 64);
#pragma omp barrier
        inEffect[id] = nrt::detail::blasThreadsInEffect();
    }
    for (int id = 0; id < 2; ++id) {
        EXPECT_EQ(inEffect[id], 1);
        EXPECT_EQ(results[id], c);
    }
    nrt_dgemm('N', 'N', 64, 64, 64, 1, a.data(), 64, a.data(), 64, 0, c.data(), 64);
    EXPECT_EQ(nrt::detail::blasThreadsInEffect(), nrt_domain_get_max_threads(NRT_DOMAIN_BLAS));
    EXPECT_EQ(c[0], 64.0);
}

#if !defined(__SANITIZE_ADDRESS__) // it reserves its shadow memory beyond any limit
// Caps the address space a little above what is mapped, then makes the first
// BLAS call of a new thread.
void callWithoutRoomForABuffer() {
    if (nrt::detail::addressSpaceLeft() >= 0) std::_Exit(3); // a limit already
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    long long pages = 0;
    if (!statm || std::fscanf(statm, "%lld", &pages) != 1) std::_Exit(4);
    // Room for small blocks, not for one more 128 MiB buffer.
    const rlim_t cap = pages * ::sysconf(_SC_PAGESIZE) + (64LL << 20);
    const rlimit limit{cap, cap};
    ::setrlimit(RLIMIT_AS, &limit);
    std::thread([] {
        std::vector<double> a(16, 1.0), c(16, 0.0);
        nrt_dgemm('N', 'N', 4, 4, 4, 1, a.data(), 4, a.data(), 4, 0, c.data(), 4);
    }).join();
    std::_Exit(0);
}

// A thread whose work buffer the address-space limit cannot hold ends the
// process with a reason; OpenBLAS itself would retry its mapping for ever.
TEST(DenseKernelBuffers, NoRoomForAThreadsBufferEndsTheProcessAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(callWithoutRoomForABuffer(), "not enough address space for the BLAS work buffer");
}
#endif

} // namespace
