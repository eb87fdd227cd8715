// The peers of the solver benchmark; see Peers.h. Each keeps its own
// defaults (ordering choice included), as a user of that library gets them.
#include "Peers.h"

#include "runtime/nrt.h"

#include <cholmod.h>

#ifdef SPDS_BENCH_MUMPS
#include "MumpsJobs.h"

#include <dmumps_c.h>
#endif
#ifdef SPDS_BENCH_EIGEN
#include <Eigen/SparseCholesky>
#include <Eigen/SparseCore>
#endif

#include <algorithm>
#include <cmath>

namespace bench {

void Timing::keepBest(double an, double fa, double so) {
    ran = true;
    analysis = std::min(analysis, an);
    factorization = std::min(factorization, fa);
    solve = std::min(solve, so);
}

Timing runCholmod(const Problem& p, const std::vector<double>& b, int repetitions) {
    Timing t;
    if (!p.definite) {
        t.note = "not definite";
        return t;
    }
    // The upper triangle by rows is the lower triangle by columns.
    std::vector<int> colp(p.ia.begin(), p.ia.end()), rowi(p.ja.begin(), p.ja.end());
    for (int& v : colp)
        --v;
    for (int& v : rowi)
        --v;
    for (int rep = 0; rep < repetitions; ++rep) {
        cholmod_common cc;
        cholmod_start(&cc);
        cc.supernodal = CHOLMOD_SUPERNODAL;
        cholmod_sparse a{};
        a.nrow = a.ncol = static_cast<std::size_t>(p.n);
        a.nzmax = rowi.size();
        a.p = colp.data();
        a.i = rowi.data();
        a.x = const_cast<double*>(p.a.data());
        a.stype = -1;
        a.itype = CHOLMOD_INT;
        a.xtype = CHOLMOD_REAL;
        a.dtype = CHOLMOD_DOUBLE;
        a.sorted = 1;
        a.packed = 1;
        cholmod_dense* rhs = cholmod_zeros(static_cast<std::size_t>(p.n), 1, CHOLMOD_REAL, &cc);
        std::copy(b.begin(), b.end(), static_cast<double*>(rhs->x));
        const double t0 = nrt_seconds();
        cholmod_factor* l = cholmod_analyze(&a, &cc);
        const double t1 = nrt_seconds();
        const int ok = cholmod_factorize(&a, l, &cc);
        const double t2 = nrt_seconds();
        cholmod_dense* x = cholmod_solve(CHOLMOD_A, l, rhs, &cc);
        const double t3 = nrt_seconds();
        if (!ok || !x || cc.status != CHOLMOD_OK) {
            t.note = "failed";
        } else {
            t.keepBest(t1 - t0, t2 - t1, t3 - t2);
            const double* xv = static_cast<double*>(x->x);
            t.residual = residual(p, std::vector<double>(xv, xv + p.n), b);
            t.nnzFactor = cc.lnz;
        }
        cholmod_free_dense(&x, &cc);
        cholmod_free_dense(&rhs, &cc);
        cholmod_free_factor(&l, &cc);
        cholmod_finish(&cc);
    }
    return t;
}

Timing runMumps(const Problem& p, const std::vector<double>& b, int repetitions) {
    Timing t;
#ifdef SPDS_BENCH_MUMPS
    MumpsCoordinates coordinates(p.n, p.ia, p.ja);
    std::vector<double> values(p.a.begin(), p.a.end());
    for (int rep = 0; rep < repetitions; ++rep) {
        std::vector<double> x(b);
        const MumpsJobs r =
            runMumpsJobs(dmumps_c, p.definite ? 1 : 2, p.n, coordinates, values.data(), x.data());
        if (r.failedJob != 0) {
            t.note = "failed in job " + std::to_string(r.failedJob) + ", INFOG(1) " +
                     std::to_string(r.infog1) + ", INFOG(2) " + std::to_string(r.infog2);
        } else {
            t.keepBest(r.analysis, r.factorization, r.solve);
            t.residual = residual(p, x, b);
            t.nnzFactor = r.nnzFactor;
        }
    }
#else
    (void)p;
    (void)b;
    (void)repetitions;
    t.note = "not built";
#endif
    return t;
}

Timing runEigen(const Problem& p, const std::vector<double>& b, int repetitions) {
    Timing t;
#ifdef SPDS_BENCH_EIGEN
    using Matrix = Eigen::SparseMatrix<double, Eigen::ColMajor, int>;
    // The upper triangle by rows is the lower triangle by columns: map it.
    std::vector<int> colp(p.ia.begin(), p.ia.end()), rowi(p.ja.begin(), p.ja.end());
    for (int& v : colp)
        --v;
    for (int& v : rowi)
        --v;
    const Eigen::Map<const Matrix> a(p.n, p.n, static_cast<int>(rowi.size()), colp.data(),
                                     rowi.data(), p.a.data());
    const Eigen::Map<const Eigen::VectorXd> rhs(b.data(), p.n);
    for (int rep = 0; rep < repetitions; ++rep) {
        Eigen::SimplicialLDLT<Matrix, Eigen::Lower> ldlt;
        const double t0 = nrt_seconds();
        ldlt.analyzePattern(a);
        const double t1 = nrt_seconds();
        ldlt.factorize(a);
        const double t2 = nrt_seconds();
        const Eigen::VectorXd x = ldlt.solve(rhs);
        const double t3 = nrt_seconds();
        if (ldlt.info() != Eigen::Success) {
            t.note = "failed";
            continue;
        }
        t.keepBest(t1 - t0, t2 - t1, t3 - t2);
        t.residual = residual(p, std::vector<double>(x.data(), x.data() + p.n), b);
        t.nnzFactor = static_cast<double>(ldlt.matrixL().nestedExpression().nonZeros() + p.n);
    }
#else
    (void)p;
    (void)b;
    (void)repetitions;
    t.note = "not built";
#endif
    return t;
}

} // namespace bench
