// Topology probe: how many distinct physical cores the process may run on.
//
// The processors that count are those of the process's affinity mask, since a
// process confined by taskset, a container's cpuset or a batch scheduler's
// binding can run nowhere else; hardware threads of one core count once. A
// cgroup CPU quota lowers the count further, rounded up.
//
// Linux publishes each processor's core and package in sysfs, for every x86
// vendor and beyond, so that is read first. Where sysfs is missing (some
// containers mask it) the calling thread is moved onto each processor of the
// mask in turn and asks the processor itself for its x2APIC or initial APIC
// id, which the core and package widths of the identification leaves split
// into ids; the thread's own mask is restored afterwards, and the process's
// mask is never changed.

#include "runtime/internal/Cpuid.h"
#include "runtime/internal/ThreadControl.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace nrt::detail {
namespace {

// Owner of a dynamically sized CPU set, so that machines with more processors
// than CPU_SETSIZE are handled.
class CpuSet {
public:
    explicit CpuSet(int count)
        : count_(count), bytes_(CPU_ALLOC_SIZE(count)), set_(CPU_ALLOC(count), &freeSet) {
        if (set_) CPU_ZERO_S(bytes_, set_.get());
    }
    bool valid() const noexcept { return set_ != nullptr; }
    int count() const noexcept { return count_; }
    std::size_t bytes() const noexcept { return bytes_; }
    cpu_set_t* get() const noexcept { return set_.get(); }
    bool has(int cpu) const noexcept { return CPU_ISSET_S(cpu, bytes_, set_.get()); }
    void add(int cpu) noexcept {
        if (cpu >= 0 && cpu < count_) CPU_SET_S(cpu, bytes_, set_.get());
    }

private:
    static void freeSet(cpu_set_t* set) noexcept { CPU_FREE(set); }

    int count_;
    std::size_t bytes_;
    std::unique_ptr<cpu_set_t, void (*)(cpu_set_t*)> set_;
};

int configuredProcessors() {
    const long conf = sysconf(_SC_NPROCESSORS_CONF);
    return static_cast<int>(std::max(conf, 1L));
}

// The affinity of the process's main thread; the caller's own thread may have
// been pinned by someone, which says nothing about the process.
std::unique_ptr<CpuSet> processMask() {
    for (int count = std::max(configuredProcessors(), 1024); count <= (1 << 20); count *= 2) {
        auto set = std::make_unique<CpuSet>(count);
        if (!set->valid()) return nullptr;
        if (sched_getaffinity(getpid(), set->bytes(), set->get()) == 0) return set;
        if (errno != EINVAL) return nullptr;
    }
    return nullptr;
}

// "0-3,8,10-11" as in /sys/devices/system/cpu/online.
std::vector<int> parseCpuList(const std::string& text) {
    std::vector<int> cpus;
    std::stringstream stream(text);
    std::string range;
    while (std::getline(stream, range, ',')) {
        if (range.empty() || range == "\n") continue;
        try {
            const std::size_t dash = range.find('-');
            const int first = std::stoi(range.substr(0, dash));
            const int last = dash == std::string::npos ? first : std::stoi(range.substr(dash + 1));
            for (int cpu = first; cpu <= last; ++cpu)
                cpus.push_back(cpu);
        } catch (const std::exception&) {
            return {};
        }
    }
    return cpus;
}

std::vector<int> onlineProcessors() {
    std::ifstream file("/sys/devices/system/cpu/online");
    std::string text;
    if (file && std::getline(file, text)) {
        std::vector<int> cpus = parseCpuList(text);
        if (!cpus.empty()) return cpus;
    }
    std::vector<int> cpus;
    const long online = std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L);
    for (int cpu = 0; cpu < online; ++cpu)
        cpus.push_back(cpu);
    return cpus;
}

bool readSysfsId(int cpu, const char* name, int& value) {
    std::ifstream file("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/topology/" + name);
    return static_cast<bool>(file >> value);
}

// A core is named by the lowest processor among its hardware threads, which
// stays unique where core_id repeats across the dies of one package.
bool readCoreOf(int cpu, int& core) {
    for (const char* list : {"core_cpus_list", "thread_siblings_list"}) {
        std::ifstream file("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/topology/" +
                           list);
        std::string text;
        if (file && std::getline(file, text)) {
            const std::vector<int> siblings = parseCpuList(text);
            if (!siblings.empty()) {
                core = *std::min_element(siblings.begin(), siblings.end());
                return true;
            }
        }
    }
    return readSysfsId(cpu, "core_id", core);
}

int bitWidth(unsigned count) noexcept {
    // Bits needed for ids 0 .. count-1.
    int width = 0;
    while ((1u << width) < count)
        ++width;
    return width;
}

// Splits of the APIC id into thread, core and package, valid for every
// processor of one machine.
struct ApicLayout {
    bool x2apic = false;
    int threadBits = 0;   // low bits: logical processor within the core
    int packageShift = 0; // bits below the package id
};

ApicLayout apicLayout() {
    ApicLayout layout;
    // Extended topology leaf: sub-leaf 0 is the SMT level, 1 the core level.
    const CpuidRegisters level0 = cpuid(0xB, 0);
    if (level0.ebx != 0) {
        layout.x2apic = true;
        layout.threadBits = static_cast<int>(level0.eax & 0x1F);
        layout.packageShift = layout.threadBits;
        for (std::uint32_t sub = 1; sub < 8; ++sub) {
            const CpuidRegisters level = cpuid(0xB, sub);
            if (((level.ecx >> 8) & 0xFF) == 0) break;
            layout.packageShift = static_cast<int>(level.eax & 0x1F);
        }
        return layout;
    }
    const CpuidRegisters leaf1 = cpuid(1);
    const unsigned logicalPerPackage =
        (leaf1.edx & (1u << 28)) != 0 ? std::max(1u, (leaf1.ebx >> 16) & 0xFF) : 1u;
    const CpuidRegisters leaf4 = cpuid(4, 0);
    const unsigned coresPerPackage = (leaf4.eax & 0x1F) != 0 ? ((leaf4.eax >> 26) & 0x3F) + 1 : 1u;
    const unsigned logicalPerCore = std::max(1u, logicalPerPackage / coresPerPackage);
    layout.threadBits = bitWidth(logicalPerCore);
    layout.packageShift = layout.threadBits + bitWidth(coresPerPackage);
    return layout;
}

// Moves the calling thread onto each processor and asks it where it is. The
// thread's own mask is restored before returning.
std::vector<ProcessorPlace> probeWithCpuid(const std::vector<int>& cpus, int setCount) {
    std::vector<ProcessorPlace> places;
    if (!cpuidAvailable()) return places;
    CpuSet former(setCount);
    if (!former.valid() ||
        pthread_getaffinity_np(pthread_self(), former.bytes(), former.get()) != 0)
        return places;

    const ApicLayout layout = apicLayout();
    for (int cpu : cpus) {
        CpuSet one(setCount);
        if (!one.valid()) break;
        one.add(cpu);
        if (pthread_setaffinity_np(pthread_self(), one.bytes(), one.get()) != 0)
            continue; // that processor cannot be visited; skip it
        sched_yield();
        const std::uint32_t id = layout.x2apic ? cpuid(0xB, 0).edx : (cpuid(1).ebx >> 24) & 0xFF;
        places.push_back({static_cast<int>(id >> layout.packageShift),
                          static_cast<int>(id >> layout.threadBits)});
    }
    pthread_setaffinity_np(pthread_self(), former.bytes(), former.get());
    sched_yield();
    return places;
}

} // namespace

Topology countTopology(std::span<const ProcessorPlace> visited) {
    std::set<std::pair<int, int>> cores;
    std::set<int> packages;
    for (const ProcessorPlace& place : visited) {
        cores.emplace(place.package, place.core);
        packages.insert(place.package);
    }
    Topology t;
    t.logical_cpus = std::max<int>(1, static_cast<int>(visited.size()));
    t.physical_cores = std::max<int>(1, static_cast<int>(cores.size()));
    t.packages = packages.empty() ? t.physical_cores : static_cast<int>(packages.size());
    return t;
}

Topology probeTopology(TopologySource source) {
    Topology topology; // one core, nothing else known

    const std::unique_ptr<CpuSet> mask = processMask();
    if (!mask) return topology;
    const std::vector<int> online = onlineProcessors();

    std::vector<ProcessorPlace> machine;
    std::vector<ProcessorPlace> allowed;
    bool fromSysfs = source == TopologySource::Sysfs;
    for (int cpu : online) {
        if (!fromSysfs) break;
        ProcessorPlace place;
        fromSysfs =
            readSysfsId(cpu, "physical_package_id", place.package) && readCoreOf(cpu, place.core);
        machine.push_back(place);
        if (mask->has(cpu)) allowed.push_back(place);
    }
    if (!fromSysfs) {
        // The processor can only be asked where the thread may go, so the
        // machine's own count stays unknown.
        std::vector<int> cpus;
        for (int cpu : online)
            if (mask->has(cpu)) cpus.push_back(cpu);
        allowed = probeWithCpuid(cpus, mask->count());
        machine.clear();
    }
    if (allowed.empty()) return topology;

    topology = countTopology(allowed);
    topology.mask_cores = topology.physical_cores;
    if (!machine.empty()) topology.machine_cores = countTopology(machine).physical_cores;
    topology.quota_millicpus = cgroupCpuQuota();
    if (topology.quota_millicpus > 0)
        topology.physical_cores =
            std::min(topology.physical_cores, (topology.quota_millicpus + 999) / 1000);
    return topology;
}

} // namespace nrt::detail
