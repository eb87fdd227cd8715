// The numeric factorization alone (phase 22 after one analysis), where the
// dense kernels of the supernodes spend the time: the saddle-point system
// and the matting systems with Bunch-Kaufman pivots (mtype -2, the photo
// tool's parameters), a 3D Laplacian with the same parameters, and an
// unsymmetric convection-diffusion system (mtype 11, LU). Per system and precision: the best wall
// time of R runs on 1 and on N threads, the speed-up, the processor time (user + system) of the
// best N-thread run and its ratio to the wall time, and the processor time the process burnt while
// its main thread slept 0.2 s right after a factorization: a thread pool that spins instead of
// sleeping shows there.
//
//   bench_solver --kernels [--threads N] [--reps R] [--quick]
//   bench_solver --blas-builds [--reps R] [--quick]
//        the same on 2 threads, once for each OpenBLAS build Debian ships
//        (pthread and OpenMP) found on this machine, chosen by
//        LD_LIBRARY_PATH in a child process.
#include "FullBenchmark.h"

#include "SupernodalKernels.h"
#include "runtime/nrt.h"
#include "spds.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

extern "C" int openblas_get_parallel(void);
extern "C" char* openblas_get_config(void);

namespace {

using bench::Problem;

double processorSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

// Upwind convection-diffusion on a k^3 grid, full storage by rows: a flow
// along x and y makes the matrix unsymmetric in values, not in pattern.
Problem convectionDiffusion(int k) {
    Problem p;
    p.name = "convection-diffusion " + std::to_string(k) + "^3";
    p.n = k * k * k;
    p.definite = false;
    p.ia.push_back(1);
    auto add = [&](int j, double v) {
        p.ja.push_back(j + 1);
        p.a.push_back(v);
    };
    for (int z = 0; z < k; ++z)
        for (int y = 0; y < k; ++y)
            for (int x = 0; x < k; ++x) {
                const int i = (z * k + y) * k + x;
                if (z > 0) add(i - k * k, -1.0);
                if (y > 0) add(i - k, -1.6);
                if (x > 0) add(i - 1, -1.9);
                add(i, 6.0 + 0.9 + 0.6);
                if (x + 1 < k) add(i + 1, -1.0);
                if (y + 1 < k) add(i + k, -1.0);
                if (z + 1 < k) add(i + k * k, -1.0);
                p.ia.push_back(static_cast<int>(p.ja.size()) + 1);
            }
    return p;
}

struct Figures {
    double wall[2] = {1e30, 1e30}; // 1 thread, N threads
    double cpu = 0;                // of the best N-thread run
    double idleCpu = 0;            // burnt during 0.2 s of sleep after it
    int perturbed = 0;
    int error = 0;
};

template <class T>
Figures measure(const Problem& p, int mtype, int threads, int reps) {
    Figures f;
    const std::vector<T> a(p.a.begin(), p.a.end());
    void* pt[64] = {};
    int iparm[64] = {};
    if (mtype == -2) {
        photoToolParameters(iparm, std::is_same_v<T, float>);
    } else {
        iparm[0] = 1;
        iparm[1] = 3;
        iparm[9] = 13;
        iparm[10] = 1;
        iparm[12] = 1;
        iparm[27] = std::is_same_v<T, float> ? 1 : 0;
    }
    int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, n = p.n;
    auto call = [&](int phase) {
        int error = 0;
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), p.ia.data(), p.ja.data(), nullptr,
             &nrhs, iparm, &msglvl, nullptr, nullptr, &error);
        return error;
    };
    nrt_set_num_threads(threads);
    f.error = call(11);
    const int counts[2] = {1, threads};
    for (int c = 0; c < 2 && f.error == 0; ++c) {
        nrt_set_num_threads(counts[c]);
        for (int r = 0; r < reps && f.error == 0; ++r) {
            const double c0 = processorSeconds();
            const double t0 = nrt_seconds();
            f.error = call(22);
            const double wall = nrt_seconds() - t0;
            const double cpu = processorSeconds() - c0;
            if (wall < f.wall[c]) {
                f.wall[c] = wall;
                if (c == 1) f.cpu = cpu;
            }
        }
    }
    if (f.error == 0) {
        const double c0 = processorSeconds();
        const timespec pause{0, 200000000};
        nanosleep(&pause, nullptr);
        f.idleCpu = processorSeconds() - c0;
        f.perturbed = iparm[13];
    }
    call(-1);
    return f;
}

void printRow(const char* precision, const Figures& f) {
    if (f.error != 0) {
        std::printf("  %-7s error %d\n", precision, f.error);
        return;
    }
    std::printf("  %-7s %8.3f %8.3f %7.2fx %8.3f %7.2f %9.1f %9d\n", precision, f.wall[0],
                f.wall[1], f.wall[0] / f.wall[1], f.cpu, f.cpu / f.wall[1], 1e3 * f.idleCpu,
                f.perturbed);
}

const char* blasBuild() {
    switch (openblas_get_parallel()) {
    case 0:
        return "sequential";
    case 1:
        return "pthread";
    case 2:
        return "OpenMP";
    default:
        return "unknown";
    }
}

// One dense diagonal block alone: w columns and w / 2 rows below, random
// values (symmetric indefinite for LDL^T with Bunch-Kaufman, the lower
// triangle read), one thread, best of reps; seconds.
template <class T>
double blockSeconds(bool lu, int w, int reps) {
    using namespace skyrinse::spds;
    const int ld = w + w / 2;
    std::mt19937 rng(9);
    std::uniform_real_distribution<double> u(-1, 1);
    std::vector<T> source(static_cast<std::size_t>(ld) * w);
    for (T& v : source)
        v = static_cast<T>(u(rng));
    std::vector<T> a, upper(static_cast<std::size_t>(ld - w) * w),
        work(static_cast<std::size_t>(ldltWorkspace(w)));
    std::vector<int> p(static_cast<std::size_t>(w)), q(p.size());
    PivotRule<T> rule;
    rule.growth = static_cast<T>(std::sqrt(std::numeric_limits<T>::epsilon() / 2));
    rule.replacement = rule.growth;
    double best = 1e30;
    for (int r = 0; r < reps; ++r) {
        a = source;
        std::fill(upper.begin(), upper.end(), T(0));
        const double t0 = nrt_seconds();
        if (lu)
            luPanel(a.data(), ld, w, upper.data(), ld - w, rule, p.data(), q.data());
        else
            ldltPanel(a.data(), ld, w, true, rule, p.data(), work.data());
        best = std::min(best, nrt_seconds() - t0);
    }
    return best;
}

void printBlocks(int reps) {
    nrt_set_num_threads(1);
    std::printf("diagonal-block kernels alone, one thread, best of %d; milliseconds\n", reps);
    std::printf("  %6s %12s %12s %12s %12s\n", "w", "LDLT single", "LDLT double", "LU single",
                "LU double");
    for (int w : {128, 256, 512, 1024})
        std::printf(
            "  %6d %12.2f %12.2f %12.2f %12.2f\n", w, 1e3 * blockSeconds<float>(false, w, reps),
            1e3 * blockSeconds<double>(false, w, reps), 1e3 * blockSeconds<float>(true, w, reps),
            1e3 * blockSeconds<double>(true, w, reps));
}

} // namespace

int kernelBenchmark(int argc, char** argv) {
    int threads = 2, reps = 3;
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--threads") && i + 1 < argc)
            threads = std::max(1, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--reps") && i + 1 < argc)
            reps = std::max(1, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--quick"))
            quick = true;
    }
    struct System {
        Problem p;
        int mtype;
    };
    std::vector<System> systems;
    systems.push_back({bench::saddlePoint(250, 250, 12500), -2});
    systems.push_back(
        {bench::photoProblem(bench::sourceFile("data/aitzgorri_by_Aitzol_Berasategi.jpg")), -2});
    if (!quick)
        systems.push_back(
            {bench::photoProblem(bench::sourceFile("data/meadows-foggy-smokey-sunbeams.jpg")), -2});
    // Wide supernodes at the top of the tree: where the block kernels weigh most.
    systems.push_back({bench::laplacian3d(quick ? 20 : 30), -2});
    systems.push_back({convectionDiffusion(quick ? 20 : 30), 11});

    const char* policy = std::getenv("OMP_WAIT_POLICY");
    std::printf("numeric factorization (phase 22) alone, best of %d; OpenBLAS %s build (%s), "
                "OMP_WAIT_POLICY %s\n",
                reps, blasBuild(), openblas_get_config(), policy ? policy : "unset");
    std::printf("  %-7s %8s %8s %8s %8s %7s %9s %9s\n", "", "1 thread",
                (std::to_string(threads) + " thr.").c_str(), "speed-up", "cpu s", "cpu/wall",
                "idle ms", "perturbed");
    for (const System& s : systems) {
        std::printf("%s: mtype %d, n %d, nnz %zu\n", s.p.name.c_str(), s.mtype, s.p.n,
                    s.p.ja.size());
        printRow("single", measure<float>(s.p, s.mtype, threads, reps));
        printRow("double", measure<double>(s.p, s.mtype, threads, reps));
        std::fflush(stdout);
    }
    printBlocks(reps);
    return 0;
}

int blasBuildsBenchmark(int argc, char** argv) {
    std::vector<const char*> args = {argv[0], "--kernels", "--threads", "2"};
    for (int i = 2; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    int status = 0;
    for (const char* build : {"openblas-pthread", "openblas-openmp"}) {
        const std::string dir = std::string("/usr/lib/x86_64-linux-gnu/") + build;
        if (access((dir + "/libopenblas.so.0").c_str(), R_OK) != 0) {
            std::printf("%s: not installed (scripts/setup installs it)\n", build);
            status = 1;
            continue;
        }
        std::printf("LD_LIBRARY_PATH=%s\n", dir.c_str());
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            setenv("LD_LIBRARY_PATH", dir.c_str(), 1);
            execv("/proc/self/exe", const_cast<char* const*>(args.data()));
            _exit(127);
        }
        int code = 0;
        if (child < 0 || waitpid(child, &code, 0) != child || !WIFEXITED(code) ||
            WEXITSTATUS(code) != 0)
            status = 1;
    }
    return status;
}
