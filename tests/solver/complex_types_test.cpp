// The complex matrix types through the entry, in single and double, against
// dense LAPACK (zgesv) on generated matrices: the normwise backward error of
// the answer or a reported failure, the conjugate-transposed and the
// transposed solves, the inertia of a Hermitian indefinite matrix, the
// repair of perturbed pivots, and the refusal of a Hermitian matrix whose
// diagonal is not real.
#include "spds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <limits>
#include <random>
#include <vector>

extern "C" void zgesv_(const int* n, const int* nrhs, std::complex<double>* a, const int* lda,
                       int* ipiv, std::complex<double>* b, const int* ldb, int* info);

namespace {

using Z = std::complex<double>;
using Dense = std::vector<Z>; // column-major n x n

struct Case {
    const char* name;
    int mtype;
    int n;
    bool diagonal = false; // the short path without an analysis
};

Z randomZ(std::mt19937& rng) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    return {u(rng), u(rng)};
}

// A sparse dense matrix of the family; the blocks of zeros are the point of
// the indefinite cases (no pivot without an interchange across them).
Dense generate(const Case& c, std::mt19937& rng) {
    const int n = c.n;
    Dense a(static_cast<std::size_t>(n) * n, Z(0));
    auto at = [&](int i, int j) -> Z& { return a[i + static_cast<std::size_t>(j) * n]; };
    std::bernoulli_distribution keep(0.15);
    const int half = n / 2;
    if (c.diagonal) {
        for (int i = 0; i < n; ++i)
            at(i, i) = randomZ(rng) + Z(2, 0);
        return a;
    }
    for (int j = 0; j < n; ++j)
        for (int i = j; i < n; ++i) {
            const bool zeroBlock = (c.mtype == -4 || c.mtype == 6) && i >= half && j >= half;
            if (zeroBlock || (i != j && !keep(rng) && i != j + half)) continue;
            Z v = randomZ(rng);
            if (c.mtype == 4 || c.mtype == -4) {
                if (i == j) v = {v.real(), 0.0};
                at(i, j) = v;
                at(j, i) = std::conj(v);
            } else if (c.mtype == 6) {
                at(i, j) = at(j, i) = v;
            } else {
                at(i, j) = v;
                at(j, i) = randomZ(rng); // same pattern, other values
            }
        }
    if (c.mtype == 4)
        for (int i = 0; i < n; ++i)
            at(i, i) = Z(n, 0); // dominant: definite
    if (c.mtype == 3)
        for (int i = 0; i < n; i += 7)
            at(i, i) = 0; // stored zeros: matched before it is factored
    if (c.mtype == 13) {
        // Unsymmetric pattern, rows scaled over ten decades.
        for (int i = 0; i < n; ++i) {
            at(i, (i * 7 + 3) % n) += randomZ(rng);
            const double scale = std::pow(10.0, (i % 11) - 5);
            for (int j = 0; j < n; ++j)
                at(i, j) *= scale;
        }
    }
    return a;
}

// CSR, one-based; the upper triangle only for the symmetric storage types.
struct Csr {
    std::vector<int> ia, ja;
    std::vector<Z> a;
};

Csr compress(const Dense& d, int n, int mtype) {
    const bool upper = mtype == 4 || mtype == -4 || mtype == 6;
    Csr c;
    c.ia.push_back(1);
    for (int i = 0; i < n; ++i) {
        for (int j = upper ? i : 0; j < n; ++j) {
            const Z v = d[i + static_cast<std::size_t>(j) * n];
            if (v != Z(0) || i == j) {
                c.ja.push_back(j + 1);
                c.a.push_back(v);
            }
        }
        c.ia.push_back(static_cast<int>(c.ja.size()) + 1);
    }
    return c;
}

// op(A): 0 A, 1 A^H, 2 A^T.
Dense applied(const Dense& a, int n, int op) {
    if (op == 0) return a;
    Dense t(a.size());
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const Z v = a[j + static_cast<std::size_t>(i) * n];
            t[i + static_cast<std::size_t>(j) * n] = op == 1 ? std::conj(v) : v;
        }
    return t;
}

std::vector<Z> denseSolve(Dense a, std::vector<Z> b, int n) {
    std::vector<int> ipiv(static_cast<std::size_t>(n));
    const int one = 1;
    int info = 0;
    zgesv_(&n, &one, a.data(), &n, ipiv.data(), b.data(), &n, &info);
    EXPECT_EQ(info, 0);
    return b;
}

double backwardError(const Dense& a, int n, const std::vector<Z>& x, const std::vector<Z>& b) {
    double r = 0, norm = 0, xmax = 0, bmax = 0;
    for (int i = 0; i < n; ++i) {
        Z s = b[i];
        double row = 0;
        for (int j = 0; j < n; ++j) {
            const Z v = a[i + static_cast<std::size_t>(j) * n];
            s -= v * x[j];
            row += std::abs(v);
        }
        r = std::max(r, std::abs(s));
        norm = std::max(norm, row);
        xmax = std::max(xmax, std::abs(x[i]));
        bmax = std::max(bmax, std::abs(b[i]));
    }
    return r / (norm * xmax + bmax);
}

template <class C>
struct Run {
    std::array<void*, 64> pt{};
    std::array<int, 64> iparm{};
    int maxfct = 1, mnum = 1, msglvl = 0, nrhs = 1;
    int mtype;
    int n;
    Csr m;
    std::vector<C> values;

    Run(const Csr& csr, int mtype, int n) : mtype(mtype), n(n), m(csr) {
        for (const Z& v : csr.a)
            values.emplace_back(v);
        iparm[27] = std::is_same_v<C, std::complex<float>> ? 1 : 0;
    }
    ~Run() { call(-1, nullptr, nullptr); }
    int call(int phase, std::vector<C>* b, std::vector<C>* x) {
        int error = 0;
        spds(pt.data(), &maxfct, &mnum, &mtype, &phase, &n, values.data(), m.ia.data(), m.ja.data(),
             nullptr, &nrhs, iparm.data(), &msglvl, b ? b->data() : nullptr,
             x ? x->data() : nullptr, &error);
        return error;
    }
};

template <class C>
class ComplexTypes : public ::testing::Test {
protected:
    static double tolerance() { return std::is_same_v<C, std::complex<float>> ? 1e-5 : 1e-12; }
};

using Precisions = ::testing::Types<std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(ComplexTypes, Precisions);

const Case kCases[] = {
    {"structurally symmetric, zeros on the diagonal", 3, 60},
    {"Hermitian definite", 4, 60},
    {"Hermitian indefinite, zero block", -4, 60},
    {"complex symmetric, zero block", 6, 60},
    {"unsymmetric, badly scaled", 13, 60},
    {"unsymmetric, diagonal", 13, 60, true},
    // Filled in to supernodes several panels of the block kernels wide.
    {"Hermitian indefinite, zero block, wide", -4, 150},
    {"complex symmetric, zero block, wide", 6, 150},
    {"unsymmetric, wide", 13, 150},
};

// Each type, each solve it offers (A, A^H, A^T), against zgesv.
TYPED_TEST(ComplexTypes, SolveMatchesDenseLapackOrFailsReported) {
    using C = TypeParam;
    std::mt19937 rng(1604);
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.name);
        const Dense a = generate(c, rng);
        const Csr csr = compress(a, c.n, c.mtype);
        for (int op : {0, 1, 2}) {
            SCOPED_TRACE(op);
            std::vector<Z> b(static_cast<std::size_t>(c.n));
            for (Z& v : b)
                v = randomZ(rng);
            Run<C> run(csr, c.mtype, c.n);
            run.iparm[0] = 2; // values as given, iparm[11] read
            run.iparm[1] = 2;
            run.iparm[7] = 2;
            run.iparm[9] = 13;
            run.iparm[10] = c.mtype == 13 ? 1 : 0;
            run.iparm[12] = c.mtype == 13 || c.mtype == -4 || c.mtype == 6 ? 1 : 0;
            run.iparm[20] = 1;
            std::vector<C> bt(b.begin(), b.end()), x(b.size(), C(-7));
            ASSERT_EQ(run.call(11, nullptr, nullptr), 0);
            run.iparm[11] = op; // asked at the solve
            const int error = run.call(23, &bt, &x);
            const std::vector<C> b0(b.begin(), b.end());
            EXPECT_EQ(bt, b0) << "b must come back unchanged";
            if (error != 0) {
                // A reported failure is an answer; a wrong x with 0 is not.
                EXPECT_EQ(error, -4);
                continue;
            }
            // [H C; C^H 0] with C square and regular: half of each sign.
            if (c.mtype == -4) {
                EXPECT_EQ(run.iparm[21], c.n / 2);
                EXPECT_EQ(run.iparm[22], c.n / 2);
            }
            const Dense op_a = applied(a, c.n, op);
            const std::vector<Z> xz(x.begin(), x.end());
            EXPECT_LE(backwardError(op_a, c.n, xz, b), this->tolerance());
            const std::vector<Z> want = denseSolve(op_a, b, c.n);
            double diff = 0, size = 0;
            for (int i = 0; i < c.n; ++i) {
                diff = std::max(diff, std::abs(xz[i] - want[i]));
                size = std::max(size, std::abs(want[i]));
            }
            EXPECT_LE(diff, 1e3 * this->tolerance() * size);
        }
    }
}

// Pivots a hundred times below the perturbation threshold: the factor holds
// about 100 A, correction steps stall, and the Krylov search with the factor
// as preconditioner must still reach the tolerance (conjugates included).
TYPED_TEST(ComplexTypes, PerturbedPivotsAreRepaired) {
    using C = TypeParam;
    const int n = 40;
    for (int mtype : {-4, 13}) {
        SCOPED_TRACE(mtype);
        Dense a(static_cast<std::size_t>(n) * n, Z(0));
        for (int i = 0; i < n; ++i) {
            const Z pivot = i + 1 == n ? Z(1) : 1e-3 * Z(1 + i % 3, mtype == 13 ? 0.5 : 0.0);
            a[i + static_cast<std::size_t>(i) * n] = pivot;
            if (i + 1 == n) continue;
            a[i + static_cast<std::size_t>(i + 1) * n] = 1e-6 * Z(0.3, 0.7);
            a[i + 1 + static_cast<std::size_t>(i) * n] =
                mtype == -4 ? 1e-6 * Z(0.3, -0.7) : 1e-6 * Z(-0.2, 0.4);
        }
        Run<C> run(compress(a, n, mtype), mtype, n);
        run.iparm[0] = 1;
        run.iparm[1] = 2;
        run.iparm[7] = 2;
        run.iparm[9] = 1;
        run.iparm[20] = 1;
        std::mt19937 rng(7);
        std::vector<Z> b(static_cast<std::size_t>(n));
        for (Z& v : b)
            v = randomZ(rng);
        std::vector<C> bt(b.begin(), b.end()), x(b.size());
        ASSERT_EQ(run.call(13, &bt, &x), 0);
        EXPECT_GT(run.iparm[13], 0);
        EXPECT_GT(run.iparm[6], 2);
        EXPECT_LE(backwardError(a, n, std::vector<Z>(x.begin(), x.end()), b), this->tolerance());
    }
}

// A value whose real or imaginary part is not finite is refused before it
// reaches the factor (a) or the solve (b); x is not written.
TYPED_TEST(ComplexTypes, NonFiniteImaginaryPartsAreRefused) {
    using C = TypeParam;
    using R = typename C::value_type;
    std::mt19937 rng(7);
    const Case c{"unsymmetric", 13, 20};
    const Dense a = generate(c, rng);
    Run<C> run(compress(a, c.n, c.mtype), c.mtype, c.n);
    ASSERT_EQ(run.call(11, nullptr, nullptr), 0);
    std::vector<C> b(static_cast<std::size_t>(c.n), C(1)), x(b.size(), C(5));
    run.values[3] = C(1, std::numeric_limits<R>::quiet_NaN());
    EXPECT_EQ(run.call(22, nullptr, nullptr), -7);
    run.values[3] = C(1, 0);
    ASSERT_EQ(run.call(22, nullptr, nullptr), 0);
    b[2] = C(0, std::numeric_limits<R>::infinity());
    EXPECT_EQ(run.call(33, &b, &x), -7);
    EXPECT_EQ(x, std::vector<C>(b.size(), C(5)));
}

// A Hermitian matrix whose diagonal is not real is refused on both paths (the
// short one of a diagonal matrix, and the factorization), rather than solved
// as another matrix for A^H or A^T; rounding noise in the imaginary parts is
// accepted.
TYPED_TEST(ComplexTypes, AHermitianDiagonalThatIsNotRealIsRefused) {
    using C = TypeParam;
    using R = typename C::value_type;
    std::mt19937 rng(9);
    for (bool diagonal : {true, false})
        for (int mtype : {4, -4}) {
            SCOPED_TRACE(std::to_string(mtype) + (diagonal ? ", diagonal" : ""));
            Case c{"Hermitian", mtype, 20};
            c.diagonal = diagonal;
            Dense a = generate(c, rng);
            for (int i = 0; i < c.n; ++i)
                a[i + static_cast<std::size_t>(i) * c.n] = Z(2 + i, 0);
            for (R noise : {R(0), std::numeric_limits<R>::epsilon(), R(1e-2)}) {
                a[5 + static_cast<std::size_t>(5) * c.n] = Z(7, 7 * noise);
                Run<C> run(compress(a, c.n, mtype), mtype, c.n);
                std::vector<C> b(static_cast<std::size_t>(c.n), C(1)), x(b.size(), C(5));
                const int error = run.call(13, &b, &x);
                if (noise < R(1e-3)) {
                    EXPECT_EQ(error, 0) << noise;
                } else {
                    EXPECT_NE(error, 0);
                    EXPECT_EQ(x, std::vector<C>(b.size(), C(5)));
                }
            }
        }
}

} // namespace
