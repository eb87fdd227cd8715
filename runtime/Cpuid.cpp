#include "runtime/internal/Cpuid.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace nrt::detail {

bool cpuidAvailable() noexcept {
#if defined(__x86_64__)
    return true;
#elif defined(__i386__)
    // The classic test: a processor that lets bit 21 of EFLAGS change has it.
    unsigned before = 0, after = 0;
    __asm__ volatile("pushfl\n\t"
                     "pushfl\n\t"
                     "popl %0\n\t"
                     "movl %0, %1\n\t"
                     "xorl $0x200000, %0\n\t"
                     "pushl %0\n\t"
                     "popfl\n\t"
                     "pushfl\n\t"
                     "popl %0\n\t"
                     "popfl"
                     : "=&r"(after), "=&r"(before));
    return ((before ^ after) & 0x200000u) != 0;
#else
    return false;
#endif
}

CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf) noexcept {
    CpuidRegisters r;
#if defined(__x86_64__) || defined(__i386__)
    if (!cpuidAvailable()) return r;
    // __get_cpuid_count checks the highest leaf of the leaf's range first.
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid_count(leaf, subleaf, &a, &b, &c, &d) != 0) r = {a, b, c, d};
#else
    (void)leaf;
    (void)subleaf;
#endif
    return r;
}

std::uint64_t readXcr0() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    constexpr std::uint32_t osxsave = 1u << 27;
    if ((cpuid(1).ecx & osxsave) == 0) return 0;
    std::uint32_t lo = 0, hi = 0;
    // Encoded by hand so that no -mxsave is needed for this one file.
    __asm__ volatile(".byte 0x0f, 0x01, 0xd0" : "=a"(lo), "=d"(hi) : "c"(0));
    return (static_cast<std::uint64_t>(hi) << 32) | lo;
#else
    return 0;
#endif
}

} // namespace nrt::detail
