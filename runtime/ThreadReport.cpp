// Why a process got the thread count it got, in words, for the --verbose
// reports of the commands. The count itself always comes from
// decideThreadCount, so the words cannot drift from the rule; they name the
// step of the rule that set the count.

#include "runtime/internal/ThreadControl.h"
#include "runtime/nrt.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace nrt::detail {
namespace {

template <typename... Args>
std::string format(const char* pattern, Args... args) {
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, pattern, args...);
    return buffer;
}

std::string requestSource(const ThreadFields& f, int ompMaxThreads) {
    switch (f.num_threads >= 1 ? f.num_threads_origin : kOriginNone) {
    case kOriginVariable:
        return format("NRT_NUM_THREADS=%d", f.num_threads);
    case kOriginDomainList:
        return format("NRT_DOMAIN_NUM_THREADS NRT_ALL=%d", f.num_threads);
    case kOriginCaller:
        return format("%d by the program", f.num_threads);
    default:
        break;
    }
    if (f.num_threads >= 1) return format("%d", f.num_threads);
    if (f.omp_env_threads > 0) return format("OMP_NUM_THREADS=%d", f.omp_env_threads);
    return format("OpenMP's default of %d", std::max(1, ompMaxThreads));
}

std::string coreLimit(const ThreadFields& f) {
    const int cores = f.physical_cores;
    if (f.quota_millicpus > 0 && f.mask_cores > cores)
        return format("cgroup CPU quota of %.2f CPUs, rounded up to %d (%d physical cores in the "
                      "affinity mask)",
                      f.quota_millicpus / 1000.0, cores, f.mask_cores);
    if (f.machine_cores > cores)
        return format("confined by the affinity mask to %d of the machine's %d physical cores",
                      cores, f.machine_cores);
    if (f.machine_cores == cores) return format("all %d physical cores of the machine", cores);
    return format("%d physical cores in the affinity mask", cores);
}

} // namespace

ThreadGrant explainThreadCount(const ThreadFields& f, int ompMaxThreads) {
    ThreadGrant grant;
    grant.threads = decideThreadCount(f, NRT_DOMAIN_ALL, false, ompMaxThreads);
    const bool explicitCount = f.num_threads >= 1;
    const int requested = explicitCount ? f.num_threads : std::max(1, ompMaxThreads);

    if (f.dynamic == 0)
        grant.reason = requestSource(f, ompMaxThreads) + ", taken as is (NRT_DYNAMIC=false)";
    else if (f.dynamic_state == 0)
        grant.reason = "dynamic adjustment chose one thread";
    else if (f.dynamic_state == -1 && f.mpi_per_node != -1 && !explicitCount &&
             f.omp_env_threads <= 0)
        grant.reason =
            grant.threads > 1
                ? format("%d physical cores shared by NRT_MPI_PROCESSES_PER_NODE=%d",
                         f.physical_cores, f.mpi_per_node)
                : format("one per process under NRT_MPI_PROCESSES_PER_NODE=%d", f.mpi_per_node);
    else if (f.physical_cores >= 1 && f.physical_cores < requested && explicitCount)
        grant.reason = coreLimit(f) + "; asked for: " + requestSource(f, ompMaxThreads);
    else if (f.physical_cores >= 1 && f.physical_cores <= requested)
        grant.reason = coreLimit(f);
    else
        grant.reason = requestSource(f, ompMaxThreads);
    return grant;
}

} // namespace nrt::detail
