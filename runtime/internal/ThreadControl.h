// Thread control: the process-wide record behind nrt_get_max_threads and its
// relatives, and the pure steps that fill and read it.
//
// The record is filled once: the first query takes the runtime lock, reads the
// environment in a fixed order (an earlier step is never overruled by a later
// one, and nrt_set_num_threads called before wins over all of them) and runs
// the topology probe. From then on the answers read the fields without a lock.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace nrt::detail {

// One copy of the record's fields. -1 means "not set" throughout.
struct ThreadFields {
    int num_threads = -1;
    int domain_blas = -1;
    int domain_fft = -1;
    int domain_vml = -1;
    int dynamic = -1;
    int dynamic_state = -1;
    int omp_env_threads = -1;
    int mpi_per_node = -1;
    int mpi_thread_level = -1;
    int physical_cores = -1;
    int logical_cpus = 1;
    int packages = -1;
    int cores_per_package = -1;
    int hyperthreaded = -1;
    int env_pending = 1;
    // Why the counts are what they are, for nrt_explain_threads.
    int mask_cores = -1;        // distinct cores in the affinity mask
    int machine_cores = -1;     // distinct cores among the online processors
    int quota_millicpus = -1;   // cgroup CPU quota in thousandths of a CPU
    int num_threads_origin = 0; // a ThreadOrigin
};

// Where num_threads came from.
enum ThreadOrigin { kOriginNone = 0, kOriginVariable, kOriginDomainList, kOriginCaller };

// Looks a variable up; nothing when it is unset or does not fit the buffer.
using EnvironmentLookup = std::function<std::optional<std::string>(const char* name)>;

// Steps 1 to 6 of the environment step (everything but the probe), applied to
// fields in place.
void applyThreadEnvironment(ThreadFields& fields, const EnvironmentLookup& lookup);

// The NRT_DOMAIN_NUM_THREADS list, e.g. "NRT_ALL=4, NRT_BLAS=2".
void parseDomainList(ThreadFields& fields, std::string_view text);

// The thread count of a domain (0 all, 1 BLAS, 2 FFT, 3 VEC) under fields,
// given whether the caller is inside a parallel region and what OpenMP would
// grant.
int decideThreadCount(const ThreadFields& fields, int domain, bool inParallel,
                      int ompMaxThreads) noexcept;

// What the topology probe learnt. physical_cores is what the process may use:
// the distinct cores of its affinity mask, lowered by a cgroup CPU quota.
struct Topology {
    int physical_cores = 1;
    int logical_cpus = 1;
    int packages = -1;
    int mask_cores = -1;
    int machine_cores = -1;
    int quota_millicpus = -1;
};

// Where one logical processor sits.
struct ProcessorPlace {
    int package = 0;
    int core = 0;
};

// Counts distinct cores and packages among the visited processors.
Topology countTopology(std::span<const ProcessorPlace> visited);

// Where the probe learns each processor's place: the kernel's sysfs view
// (falling back to the processor where it is missing), or the processor's
// own APIC ids only.
enum class TopologySource { Sysfs, Processor };

// Runs the probe for this process: the distinct cores among the processors of
// its affinity mask, lowered by its cgroup CPU quota.
Topology probeTopology(TopologySource source = TopologySource::Sysfs);

// The CPU quota of a cgroup file, in thousandths of a CPU, or -1 for none:
// cgroup v2 "cpu.max" text ("150000 100000", "max 100000"), or the v1 pair of
// cpu.cfs_quota_us and cpu.cfs_period_us.
int quotaFromCpuMax(std::string_view text) noexcept;
int quotaFromCfs(long long quotaUs, long long periodUs) noexcept;

// The tightest CPU quota of the process's cgroup and its ancestors, in
// thousandths of a CPU, or -1 when there is none. The paths are parameters so
// that tests can lay out a hierarchy of their own.
int cgroupCpuQuota(const std::string& procCgroup = "/proc/self/cgroup",
                   const std::string& cgroupRoot = "/sys/fs/cgroup");

// The general thread count granted outside a parallel region under fields,
// and why, in words.
struct ThreadGrant {
    int threads = 1;
    std::string reason;
};
ThreadGrant explainThreadCount(const ThreadFields& fields, int ompMaxThreads);

// The record as it is now, environment step included. For tests and reports.
ThreadFields threadFieldsSnapshot();

// Number of nrt_domain_get_max_threads calls so far, for tests that check that
// a kernel does not ask.
long long domainQueryCount() noexcept;

} // namespace nrt::detail
