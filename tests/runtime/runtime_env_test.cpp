// Environment variables of the runtime, which reads its environment once per
// process: every case runs in a freshly executed copy of this program (the
// "threadsafe" death-test style) and reports by exit status.

#include "HeapRecorder.h"
#include "runtime/internal/CpuInfo.h"
#include "runtime/internal/FastAllocator.h"
#include "runtime/internal/ThreadControl.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <omp.h>
#include <sched.h>

namespace {

using Variables = std::initializer_list<std::pair<const char*, std::string>>;

// Clears every variable the runtime reads, then sets vars.
void useEnvironment(Variables vars) {
    for (const char* name :
         {"NRT_NUM_THREADS", "NRT_DOMAIN_NUM_THREADS", "NRT_DYNAMIC", "OMP_NUM_THREADS",
          "NRT_MPI_PROCESSES_PER_NODE", "NRT_MPI_THREAD_LEVEL", "NRT_DEBUG_CPU_TYPE",
          "NRT_DEBUG_CPU_MA", "NRT_DISABLE_FAST_MM", "NRT_MM_DISABLE"})
        unsetenv(name);
    for (const auto& [name, value] : vars)
        setenv(name, value.c_str(), 1);
}

// Collects failures inside the child and turns them into its exit status.
class ChildChecks {
public:
    template <typename A, typename B>
    void eq(const A& actual, const B& expected, const char* what) {
        if (actual == expected) return;
        std::ostringstream text;
        text << what << ": got " << actual << ", expected " << expected << '\n';
        std::fputs(text.str().c_str(), stderr);
        ++failures_;
    }
    [[noreturn]] void finish() {
        std::fflush(stdout);
        std::fflush(stderr);
        std::_Exit(failures_ == 0 ? 0 : 1);
    }

private:
    int failures_ = 0;
};

#define IN_FRESH_PROCESS(variables, body)                                                          \
    do {                                                                                           \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                            \
        EXPECT_EXIT(                                                                               \
            {                                                                                      \
                useEnvironment(variables);                                                         \
                ChildChecks check;                                                                 \
                body;                                                                              \
                check.finish();                                                                    \
            },                                                                                     \
            ::testing::ExitedWithCode(0), "");                                                     \
    } while (false)

// Variables lists contain commas, which the preprocessor would split.
#define VARS(...)                                                                                  \
    Variables {                                                                                    \
        __VA_ARGS__                                                                                \
    }

TEST(ThreadVariables, GarbledCountMeansOneThreadAndZeroIsIgnored) {
    IN_FRESH_PROCESS(VARS({"NRT_NUM_THREADS", "abc"}, {"NRT_DYNAMIC", "false"}), {
        check.eq(nrt_get_max_threads(), 1, "threads");
        check.eq(nrt::detail::threadFieldsSnapshot().num_threads, 1, "num_threads");
    });
    IN_FRESH_PROCESS(VARS({"NRT_NUM_THREADS", "0"}, {"NRT_DYNAMIC", "false"}), {
        check.eq(nrt::detail::threadFieldsSnapshot().num_threads, -1, "num_threads");
        check.eq(nrt_get_max_threads(), omp_get_max_threads(), "threads");
    });
}

TEST(ThreadVariables, DomainListDoesNotOverruleTheGeneralCount) {
    IN_FRESH_PROCESS(VARS({"NRT_NUM_THREADS", "8"},
                          {"NRT_DOMAIN_NUM_THREADS", "NRT_ALL=4, NRT_BLAS=2"},
                          {"NRT_DYNAMIC", "false"}),
                     {
                         const auto f = nrt::detail::threadFieldsSnapshot();
                         check.eq(f.num_threads, 8, "num_threads");
                         check.eq(f.domain_blas, 2, "domain_blas");
                         check.eq(nrt_get_max_threads(), 8, "general");
                         check.eq(nrt_domain_get_max_threads(NRT_DOMAIN_BLAS), 2, "blas");
                         check.eq(nrt_domain_get_max_threads(NRT_DOMAIN_FFT), 8, "fft");
                     });
}

TEST(ThreadVariables, OverlongValueCountsAsUnset) {
    const std::string longList = "NRT_BLAS=3" + std::string(300, ' ');
    IN_FRESH_PROCESS(VARS({"NRT_DOMAIN_NUM_THREADS", longList}), {
        check.eq(nrt::detail::threadFieldsSnapshot().domain_blas, -1, "domain_blas");
    });
}

TEST(ThreadVariables, DynamicOnlyExactFalseTurnsItOff) {
    for (const char* off : {"FALSE", "false"})
        IN_FRESH_PROCESS(VARS({"NRT_DYNAMIC", off}),
                         { check.eq(nrt_get_dynamic(), 0, "dynamic"); });
    for (const char* on : {"False", "0"})
        IN_FRESH_PROCESS(VARS({"NRT_DYNAMIC", on}), { check.eq(nrt_get_dynamic(), 1, "dynamic"); });
}

// Kept out of the macros: a pragma in a macro argument would move in front of it.
int answerInsideRegion() {
    int inside = -1;
#pragma omp parallel num_threads(2)
    {
#pragma omp single
        inside = nrt_get_max_threads();
    }
    return inside;
}

TEST(ThreadVariables, InsideARegionDynamicOffGivesTheRequest) {
    IN_FRESH_PROCESS(VARS({"NRT_NUM_THREADS", "3"}, {"NRT_DYNAMIC", "false"}),
                     { check.eq(answerInsideRegion(), 3, "inside region"); });
    IN_FRESH_PROCESS(VARS({"NRT_NUM_THREADS", "3"}),
                     { check.eq(answerInsideRegion(), 1, "inside region"); });
}

TEST(ThreadVariables, SetterBeforeFirstUseWinsAndLaterSettersReplace) {
    IN_FRESH_PROCESS(VARS({"NRT_NUM_THREADS", "5"}, {"NRT_DYNAMIC", "false"}), {
        nrt_set_num_threads(3);
        check.eq(nrt_get_max_threads(), 3, "after early setter");
        nrt_set_num_threads(7);
        check.eq(nrt_get_max_threads(), 7, "after late setter");
        nrt_set_num_threads(0);
        nrt_set_num_threads(-4);
        check.eq(nrt_get_max_threads(), 7, "after ignored setters");
    });
}

TEST(ThreadVariables, EnvironmentIsReadOnce) {
    IN_FRESH_PROCESS(VARS({"NRT_NUM_THREADS", "2"}, {"NRT_DYNAMIC", "false"}), {
        check.eq(nrt_get_max_threads(), 2, "first");
        setenv("NRT_NUM_THREADS", "6", 1);
        setenv("NRT_DYNAMIC", "true", 1);
        check.eq(nrt_get_max_threads(), 2, "after change");
        check.eq(nrt_get_dynamic(), 0, "dynamic after change");
    });
}

TEST(ThreadVariables, MpiAndOpenMpValuesAreRecorded) {
    IN_FRESH_PROCESS(VARS({"NRT_MPI_PROCESSES_PER_NODE", "4"}, {"NRT_MPI_THREAD_LEVEL", "2"},
                          {"OMP_NUM_THREADS", "3"}),
                     {
                         const auto f = nrt::detail::threadFieldsSnapshot();
                         check.eq(f.mpi_per_node, 4, "mpi_per_node");
                         check.eq(f.mpi_thread_level, 2, "mpi_thread_level");
                         check.eq(f.omp_env_threads, 3, "omp_env_threads");
                     });
}

// What a child started under taskset with a clean environment reports.
struct ChildReport {
    int granted = -1;
    int explained = -1;
    std::string reason;
};

ChildReport runChild(const std::string& cpus, const std::string& variables) {
    std::string command = "env";
    for (const char* name : {"NRT_NUM_THREADS", "NRT_DOMAIN_NUM_THREADS", "NRT_DYNAMIC",
                             "OMP_NUM_THREADS", "NRT_MPI_PROCESSES_PER_NODE"})
        command += std::string(" -u ") + name;
    command += " " + variables;
    if (!cpus.empty()) command += " taskset -c " + cpus;
    command += " " THREAD_REPORT_CHILD;
    ChildReport report;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return report;
    char line[512] = {};
    int consumed = 0;
    if (std::fgets(line, sizeof line, pipe) &&
        std::sscanf(line, "%d %d %n", &report.granted, &report.explained, &consumed) == 2)
        report.reason = std::string(line + consumed);
    pclose(pipe);
    return report;
}

std::string siblingsOf(int cpu) {
    std::ifstream file("/sys/devices/system/cpu/cpu" + std::to_string(cpu) +
                       "/topology/thread_siblings_list");
    std::string text;
    std::getline(file, text);
    return text;
}

TEST(Topology, ConfinedProcessGetsTheCoresOfItsMask) {
    cpu_set_t mask;
    ASSERT_EQ(sched_getaffinity(0, sizeof mask, &mask), 0);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &mask)) cpus.push_back(cpu);
    const auto self = nrt::detail::threadFieldsSnapshot();
    const auto underQuota = [&](int cores) {
        return self.quota_millicpus > 0 ? std::min(cores, (self.quota_millicpus + 999) / 1000)
                                        : cores;
    };

    struct Case {
        std::string cpus;
        std::string variables;
        int expected;
        std::string because; // a part of the reason
    };
    const std::string one = std::to_string(cpus.front());
    const std::string confined = self.machine_cores > 1 ? "affinity mask" : "";
    std::vector<Case> cases = {
        {one, "", 1, confined},
        {one, "NRT_NUM_THREADS=4", 1, confined},
        {one, "NRT_NUM_THREADS=4 NRT_DYNAMIC=false", 4, "NRT_NUM_THREADS=4"},
        {"", "", self.physical_cores, ""},
        {"", "NRT_NUM_THREADS=1", 1, "NRT_NUM_THREADS=1"},
    };
    if (cpus.size() >= 2) {
        const bool sameCore = siblingsOf(cpus[0]) == siblingsOf(cpus[1]);
        const std::string two = one + "," + std::to_string(cpus[1]);
        cases.push_back({two, "", underQuota(sameCore ? 1 : 2), ""});
        cases.push_back({two, "NRT_NUM_THREADS=1", 1, "NRT_NUM_THREADS=1"});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE("cpus '" + c.cpus + "', " + c.variables);
        const ChildReport report = runChild(c.cpus, c.variables);
        EXPECT_EQ(report.granted, c.expected);
        EXPECT_EQ(report.explained, report.granted);
        EXPECT_NE(report.reason.find(c.because), std::string::npos) << report.reason;
    }
}

bool hasCpuFlag(const char* flag) {
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line))
        if (line.rfind("flags", 0) == 0)
            return (line + " ").find(std::string(" ") + flag + " ") != std::string::npos;
    return false;
}

TEST(CpuVariables, TypeRequests) {
    IN_FRESH_PROCESS(VARS({"NRT_DEBUG_CPU_TYPE", "1"}), {
        check.eq(nrt_cpu_detect(), 0, "type");
        check.eq(nrt_cpu_subcode(), 0, "subcode");
    });
    IN_FRESH_PROCESS(VARS({"NRT_DEBUG_CPU_TYPE", "0"}), { check.eq(nrt_cpu_detect(), 0, "type"); });
    IN_FRESH_PROCESS(VARS({"NRT_DEBUG_CPU_TYPE", "3"}), {
        check.eq(nrt_cpu_detect(), 3, "type");
        // The processor's own answer is kept apart from the request.
        check.eq(nrt::detail::detectedTypeCache() >= 0, true, "detected");
    });
    for (const char* ignored : {"6", "00"}) {
        IN_FRESH_PROCESS(VARS({"NRT_DEBUG_CPU_TYPE", ignored}), {
            const int type = nrt_cpu_detect();
            check.eq(type, nrt::detail::detectedTypeCache(), "type");
        });
    }
}

TEST(CpuVariables, SubcodeRequestActsOnTypeFiveOnly) {
    IN_FRESH_PROCESS(VARS({"NRT_DEBUG_CPU_TYPE", "5"}, {"NRT_DEBUG_CPU_MA", "66"}),
                     { check.eq(nrt_cpu_subcode(), 66, "subcode"); });
    const int tableFive = hasCpuFlag("aes") ? 66 : 64;
    IN_FRESH_PROCESS(VARS({"NRT_DEBUG_CPU_TYPE", "5"}, {"NRT_DEBUG_CPU_MA", "65"}),
                     { check.eq(nrt_cpu_subcode(), tableFive, "subcode"); });
    const int tableFour = hasCpuFlag("sse4_1") ? 33 : 32;
    IN_FRESH_PROCESS(VARS({"NRT_DEBUG_CPU_TYPE", "4"}, {"NRT_DEBUG_CPU_MA", "66"}),
                     { check.eq(nrt_cpu_subcode(), tableFour, "subcode"); });
}

TEST(MemoryVariables, AnyValueSwitchesTheCacheOff) {
    const std::string overlong(100, 'y');
    const Variables cases[] = {VARS({"NRT_DISABLE_FAST_MM", ""}),
                               VARS({"NRT_DISABLE_FAST_MM", overlong}),
                               VARS({"NRT_MM_DISABLE", "0"})};
    for (const Variables& vars : cases) {
        IN_FRESH_PROCESS(vars, {
            nrt_test::RecordingHeap heap;
            void* p = nrt_fast_malloc(100, 64);
            check.eq(p != nullptr, true, "allocated");
            check.eq(heap.log().lastSize.load(), std::size_t{100}, "plain malloc size");
            nrt_fast_free(p);
            check.eq(heap.log().frees.load(), 1L, "plain free");
            check.eq(nrt::detail::currentThreadCache().size(), std::size_t{0}, "cache");
            check.eq(nrt::detail::fastCacheEnabled(), false, "enabled");
        });
    }
    IN_FRESH_PROCESS(VARS(), {
        nrt_test::RecordingHeap heap;
        nrt_fast_free(nrt_fast_malloc(100, 64));
        check.eq(heap.log().frees.load(), 0L, "cached");
        check.eq(nrt::detail::fastCacheEnabled(), true, "enabled");
    });
}

} // namespace
