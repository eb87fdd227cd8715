// Processor detection: the pure classification steps behind nrt_cpu_detect,
// nrt_cpu_subcode, nrt_cpu_features and the image primitive dispatch, so that
// they can be checked against register values of processors we do not have.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace nrt::detail {

// Processor type from leaf 1 ecx/edx: 5 SSE4.2, 4 SSSE3, 3 SSE3, 2 SSE2, else 0.
int classifyType(std::uint32_t ecx, std::uint32_t edx) noexcept;

// Sub-code of a type from leaf 1 ecx: 66/64 for type 5 (AES or not), 33/32 for
// type 4 (SSE4.1 or not), 0 otherwise.
int classifySubcode(int type, std::uint32_t ecx) noexcept;

// The feature word from leaf 1 ecx/edx and extended control register 0 (only
// consulted when ecx says the operating system enabled it and AVX exists).
std::uint64_t buildFeatureWord(std::uint32_t ecx, std::uint32_t edx, std::uint64_t xcr0) noexcept;

// A debug request of NRT_DEBUG_CPU_TYPE: 1..5 kept (1 read as 0), 0 only as
// the exact text "0"; anything else is no request.
std::optional<int> parseTypeRequest(std::string_view text) noexcept;

// A request of NRT_DEBUG_CPU_MA: 64 or 66, anything else is no request.
std::optional<int> parseSubcodeRequest(std::string_view text) noexcept;

struct ImageDispatch {
    int index = 0;
    int secondary = 0;
};

// Variant index of the image primitives for a feature word. osAvxState tells
// whether the operating system saves the full AVX register state.
ImageDispatch chooseImageDispatch(std::uint64_t features, bool osAvxState) noexcept;

// Type found by the processor itself, ignoring any debug request; -1 before
// the first nrt_cpu_detect.
int detectedTypeCache() noexcept;

} // namespace nrt::detail
