// Thread control: how many threads the numerical code may use.
//
// The record is filled once per process under the runtime lock with a double
// test of env_pending. After that only num_threads can change (through the
// setter), so it is the one field kept atomic; the others are published by the
// release store of env_pending and read without a lock.

#include "runtime/internal/ThreadControl.h"
#include "runtime/internal/Environment.h"
#include "runtime/internal/SpinLock.h"
#include "runtime/nrt.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string_view>

#include <omp.h>

namespace nrt::detail {
namespace {

bool hasNonDigit(std::string_view text) noexcept {
    return std::any_of(text.begin(), text.end(), [](char c) { return c < '0' || c > '9'; });
}

// A thread-count variable: a garbled value means one thread, by design, so that
// a typo cannot silently hand the library every core. Empty reads as 0.
int threadCountValue(std::string_view text) noexcept {
    return hasNonDigit(text) ? 1 : digitsValue(text);
}

bool isOneOf(char c, std::string_view set) noexcept {
    return set.find(c) != std::string_view::npos;
}

struct Record {
    ThreadFields fields;              // published by env_pending
    std::atomic<int> num_threads{-1}; // the one field that changes later
    std::atomic<int> env_pending{1};
    std::atomic<bool> set_by_caller{false};
    std::atomic<long long> domain_queries{0};
};

Record& record() noexcept {
    static Record r;
    return r;
}

void ensureInitialised() {
    Record& r = record();
    if (r.env_pending.load(std::memory_order_acquire) == 0) return;
    std::lock_guard guard(runtimeLock());
    if (r.env_pending.load(std::memory_order_relaxed) == 0) return;

    ThreadFields f = r.fields;
    f.num_threads = r.num_threads.load(std::memory_order_relaxed);
    applyThreadEnvironment(
        f, [](const char* name) { return readEnvironment(name, kThreadVariableBuffer); });

    const Topology topology = probeTopology();
    f.physical_cores = topology.physical_cores;
    f.logical_cpus = topology.logical_cpus;
    f.mask_cores = topology.mask_cores;
    f.machine_cores = topology.machine_cores;
    f.quota_millicpus = topology.quota_millicpus;
    if (topology.packages > 0) {
        // The hardware, not the quota, decides these two.
        const int cores = topology.mask_cores > 0 ? topology.mask_cores : f.physical_cores;
        f.packages = topology.packages;
        f.cores_per_package = cores / f.packages;
        f.hyperthreaded = cores == f.logical_cpus ? 0 : 1;
    }
    f.env_pending = 0;

    r.fields = f;
    r.num_threads.store(f.num_threads, std::memory_order_relaxed);
    r.env_pending.store(0, std::memory_order_release);
}

ThreadFields currentFields() {
    ensureInitialised();
    Record& r = record();
    ThreadFields f = r.fields;
    f.num_threads = r.num_threads.load(std::memory_order_relaxed);
    if (r.set_by_caller.load(std::memory_order_relaxed)) f.num_threads_origin = kOriginCaller;
    return f;
}

} // namespace

void parseDomainList(ThreadFields& fields, std::string_view text) {
    constexpr std::string_view separators = " ,;:\"'";
    constexpr std::string_view keyEnd = "=\"' ";
    constexpr std::string_view valueEnd = " ,;:\"'";

    std::size_t i = 0;
    const std::size_t n = text.size();
    for (;;) {
        while (i < n && isOneOf(text[i], separators))
            ++i;
        const std::size_t keyBegin = i;
        while (i < n && !isOneOf(text[i], keyEnd))
            ++i;
        const std::string_view key = text.substr(keyBegin, i - keyBegin);
        if (key.empty()) return;
        while (i < n && (text[i] == ' ' || text[i] == '='))
            ++i;
        const std::size_t valueBegin = i;
        while (i < n && !isOneOf(text[i], valueEnd))
            ++i;
        const std::string_view valueText = text.substr(valueBegin, i - valueBegin);
        const int value =
            (valueText.empty() || hasNonDigit(valueText)) ? 1 : digitsValue(valueText);

        int* field = nullptr;
        if (key == "NRT_ALL")
            field = &fields.num_threads;
        else if (key == "NRT_BLAS")
            field = &fields.domain_blas;
        else if (key == "NRT_FFT")
            field = &fields.domain_fft;
        else if (key == "NRT_VEC")
            field = &fields.domain_vml;
        if (field != nullptr && value >= 1 && *field < 0) {
            *field = value;
            if (field == &fields.num_threads) fields.num_threads_origin = kOriginDomainList;
        }
    }
}

void applyThreadEnvironment(ThreadFields& f, const EnvironmentLookup& lookup) {
    if (const auto text = lookup("NRT_NUM_THREADS")) {
        const int value = threadCountValue(*text);
        if (value >= 1 && f.num_threads < 0) {
            f.num_threads = value;
            f.num_threads_origin = kOriginVariable;
        }
    }

    if (const auto text = lookup("NRT_DOMAIN_NUM_THREADS")) parseDomainList(f, *text);

    if (f.dynamic == -1) {
        f.dynamic = 1;
        if (const auto text = lookup("NRT_DYNAMIC")) {
            std::string_view v = *text;
            constexpr std::string_view trim = " \"'";
            while (!v.empty() && isOneOf(v.front(), trim))
                v.remove_prefix(1);
            while (!v.empty() && isOneOf(v.back(), trim))
                v.remove_suffix(1);
            if (v == "FALSE" || v == "false") f.dynamic = 0;
        }
    }

    if (const auto text = lookup("OMP_NUM_THREADS")) {
        const int value = threadCountValue(*text);
        if (value > 0) f.omp_env_threads = value;
    }

    if (const auto text = lookup("NRT_MPI_PROCESSES_PER_NODE")) {
        if (allDigits(*text) && digitsValue(*text) > 0) f.mpi_per_node = digitsValue(*text);
    }

    f.mpi_thread_level = 0;
    if (const auto text = lookup("NRT_MPI_THREAD_LEVEL")) {
        if (allDigits(*text) && digitsValue(*text) <= 3) f.mpi_thread_level = digitsValue(*text);
    }
}

int decideThreadCount(const ThreadFields& f, int domain, bool inParallel,
                      int ompMaxThreads) noexcept {
    const bool dynamicOn = f.dynamic != 0;
    if (dynamicOn && inParallel) return 1;

    int requested = -1;
    switch (domain) {
    case NRT_DOMAIN_BLAS:
        requested = f.domain_blas;
        break;
    case NRT_DOMAIN_FFT:
        requested = f.domain_fft;
        break;
    case NRT_DOMAIN_VEC:
        requested = f.domain_vml;
        break;
    default:
        break;
    }
    if (requested < 1) requested = f.num_threads;
    const bool explicitCount = requested >= 1;
    const int t = explicitCount ? requested : std::max(1, ompMaxThreads);

    if (!dynamicOn) return t;

    const int c = f.physical_cores >= 1 ? std::min(t, f.physical_cores) : t;
    if (f.dynamic_state == -1) {
        if (f.mpi_per_node == -1 || explicitCount || f.omp_env_threads > 0) return c;
        if (f.mpi_thread_level > 0 && f.physical_cores / f.mpi_per_node > 1)
            return f.physical_cores / f.mpi_per_node;
        return 1;
    }
    return f.dynamic_state != 0 ? c : 1;
}

ThreadFields threadFieldsSnapshot() {
    return currentFields();
}

long long domainQueryCount() noexcept {
    return record().domain_queries.load(std::memory_order_relaxed);
}

} // namespace nrt::detail

using namespace nrt::detail;

extern "C" int nrt_get_max_threads(void) {
    return decideThreadCount(currentFields(), NRT_DOMAIN_ALL, omp_in_parallel() != 0,
                             omp_get_max_threads());
}

extern "C" int nrt_domain_get_max_threads(int domain) {
    record().domain_queries.fetch_add(1, std::memory_order_relaxed);
    return decideThreadCount(currentFields(), domain, omp_in_parallel() != 0,
                             omp_get_max_threads());
}

extern "C" void nrt_set_num_threads(int n) {
    if (n < 1) return;
    // Under the lock so that a setter racing with the first query is never
    // overwritten by the environment step's copy of the field.
    std::lock_guard guard(runtimeLock());
    record().num_threads.store(n, std::memory_order_relaxed);
    record().set_by_caller.store(true, std::memory_order_relaxed);
}

extern "C" int nrt_get_dynamic(void) {
    return currentFields().dynamic;
}

extern "C" int nrt_physical_cores(void) {
    return currentFields().physical_cores;
}

extern "C" int nrt_explain_threads(int request, char* text, size_t size) {
    ThreadFields f = currentFields();
    if (request >= 1) {
        f.num_threads = request;
        f.num_threads_origin = kOriginCaller;
    }
    const ThreadGrant grant = explainThreadCount(f, omp_get_max_threads());
    if (text != nullptr && size > 0) {
        const std::size_t length = std::min(size - 1, grant.reason.size());
        std::memcpy(text, grant.reason.data(), length);
        text[length] = '\0';
    }
    return grant.threads;
}
