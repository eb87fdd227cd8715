// Thin wrappers round the processor's identification instructions. On other
// architectures every leaf reads as zero, which the callers take as "baseline".
#pragma once

#include <cstdint>

namespace nrt::detail {

struct CpuidRegisters {
    std::uint32_t eax = 0;
    std::uint32_t ebx = 0;
    std::uint32_t ecx = 0;
    std::uint32_t edx = 0;
};

// True when the processor has the identification instruction (on 32-bit x86:
// bit 21 of the flags register can be toggled; always on x86-64).
bool cpuidAvailable() noexcept;

// The registers of a leaf, or zeros when the leaf is beyond the highest one.
CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf = 0) noexcept;

// Extended control register 0; 0 when the operating system has not enabled
// the instruction (leaf 1 ecx bit 27 clear).
std::uint64_t readXcr0() noexcept;

} // namespace nrt::detail
