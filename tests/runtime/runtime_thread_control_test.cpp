// Thread control: the parsing of each variable, the decision rule of the
// thread count with its dynamic, explicit and MPI branches, and the topology
// probe with its CPU quota, and the words that explain a count. Cases that need the real
// environment live in runtime_env_test.

#include "runtime/internal/ThreadControl.h"
#include "runtime/nrt.h"
#include "runtime/nrt_work.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <omp.h>
#include <sched.h>
#include <unistd.h>

using namespace nrt::detail;

namespace {

ThreadFields fromEnvironment(const std::map<std::string, std::string>& variables) {
    ThreadFields f;
    applyThreadEnvironment(f, [&variables](const char* name) -> std::optional<std::string> {
        const auto it = variables.find(name);
        if (it == variables.end()) return std::nullopt;
        return it->second;
    });
    return f;
}

TEST(ThreadEnvironment, NumThreadsGarbledMeansOneAndNonPositiveIsIgnored) {
    EXPECT_EQ(fromEnvironment({{"NRT_NUM_THREADS", "abc"}}).num_threads, 1);
    EXPECT_EQ(fromEnvironment({{"NRT_NUM_THREADS", "-3"}}).num_threads, 1); // '-' is no digit
    EXPECT_EQ(fromEnvironment({{"NRT_NUM_THREADS", ""}}).num_threads, -1);
    EXPECT_EQ(fromEnvironment({{"NRT_NUM_THREADS", "12"}}).num_threads, 12);
    EXPECT_EQ(fromEnvironment({{"NRT_NUM_THREADS", "99999999999999"}}).num_threads, INT_MAX);
}

TEST(ThreadEnvironment, EarlierValuesAreNeverOverruled) {
    // A setter called before the first query has left num_threads at 3.
    ThreadFields f;
    f.num_threads = 3;
    applyThreadEnvironment(f, [](const char* name) -> std::optional<std::string> {
        if (std::string(name) == "NRT_NUM_THREADS") return "8";
        if (std::string(name) == "NRT_DOMAIN_NUM_THREADS") return "NRT_ALL=6";
        return std::nullopt;
    });
    EXPECT_EQ(f.num_threads, 3);
}

TEST(ThreadEnvironment, DomainListSeparatorsQuotesAndBadValues) {
    struct Case {
        const char* text;
        int all, blas, fft, vec;
    };
    const std::vector<Case> cases = {
        {"  NRT_FFT = 3 ; NRT_VEC=5", -1, -1, 3, 5},
        {"'NRT_BLAS'=7", -1, 1, -1, -1},         // quote ends the key, empty value: 1
        {"\"NRT_BLAS=7\"", -1, 7, -1, -1},       // quotes round the pair are skipped
        {"NRT_BLAS=x2 NRT_FFT=", -1, 1, 1, -1},  // non-digit or empty value: 1
        {"NRT_BLAS=0,NRT_FFT=2", -1, -1, 2, -1}, // zero is ignored
        {"NRT_UNKNOWN=5:NRT_VEC=6", -1, -1, -1, 6},
        {"NRT_BLAS=2,NRT_BLAS=9", -1, 2, -1, -1}, // the first value stays
        {"NRT_ALL:4", -1, -1, -1, -1},            // a colon does not end a key
        {"==NRT_BLAS=2", -1, -1, -1, -1},         // empty first key ends the parse
    };
    for (const Case& c : cases) {
        ThreadFields f;
        parseDomainList(f, c.text);
        EXPECT_EQ(f.num_threads, c.all) << c.text;
        EXPECT_EQ(f.domain_blas, c.blas) << c.text;
        EXPECT_EQ(f.domain_fft, c.fft) << c.text;
        EXPECT_EQ(f.domain_vml, c.vec) << c.text;
    }
}

TEST(ThreadEnvironment, DynamicIsOffOnlyForExactFalse) {
    EXPECT_EQ(fromEnvironment({}).dynamic, 1);
    EXPECT_EQ(fromEnvironment({{"NRT_DYNAMIC", "  'false' "}}).dynamic, 0);
    EXPECT_EQ(fromEnvironment({{"NRT_DYNAMIC", "\"FALSE\""}}).dynamic, 0);
    EXPECT_EQ(fromEnvironment({{"NRT_DYNAMIC", "falsey"}}).dynamic, 1);
}

TEST(ThreadEnvironment, OpenMpAndMpiVariables) {
    EXPECT_EQ(fromEnvironment({{"OMP_NUM_THREADS", "6"}}).omp_env_threads, 6);
    EXPECT_EQ(fromEnvironment({{"OMP_NUM_THREADS", "4,2"}}).omp_env_threads, 1);
    EXPECT_EQ(fromEnvironment({{"OMP_NUM_THREADS", "0"}}).omp_env_threads, -1);

    EXPECT_EQ(fromEnvironment({{"NRT_MPI_PROCESSES_PER_NODE", "0"}}).mpi_per_node, -1);
    EXPECT_EQ(fromEnvironment({{"NRT_MPI_PROCESSES_PER_NODE", "x"}}).mpi_per_node, -1);

    EXPECT_EQ(fromEnvironment({}).mpi_thread_level, 0); // reset even when unset
    EXPECT_EQ(fromEnvironment({{"NRT_MPI_THREAD_LEVEL", "4"}}).mpi_thread_level, 0);
    EXPECT_EQ(fromEnvironment({{"NRT_MPI_THREAD_LEVEL", "2a"}}).mpi_thread_level, 0);
}

// A record as the environment step would leave it on a machine of `cores`.
ThreadFields machine(int cores) {
    ThreadFields f;
    f.dynamic = 1;
    f.mpi_thread_level = 0;
    f.physical_cores = cores;
    f.env_pending = 0;
    return f;
}

TEST(ThreadDecision, DynamicCapsAtCoresAndGivesOneInsideARegion) {
    ThreadFields f = machine(4);
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 8), 4);
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 2), 2);
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, true, 8), 1);
    f.num_threads = 16;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 2), 4);

    f.dynamic = 0; // off: the request stands, inside a region too
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 2), 16);
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, true, 2), 16);
    f.num_threads = -1;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, true, 3), 3);
}

TEST(ThreadDecision, DomainFieldThenGeneralFieldThenOpenMp) {
    ThreadFields f = machine(64);
    f.dynamic = 0;
    f.domain_blas = 2;
    f.num_threads = 5;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_BLAS, false, 7), 2);
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_FFT, false, 7), 5);
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 7), 5);
    EXPECT_EQ(decideThreadCount(f, 42, false, 7), 5); // unknown domain: all
    f.num_threads = -1;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_VEC, false, 7), 7);
    f.domain_vml = 3;
    f.dynamic = 1;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_VEC, false, 7), 3);
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_VEC, true, 7), 1);
}

TEST(ThreadDecision, MpiProcessesShareTheCores) {
    ThreadFields f = machine(16);
    f.mpi_per_node = 4;
    // Not explicit, no OMP_NUM_THREADS, no thread level: one thread per process.
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 16), 1);
    f.mpi_thread_level = 1;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 16), 4);
    f.mpi_per_node = 16; // quotient 1 is not above 1
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 16), 1);
    f.omp_env_threads = 8; // an OpenMP request overrides the sharing
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 8), 8);
    f.omp_env_threads = -1;
    f.num_threads = 6; // and so does an explicit count
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 16), 6);
}

TEST(ThreadDecision, RecordedDynamicState) {
    ThreadFields f = machine(8);
    f.mpi_per_node = 2;
    f.dynamic_state = 1;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 12), 8);
    f.dynamic_state = 0;
    EXPECT_EQ(decideThreadCount(f, NRT_DOMAIN_ALL, false, 12), 1);
}

TEST(ThreadDecision, WorkGetsAThreadPerGrainAndATeamItsAddressSpace) {
    struct Row {
        long long work, grain;
        int limit, threads;
    };
    const Row rows[] = {
        {0, 16, 4, 1},
        {-5, 16, 4, 1},
        {15, 16, 4, 1},
        {32, 16, 4, 2},
        {47, 16, 4, 2},
        {1LL << 40, 16, 4, 4},
        {100, 0, 3, 3},
        {100, 1, 1, 1},
        {(1LL << 18) * 3 - 1, 1LL << 18, 8, 2}, // the haze regions' quarter megapixel
    };
    for (const Row& r : rows)
        EXPECT_EQ(nrt_threads_for_work(r.work, r.grain, r.limit), r.threads)
            << r.work << " / " << r.grain << " up to " << r.limit;
    // No limit: what the process is granted.
    EXPECT_EQ(nrt_threads_for_work(1LL << 40, 1, 0), nrt_get_max_threads());
    // The caller's own stack and arena are mapped already.
    EXPECT_EQ(nrt_thread_reserve_bytes(0), nrt_thread_reserve_bytes(1));
    EXPECT_GE(nrt_thread_reserve_bytes(1), std::size_t{128} << 20);
    EXPECT_GT(nrt_thread_reserve_bytes(2) - nrt_thread_reserve_bytes(1),
              nrt_thread_reserve_bytes(1));
}

TEST(Topology, DistinctCoresAndPackagesAreCounted) {
    // Two packages of two cores with two hardware threads each.
    const std::vector<ProcessorPlace> smt = {{0, 0}, {0, 0}, {0, 1}, {0, 1},
                                             {1, 0}, {1, 0}, {1, 1}, {1, 1}};
    Topology t = countTopology(smt);
    EXPECT_EQ(t.physical_cores, 4); // core 0 of package 0 and 1 are different cores
    EXPECT_EQ(t.logical_cpus, 8);
    EXPECT_EQ(t.packages, 2);

    // More than 32 processors, one thread per core.
    std::vector<ProcessorPlace> wide;
    for (int i = 0; i < 96; ++i)
        wide.push_back({i / 48, i % 48});
    EXPECT_EQ(countTopology(wide).physical_cores, 96);
    t = countTopology({});
    EXPECT_EQ(t.physical_cores, 1);
}

TEST(Topology, CpuQuotaOfTheFilesAndTheTightestAncestor) {
    struct Case {
        const char* cpuMax;
        int millicpus;
    };
    for (const Case& c :
         {Case{"150000 100000", 1500}, Case{"max 100000", -1}, Case{"100000 100000", 1000},
          Case{"1 100000", 1}, Case{"", -1}, Case{"-1 100000", -1}, Case{"150000", -1}}) {
        SCOPED_TRACE(c.cpuMax);
        EXPECT_EQ(quotaFromCpuMax(c.cpuMax), c.millicpus);
    }
    EXPECT_EQ(quotaFromCfs(-1, 100000), -1);
    EXPECT_EQ(quotaFromCfs(250000, 100000), 2500);

    // A v2 leaf without limit under a limited parent, and a looser v1 limit.
    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("nrt-cgroup-" + std::to_string(getpid()));
    const auto write = [&](const std::filesystem::path& file, const char* text) {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text << '\n';
    };
    write(root / "fs/a/b/cpu.max", "max 100000");
    write(root / "fs/a/cpu.max", "150000 100000");
    write(root / "fs/cpu/job/cpu.cfs_quota_us", "300000");
    write(root / "fs/cpu/job/cpu.cfs_period_us", "100000");
    write(root / "self", "1:cpu,cpuacct:/job\n0::/a/b");
    EXPECT_EQ(cgroupCpuQuota((root / "self").string(), (root / "fs").string()), 1500);
    write(root / "self", "1:cpu,cpuacct:/job\n0::/elsewhere");
    EXPECT_EQ(cgroupCpuQuota((root / "self").string(), (root / "fs").string()), 3000);
    write(root / "self", "0::/");
    EXPECT_EQ(cgroupCpuQuota((root / "self").string(), (root / "fs").string()), -1);
    std::filesystem::remove_all(root);
}

TEST(ThreadReport, ReasonNamesTheStepThatSetTheCount) {
    // 4 cores in a mask of a machine of 8, unless a case changes that.
    const auto confined = [] {
        ThreadFields f = machine(4);
        f.mask_cores = 4;
        f.machine_cores = 8;
        return f;
    };
    struct Case {
        const char* name;
        void (*adjust)(ThreadFields&);
        int threads;
        const char* reason;
    };
    const Case cases[] = {
        {"mask", [](ThreadFields&) {}, 4,
         "confined by the affinity mask to 4 of the machine's 8 physical cores"},
        {"whole machine", [](ThreadFields& f) { f.machine_cores = 4; }, 4,
         "all 4 physical cores of the machine"},
        {"quota",
         [](ThreadFields& f) {
             f.quota_millicpus = 1500;
             f.physical_cores = 2;
         },
         2,
         "cgroup CPU quota of 1.50 CPUs, rounded up to 2 (4 physical cores in the affinity mask)"},
        {"variable",
         [](ThreadFields& f) {
             f.num_threads = 3;
             f.num_threads_origin = kOriginVariable;
         },
         3, "NRT_NUM_THREADS=3"},
        {"caller above the cores",
         [](ThreadFields& f) {
             f.num_threads = 6;
             f.num_threads_origin = kOriginCaller;
         },
         4,
         "confined by the affinity mask to 4 of the machine's 8 physical cores; asked for: 6 by "
         "the program"},
        {"dynamic off",
         [](ThreadFields& f) {
             f.dynamic = 0;
             f.num_threads = 6;
             f.num_threads_origin = kOriginDomainList;
         },
         6, "NRT_DOMAIN_NUM_THREADS NRT_ALL=6, taken as is (NRT_DYNAMIC=false)"},
        {"OpenMP variable", [](ThreadFields& f) { f.omp_env_threads = 2; }, 2, "OMP_NUM_THREADS=2"},
        {"MPI", [](ThreadFields& f) { f.mpi_per_node = 2; }, 1,
         "one per process under NRT_MPI_PROCESSES_PER_NODE=2"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ThreadFields f = confined();
        c.adjust(f);
        const ThreadGrant grant = explainThreadCount(f, f.omp_env_threads > 0 ? 2 : 16);
        EXPECT_EQ(grant.threads, c.threads);
        EXPECT_EQ(grant.reason, c.reason);
    }
}

TEST(Topology, ProcessorIdsAgreeWithTheKernelsView) {
#if !defined(__x86_64__)
    GTEST_SKIP() << "x86-64 only";
#endif
    // The processor walk (the fallback without sysfs) must agree with sysfs
    // and leave the thread's affinity as it was.
    cpu_set_t before, after;
    ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
    const Topology kernel = probeTopology(TopologySource::Sysfs);
    const Topology processor = probeTopology(TopologySource::Processor);
    ASSERT_EQ(sched_getaffinity(0, sizeof after, &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
    EXPECT_EQ(processor.physical_cores, kernel.physical_cores);
    EXPECT_EQ(processor.logical_cpus, kernel.logical_cpus);
    EXPECT_EQ(processor.packages, kernel.packages);
}

TEST(LiveThreadCount, ProbeAndAnswersAgreeWithThisMachine) {
    const ThreadFields f = threadFieldsSnapshot();
    EXPECT_EQ(f.env_pending, 0);
    EXPECT_GE(f.physical_cores, 1);
    EXPECT_LE(f.physical_cores, omp_get_num_procs());
    EXPECT_EQ(nrt_physical_cores(), f.physical_cores);
    if (f.packages > 0) {
        EXPECT_EQ(f.cores_per_package, f.physical_cores / f.packages);
        EXPECT_EQ(f.hyperthreaded, f.logical_cpus == f.physical_cores ? 0 : 1);
    }
    const int outside = nrt_get_max_threads();
    EXPECT_GE(outside, 1);
    EXPECT_EQ(outside, decideThreadCount(f, NRT_DOMAIN_ALL, false, omp_get_max_threads()));
}

} // namespace
