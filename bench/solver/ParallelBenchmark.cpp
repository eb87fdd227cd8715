// Thread scaling of SPDS: one analysis (on two threads, as a parallel run
// makes it), then the factorization and the solve on one and on two
// threads, best of R each, in single and in double precision. Printed per
// system: the seconds, the speed-up, the factorization's rate against the
// sgemm/dgemm rate measured in the same run on as many threads, whether the
// two factors agree to the last bit, and the tree model: its critical path
// and the speed-up it predicts for 4, 8, 16 and 64 threads. The default
// schedule gives each thread disjoint subtrees and shares the top of the
// tree through a cursor; the update-queue scheme (pnlsch by a cursor, every
// update waited for) runs on two threads for comparison, and so does an
// analysis that keeps the fundamental supernodes (no merging).
#include "FullBenchmark.h"

#include "Handle.h"
#include "TreeSchedule.h"
#include "runtime/nrt.h"
#include "spds.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using bench::Problem;

// Through the runtime services only: they set the BLAS library's threads
// themselves and remember what they set, so a direct call to the library
// here would leave them believing an old count.
void useThreads(int t) {
    nrt_set_num_threads(t);
}

// Gflop/s of a square product of order 1500 on t threads, best of reps.
template <class T>
double gemmRate(int t, int reps) {
    const int m = 1500;
    std::vector<T> a(static_cast<std::size_t>(m) * m), b(a.size()), c(a.size());
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1, 1);
    for (std::size_t i = 0; i < a.size(); ++i) {
        a[i] = static_cast<T>(u(rng));
        b[i] = static_cast<T>(u(rng));
    }
    useThreads(t);
    double best = 1e30;
    for (int r = 0; r < reps; ++r) {
        const double t0 = nrt_seconds();
        if constexpr (std::is_same_v<T, float>)
            nrt_sgemm('N', 'N', m, m, m, 1.0f, a.data(), m, b.data(), m, 0.0f, c.data(), m);
        else
            nrt_dgemm('N', 'N', m, m, m, 1.0, a.data(), m, b.data(), m, 0.0, c.data(), m);
        best = std::min(best, nrt_seconds() - t0);
    }
    return 2.0 * m * m * m / best / 1e9;
}

struct Run {
    double factor[3] = {1e30, 1e30, 1e30}; // by thread count 1, 2
    double queued = 1e30;                  // the shared-cursor scheme on 2 threads
    bool queuedIdentical = false;
    double solve[3] = {1e30, 1e30, 1e30};
    double mflop = 0;
    bool identical = false;
    int error = 0;
    // The same with the fundamental supernodes (no merging), 1 and 2 threads.
    double fundamental[3] = {1e30, 1e30, 1e30};
    double nnzRelaxed = 0, nnzFundamental = 0;
    int supernodesRelaxed = 0, supernodesFundamental = 0;
};

// The photo tool's parameters (mtype -2, matching and scaling, Bunch-Kaufman,
// two refinement steps), the precision by T.
template <class T>
Run measure(const Problem& p, int reps, std::vector<double>* model) {
    Run run;
    const std::vector<T> a(p.a.begin(), p.a.end());
    std::vector<T> b(static_cast<std::size_t>(p.n), T(1)), x(b.size());
    void* pt[64] = {};
    int iparm[64] = {};
    photoToolParameters(iparm, std::is_same_v<T, float>);
    iparm[18] = -1;
    int maxfct = 1, mnum = 1, mtype = -2, nrhs = 1, msglvl = 0, error = 0, n = p.n;
    auto call = [&](int phase) {
        const double t0 = nrt_seconds();
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), p.ia.data(), p.ja.data(), nullptr,
             &nrhs, iparm, &msglvl, b.data(), x.data(), &error);
        if (error != 0) run.error = error;
        return nrt_seconds() - t0;
    };
    useThreads(2);
    call(11);
    run.mflop = iparm[18];
    run.nnzRelaxed = iparm[17];
    if (const skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt))
        run.supernodesRelaxed = h->symbolic.nsuper;
    std::vector<std::byte> first;
    for (int t = 1; t <= 2 && run.error == 0; ++t) {
        useThreads(t);
        for (int r = 0; r < reps && run.error == 0; ++r) {
            run.factor[t] = std::min(run.factor[t], call(22));
            run.solve[t] = std::min(run.solve[t], call(33));
        }
        const skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt);
        const std::byte* v = h->factors[0].values.data();
        const std::size_t bytes = static_cast<std::size_t>(h->factors[0].values.size());
        if (t == 1)
            first.assign(v, v + bytes);
        else
            run.identical = first.size() == bytes && std::memcmp(first.data(), v, bytes) == 0;
    }
    if (run.error == 0) {
        skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt);
        h->queueSchedule = true;
        for (int r = 0; r < reps && run.error == 0; ++r)
            run.queued = std::min(run.queued, call(22));
        h->queueSchedule = false;
        const std::byte* v = h->factors[0].values.data();
        run.queuedIdentical = std::memcmp(first.data(), v, first.size()) == 0;
    }
    if (run.error == 0) {
        skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt);
        h->relaxedSupernodes = false;
        useThreads(2);
        iparm[17] = -1;
        call(11);
        run.nnzFundamental = iparm[17];
        run.supernodesFundamental = h->symbolic.nsuper;
        for (int t = 1; t <= 2 && run.error == 0; ++t) {
            useThreads(t);
            for (int r = 0; r < reps && run.error == 0; ++r)
                run.fundamental[t] = std::min(run.fundamental[t], call(22));
        }
        h->relaxedSupernodes = true;
        useThreads(2);
        call(11);
    }
    if (model && run.error == 0) {
        const skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt);
        for (int t : {1, 2, 4, 8, 16, 64}) {
            const skyrinse::spds::TreeSchedule plan =
                skyrinse::spds::scheduleTree(h->symbolic, t, false);
            if (t == 1) model->push_back(plan.criticalPath / plan.totalWork);
            model->push_back(plan.totalWork / plan.estimatedTime);
            model->push_back(std::min<double>(t, plan.totalWork / plan.criticalPath));
        }
    }
    int phase = -1;
    spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs, iparm,
         &msglvl, nullptr, nullptr, &error);
    return run;
}

template <class T>
void printRun(const char* precision, const Run& r, double gemm2) {
    if (r.error != 0) {
        std::printf("  %-7s error %d\n", precision, r.error);
        return;
    }
    const double rate2 = r.mflop / 1e3 / r.factor[2];
    std::printf("  %-7s factor %7.3f %7.3f  x%.2f   solve %7.4f %7.4f  x%.2f   %6.1f Gflop/s "
                "= %3.0f%% of %s   bits %s\n",
                precision, r.factor[1], r.factor[2], r.factor[1] / r.factor[2], r.solve[1],
                r.solve[2], r.solve[1] / r.solve[2], rate2, 100.0 * rate2 / gemm2,
                std::is_same_v<T, float> ? "sgemm" : "dgemm", r.identical ? "identical" : "differ");
    std::printf("          queue scheme on 2 threads: factor %7.3f  x%.2f   bits %s\n", r.queued,
                r.factor[1] / r.queued, r.queuedIdentical ? "identical" : "differ");
    std::printf("          fundamental supernodes: factor %7.3f %7.3f (merged x%.2f x%.2f); "
                "nnz(L) %.2fM -> %.2fM merged, supernodes %d -> %d\n",
                r.fundamental[1], r.fundamental[2], r.fundamental[1] / r.factor[1],
                r.fundamental[2] / r.factor[2], r.nnzFundamental / 1e6, r.nnzRelaxed / 1e6,
                r.supernodesFundamental, r.supernodesRelaxed);
}

} // namespace

int parallelBenchmark(int argc, char** argv) {
    int reps = 3;
    bool quick = false;
    for (int i = 2; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc)
            reps = std::max(1, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--quick"))
            quick = true;
    }
    const double s1 = gemmRate<float>(1, reps), s2 = gemmRate<float>(2, reps);
    const double d1 = gemmRate<double>(1, reps), d2 = gemmRate<double>(2, reps);
    std::printf("Thread scaling of SPDS (photo tool's parameters), best of %d; one analysis on 2 "
                "threads, then 1 and 2 threads\n",
                reps);
    std::printf("dense rate, order 1500: sgemm %.1f / %.1f Gflop/s, dgemm %.1f / %.1f Gflop/s "
                "(1 / 2 threads)\n",
                s1, s2, d1, d2);
    std::printf("columns: seconds on 1 and 2 threads and the speed-up; the factorization's rate on "
                "2 threads against the product's; factor bits of 1 and 2 threads; the same on 2 "
                "threads with the shared-cursor (update-queue) scheme\n");
    std::vector<Problem> problems;
    problems.push_back(bench::laplacian3d(40));
    problems.push_back(
        bench::photoProblem(bench::sourceFile("data/aitzgorri_by_Aitzol_Berasategi.jpg")));
    if (!quick) {
        problems.push_back(
            bench::photoProblem(bench::sourceFile("data/meadows-foggy-smokey-sunbeams.jpg")));
        problems.push_back(bench::laplacian2d(316, 316));
    }
    for (const Problem& p : problems) {
        std::vector<double> model;
        const Run single = measure<float>(p, reps, &model);
        const Run dbl = measure<double>(p, reps, nullptr);
        std::printf("%s: n %d, %.0f Mflop\n", p.name.c_str(), p.n, single.mflop);
        printRun<float>("single", single, s2);
        printRun<double>("double", dbl, d2);
        if (model.size() == 13) {
            std::printf("  tree model: critical path %.1f%% of the work; predicted speed-up "
                        "(schedule / bound W/max(W/p,CP)):",
                        100.0 * model[0]);
            const int threads[] = {2, 4, 8, 16, 64};
            for (int k = 0; k < 5; ++k)
                std::printf("  %d: %.2f/%.2f", threads[k], model[3 + 2 * k], model[4 + 2 * k]);
            std::printf("\n");
        }
        std::fflush(stdout);
    }
    return 0;
}
