// bench_solver --ooc [--reps R] [--dir FOLDER] [--quick] [--system S]: the
// factorization
// and the solve with the factor in files against the same in memory, on the
// same matrix, threads and precision (double, the photo tool's parameters
// otherwise). The limit is a quarter of the factor, so most panels stream.
// Printed per system: seconds in core and out of core and their ratio, for
// the factorization, the solve and the two in a row (the usual use), the
// bytes written by one factorization and read by one solve (with its
// refinement steps), whether the answers agree to the last bit. The solve
// runs twice: with the files as the factorization left them (in the page
// cache of a machine with memory to spare) and after they were written out
// and dropped from the cache, so that the first pass takes every byte from
// the disk; and one forward pass alone (phase 331) from a cold cache, which
// reads the factor once. The disk's own sequential rate is measured first,
// the same way (a file written, dropped from the cache and read back in
// large blocks), so that the pass's rate can be set against it, and the
// least time a solve from a cold cache can take on that disk. --system runs
// one of the three systems (40, matting or 50).
#include "FullBenchmark.h"

#include "Handle.h"
#include "runtime/nrt.h"
#include "spds.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

namespace {

using bench::Problem;

// CPU seconds of the whole process (every thread), beside the wall clock:
// on a shared machine the wall time of one run says little alone.
double cpuSeconds() {
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

struct Measured {
    double factor = 1e30;
    double firstFactor = 0; // the handle's first: fresh memory, new files
    double factorCpu = 1e30;
    double solveCpu = 1e30;
    double solve = 1e30;
    double coldSolve = 1e30;
    double both = 1e30;     // a factorization and the solve after it
    double coldPass = 1e30; // one forward pass (phase 331), every byte from the disk
    double pass = 1e30;     // one forward pass with the factor at hand (in memory or cached)
    double writeSeconds = 0, readBackSeconds = 0;
    std::int64_t written = 0;
    std::int64_t readBack = 0; // by the factorization, of panels dropped from the window
    std::int64_t read = 0;
    int factorMb = 0;
    int mode = -1;
    int workMb = 0;
    double indexMb = 0; // the row index array, which a factorization holds whole
    int error = 0;
    std::vector<double> x;
};

// Writes a file out and drops it from the page cache.
void dropFromCache(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ::fdatasync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
}

void dropFromCache(const skyrinse::spds::Handle* h) {
    if (const auto* files = h->factors[0].outOfCore.get())
        for (const std::string& path : files->paths())
            dropFromCache(path);
}

// The disk's sequential read rate in MB/s under `dir`, best and worst of
// `reps`: a file of `mb` MB written, dropped from the cache and read in
// blocks of 4 MB. On a virtual disk the rate depends on the host's cache and
// spreads widely from one read to the next, hence both. {0, 0} when the
// file cannot be made.
struct DiskRate {
    double best = 0, worst = 0;
};

DiskRate diskReadRate(const std::string& dir, int mb, int reps) {
    const std::string path = dir + "/bench_ooc_rate_" + std::to_string(::getpid());
    constexpr std::size_t kBlock = std::size_t(4) << 20;
    std::vector<char> block(kBlock, 1);
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return {};
    const std::int64_t bytes = std::int64_t(mb) << 20;
    bool written = true;
    for (std::int64_t at = 0; at < bytes && written; at += kBlock)
        written = ::pwrite(fd, block.data(), kBlock, at) == static_cast<ssize_t>(kBlock);
    double fastest = 1e30, slowest = 0;
    for (int r = 0; r < reps && written; ++r) {
        dropFromCache(path);
        const double t0 = nrt_seconds();
        for (std::int64_t at = 0; at < bytes;)
            at += std::max<ssize_t>(1, ::pread(fd, block.data(), kBlock, at));
        const double t = nrt_seconds() - t0;
        fastest = std::min(fastest, t);
        slowest = std::max(slowest, t);
    }
    ::close(fd);
    ::unlink(path.c_str());
    if (!written) return {};
    return {mb / fastest, mb / slowest};
}

Measured run(const Problem& p, int ooc, int reps) {
    Measured m;
    std::vector<double> b(static_cast<std::size_t>(p.n), 1.0);
    m.x.assign(b.size(), 0.0);
    void* pt[64] = {};
    int iparm[64] = {};
    photoToolParameters(iparm, false);
    iparm[59] = ooc;
    int maxfct = 1, mnum = 1, mtype = -2, nrhs = 1, msglvl = 0, error = 0, n = p.n;
    double cpu = 0;
    auto call = [&](int phase) {
        const double t0 = nrt_seconds();
        const double c0 = cpuSeconds();
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, p.a.data(), p.ia.data(), p.ja.data(), nullptr,
             &nrhs, iparm, &msglvl, b.data(), m.x.data(), &error);
        if (error != 0 && m.error == 0) m.error = error;
        cpu = cpuSeconds() - c0;
        return nrt_seconds() - t0;
    };
    call(11);
    m.factorMb = iparm[61];
    m.mode = iparm[55];
    m.workMb = iparm[62];
    m.indexMb =
        static_cast<double>(skyrinse::spds::handleOf(pt)->symbolic.lindxSize) * 4 / 1048576.0;
    auto* h = skyrinse::spds::handleOf(pt);
    for (int r = 0; r < reps && m.error == 0; ++r) {
        const double factor = call(22);
        if (r == 0) m.firstFactor = factor;
        m.factor = std::min(m.factor, factor);
        m.factorCpu = std::min(m.factorCpu, cpu);
        // The counters start again with each factorization.
        m.written = h->ooc.io.bytesWritten;
        m.readBack = h->ooc.io.factorBytesRead;
        m.writeSeconds = h->ooc.io.writeSeconds;
        m.readBackSeconds = h->ooc.io.factorReadSeconds;
        const auto mid = h->ooc.io;
        const double solve = call(33);
        m.solve = std::min(m.solve, solve);
        m.both = std::min(m.both, factor + solve);
        m.solveCpu = std::min(m.solveCpu, cpu);
        m.read = h->ooc.io.solveBytesRead - mid.solveBytesRead;
        {
            const std::vector<double> x = m.x;
            m.pass = std::min(m.pass, call(331));
            m.x = x;
        }
        if (ooc != 0) {
            // The pass first: the files' first write-out to the disk goes
            // with the first drop, and the disk may still be busy with it
            // for a while after. Its answer is not the solve's.
            const std::vector<double> x = m.x;
            dropFromCache(h);
            m.coldPass = std::min(m.coldPass, call(331));
            dropFromCache(h);
            m.coldSolve = std::min(m.coldSolve, call(33));
            m.x = x;
        }
    }
    int phase = -1;
    spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs, iparm,
         &msglvl, nullptr, nullptr, &error);
    return m;
}

} // namespace

int outOfCoreBenchmark(int argc, char** argv) {
    int reps = 3;
    bool quick = false;
    std::string only; // one system: "40", "matting" or "50"
    std::string dir = std::filesystem::temp_directory_path().string();
    for (int i = 2; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc)
            reps = std::max(1, std::atoi(argv[++i]));
        else if (!std::strcmp(argv[i], "--dir") && i + 1 < argc)
            dir = argv[++i];
        else if (!std::strcmp(argv[i], "--quick"))
            quick = true;
        else if (!std::strcmp(argv[i], "--system") && i + 1 < argc)
            only = argv[++i];
    }
    const std::string stem = dir + "/bench_ooc";
    ::setenv("SPDS_OOC_PATH", stem.c_str(), 1);
    ::setenv("SPDS_OOC_KEEP_FILE", "0", 1);
    std::printf("SPDS out of core against in core, best of %d, double, mtype -2, photo tool's "
                "parameters (2 refinement steps), %d threads; files under %s\n",
                reps, nrt_get_max_threads(), dir.c_str());
    std::printf(
        "columns: factor MB and the limit; factorization s in core / out of core (ratio); "
        "solve s in core / out of core, files in the page cache (ratio) / read from disk "
        "(ratio); factorization and solve in a row; MB written and read back by a "
        "factorization (seconds in the calls that wrote and read), read by a solve; same "
        "bits; one forward pass from a cold cache against the disk's rate; then the CPU seconds "
        "of the process (all threads) for the same calls\n");
    if (std::FILE* f = std::fopen("/proc/loadavg", "r")) {
        char load[128] = {};
        if (std::fgets(load, sizeof load, f)) std::printf("load average at start: %s", load);
        std::fclose(f);
    }
    const DiskRate disk = diskReadRate(dir, 320, 5);
    std::printf("disk under %s: sequential read %.0f MB/s at best, %.0f MB/s at worst (a 320 MB "
                "file dropped from the cache, read in 4 MB blocks, 5 times)\n",
                dir.c_str(), disk.best, disk.worst);
    std::vector<Problem> problems;
    if (only.empty() || only == "40") problems.push_back(bench::laplacian3d(quick ? 30 : 40));
    if (!quick && (only.empty() || only == "matting"))
        problems.push_back(
            bench::photoProblem(bench::sourceFile("data/aitzgorri_by_Aitzol_Berasategi.jpg")));
    if (!quick && (only.empty() || only == "50")) problems.push_back(bench::laplacian3d(50));
    for (const Problem& p : problems) {
        ::setenv("SPDS_OOC_MAX_CORE_SIZE", "2000", 1);
        const Measured in = run(p, 0, reps);
        const int limit = std::max(1, in.factorMb / 4);
        ::setenv("SPDS_OOC_MAX_CORE_SIZE", std::to_string(limit).c_str(), 1);
        const Measured out = run(p, 2, reps);
        if (in.error != 0 || out.error != 0) {
            std::printf("%s: error %d in core, %d out of core\n", p.name.c_str(), in.error,
                        out.error);
            continue;
        }
        const bool same = in.x.size() == out.x.size() &&
                          std::memcmp(in.x.data(), out.x.data(), in.x.size() * sizeof(double)) == 0;
        std::printf("%s: n %d, factor %d MB, limit %d MB (mode %d); work arrays %d MB, row "
                    "indices %.1f MB\n",
                    p.name.c_str(), p.n, in.factorMb, limit, out.mode, out.workMb, out.indexMb);
        std::printf("  factorization %.3f / %.3f s (x%.2f); solve %.3f / %.3f s (x%.2f) / %.3f s "
                    "(x%.2f); both %.3f / %.3f s (x%.2f); same bits: %s\n",
                    in.factor, out.factor, out.factor / in.factor, in.solve, out.solve,
                    out.solve / in.solve, out.coldSolve, out.coldSolve / in.solve, in.both,
                    out.both, out.both / in.both, same ? "yes" : "NO");
        std::printf("  first factorization of the handle (new memory, new files): %.3f / %.3f s "
                    "(x%.2f)\n",
                    in.firstFactor, out.firstFactor, out.firstFactor / in.firstFactor);
        std::printf("  written %.1f MB (%.3f s), read back %.1f MB (%.3f s); solve read %.1f MB\n",
                    out.written / 1048576.0, out.writeSeconds, out.readBack / 1048576.0,
                    out.readBackSeconds, out.read / 1048576.0);
        // One pass over the files (the forward sweep alone) from a cold
        // cache reads the factor once, so its rate says how close the solve
        // comes to the disk's.
        const double factorMb = out.written / 1048576.0;
        if (disk.best > 0) {
            std::printf("  cold forward pass: %.1f MB from the disk in %.3f s, %.0f MB/s: %.0f %% "
                        "of the disk's best rate, %.0f %% of its worst\n",
                        factorMb, out.coldPass, factorMb / out.coldPass,
                        100 * factorMb / out.coldPass / disk.best,
                        100 * factorMb / out.coldPass / disk.worst);
            // From a cold cache the factor must come from the disk once; only
            // the first forward pass can overlap that read, since everything
            // after it needs its result. The least the solve can take is then
            // the read at the disk's best rate and the rest of the in-core
            // solve.
            const double read = factorMb / disk.best;
            const double bound = read + std::max(0.0, in.solve - in.pass);
            std::printf("  cold solve's bound: read once %.3f s + in-core solve %.3f s less its "
                        "forward pass %.3f s = %.3f s (x%.2f); reached x%.2f of it\n",
                        read, in.solve, in.pass, bound, bound / in.solve, out.coldSolve / bound);
        }
        std::printf("  cpu: factorization %.3f / %.3f s (x%.2f); solve %.3f / %.3f s (x%.2f)\n",
                    in.factorCpu, out.factorCpu, out.factorCpu / in.factorCpu, in.solveCpu,
                    out.solveCpu, out.solveCpu / in.solveCpu);
        std::fflush(stdout);
    }
    return 0;
}
