// The factorization and the solve on two threads: the factor and the
// solution are those of one thread to the last bit, a chain-shaped tree
// finishes, and a cancel from the progress hook stops every thread with the
// code of a cancel.
#include "SpdsTest.h"

#include "Handle.h"
#include "TreeSchedule.h"

#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <thread>

using namespace spdstest;

namespace {

struct Case {
    System system;
    bool chain; // a path with the identity order: every supernode waits for the one before
    bool shared = !chain;  // the schedule gives subtrees to both threads
    bool planKnown = true; // whether sharing is clear-cut for this tree
};

std::vector<Case> cases() {
    std::mt19937 rng(5);
    std::vector<Case> v;
    v.push_back({fromEntries("grid, Cholesky", 2, 2500, gridEntries(50, 50, 0.01)), false});
    v.push_back(
        {fromEntries("saddle point", -2, 2500 + 400, saddleEntries(50, 50, 400, rng)), false});
    {
        auto e = gridEntries(50, 50, 0.5);
        std::uniform_real_distribution<double> u(0.5, 1.5);
        for (auto& [pos, val] : e)
            if (pos.first != pos.second) val *= u(rng);
        v.push_back({fromEntries("unsymmetric grid", 11, 2500, e), false});
    }
    Entries path;
    for (int i = 0; i < 3000; ++i) {
        path[{i, i}] = 4.0;
        if (i + 1 < 3000) path[{i, i + 1}] = path[{i + 1, i}] = -1.0;
    }
    v.push_back({fromEntries("path", -2, 3000, path), true});
    // Long enough for the gather, the scatter and the residual (by rows,
    // and through the column index for a stored triangle) to be split.
    Entries longPath;
    for (int i = 0; i < 70000; ++i) {
        longPath[{i, i}] = (i % 3 == 1 ? -4.0 : 4.0) + (i % 7) * 0.1;
        if (i + 1 < 70000) {
            longPath[{i, i + 1}] = -1.0;
            longPath[{i + 1, i}] = -1.5;
        }
    }
    // Whether their factors hold enough work to share depends on how far
    // the supernodes merge; what matters here is that the solve's vectors are split.
    v.push_back({fromEntries("long indefinite path", -2, 70000, longPath), false, false, false});
    v.push_back({fromEntries("long unsymmetric path", 11, 70000, longPath), false, false, false});
    return v;
}

template <class T>
std::vector<std::byte> factorBytes(SpdsRun<T>& run) {
    const skyrinse::spds::Handle* h = skyrinse::spds::handleOf(run.pt);
    const std::byte* p = h->factors[0].values.data();
    return {p, p + h->factors[0].values.size()};
}

template <class T>
void checkAgreement(const Case& c) {
    const System& s = c.system;
    SCOPED_TRACE(s.name);
    SpdsRun<T> run(s);
    if (c.chain) {
        run.iparm[4] = 1;
        run.perm.resize(static_cast<std::size_t>(s.n));
        std::iota(run.perm.begin(), run.perm.end(), 1);
    }
    nrt_set_num_threads(2);
    ASSERT_EQ(run.call(11), 0);
    const bool lu = s.mtype == 11;
    const skyrinse::spds::TreeSchedule plan =
        skyrinse::spds::scheduleTree(skyrinse::spds::handleOf(run.pt)->symbolic, 2, lu);
    if (c.planKnown) {
        EXPECT_EQ(plan.threads, c.shared ? 2 : 1)
            << "the subtrees are shared unless the tree is a path";
    }
    const std::vector<double> b = randomVector(static_cast<std::size_t>(s.n), 11);
    std::vector<T> bt = narrow<T>(b), x1(bt.size()), x2(bt.size());

    nrt_set_num_threads(1);
    ASSERT_EQ(run.call(23, &bt, &x1), 0);
    const std::vector<std::byte> one = factorBytes(run);
    const int inertia[3] = {run.iparm[13], run.iparm[21], run.iparm[22]};
    nrt_set_num_threads(2);
    ASSERT_EQ(run.call(23, &bt, &x2), 0);
    EXPECT_TRUE(one == factorBytes(run)) << "the factor of two threads differs from one thread's";
    EXPECT_EQ(run.iparm[13], inertia[0]);
    EXPECT_EQ(run.iparm[21], inertia[1]);
    EXPECT_EQ(run.iparm[22], inertia[2]);
    EXPECT_EQ(widen(x1), widen(x2)) << "the sweeps compute every entry in one order";
}

TEST(ParallelFactor, TwoThreadsAgreeWithOne) {
    for (const Case& c : cases()) {
        checkAgreement<double>(c);
        checkAgreement<float>(c);
    }
}

std::vector<std::thread::id>* hookThreads = nullptr;
int lastStep = -1;

int cancellingHook(const int* thread, const int* step, const char*, int) {
    hookThreads->push_back(std::this_thread::get_id());
    lastStep = *step;
    return *thread == 1 && *step >= 1 ? 1 : 0;
}

TEST(ParallelFactor, CancelFromTheHookStopsEveryThread) {
    const System s = fromEntries("grid", -2, 6400, gridEntries(80, 80, 0.1));
    SpdsRun<double> run(s);
    nrt_set_num_threads(2);
    ASSERT_EQ(run.call(11), 0);
    std::vector<std::thread::id> seen;
    hookThreads = &seen;
    spds_set_progress(cancellingHook);
    const int error = run.call(22);
    spds_set_progress(nullptr);
    hookThreads = nullptr;
    EXPECT_EQ(error, -4);
    EXPECT_EQ(run.iparm[29], -1) << "a cancel";
    EXPECT_LT(lastStep, 100);
    for (const std::thread::id& id : seen)
        EXPECT_EQ(id, std::this_thread::get_id()) << "only the calling thread reports";
    std::vector<double> b(6400, 1.0), x(6400);
    EXPECT_EQ(run.call(23, &b, &x), 0) << "the handle is usable after the cancel";
}

} // namespace
