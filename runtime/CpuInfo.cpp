// Processor detection and the image primitive dispatch index.
//
// Type and sub-code are decided once, under the runtime lock with a double
// test, and a debug request in the environment wins over detection without any
// test that the processor can run what was asked for: that is what makes the
// request useful for exercising lower paths on a newer machine. The feature
// word needs no lock: building it twice gives the same bits.

#include "runtime/internal/CpuInfo.h"
#include "runtime/internal/Cpuid.h"
#include "runtime/internal/Environment.h"
#include "runtime/internal/SpinLock.h"
#include "runtime/nrt.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <string>

namespace nrt::detail {
namespace {

constexpr std::uint32_t bit(int n) {
    return 1u << n;
}

// Leaf 1 bits.
constexpr std::uint32_t kEcxSse3 = bit(0), kEcxPclmul = bit(1), kEcxSsse3 = bit(9),
                        kEcxSse41 = bit(19), kEcxSse42 = bit(20), kEcxMovbe = bit(22),
                        kEcxAes = bit(25), kEcxOsxsave = bit(27), kEcxAvx = bit(28);
constexpr std::uint32_t kEdxMmx = bit(23), kEdxSse = bit(25), kEdxSse2 = bit(26);

// Register state the operating system must save for AVX code: SSE and AVX.
constexpr std::uint64_t kXcr0AvxState = 0x6;

struct CpuState {
    std::atomic<int> type{-1};
    std::atomic<int> detected{-1};
    std::atomic<int> subcode{-1};
    std::atomic<std::uint64_t> features{0};
    std::atomic<bool> featuresKnown{false};
    std::atomic<std::uint64_t> featureMask{~std::uint64_t{0}};
    std::atomic<int> imageIndex{0};
    std::atomic<int> imageSecondary{0};
};

CpuState& state() noexcept {
    static CpuState s;
    return s;
}

// atoi-like: leading blanks, optional sign, digits; nothing when no digit.
std::optional<long> convert(std::string_view text) noexcept {
    const std::string copy(text);
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(copy.c_str(), &end, 10);
    if (end == copy.c_str() || errno == ERANGE) return std::nullopt;
    return value;
}

int detectType() noexcept {
    if (!cpuidAvailable()) return 0;
    const CpuidRegisters leaf1 = cpuid(1);
    return classifyType(leaf1.ecx, leaf1.edx);
}

} // namespace

int classifyType(std::uint32_t ecx, std::uint32_t edx) noexcept {
    if (ecx & kEcxSse42) return 5;
    if (ecx & kEcxSsse3) return 4;
    if (ecx & kEcxSse3) return 3;
    if (edx & kEdxSse2) return 2;
    return 0;
}

int classifySubcode(int type, std::uint32_t ecx) noexcept {
    if (type == 5) return (ecx & kEcxAes) ? 66 : 64;
    if (type == 4) return (ecx & kEcxSse41) ? 33 : 32;
    return 0;
}

std::uint64_t buildFeatureWord(std::uint32_t ecx, std::uint32_t edx, std::uint64_t xcr0) noexcept {
    std::uint64_t word = 0;
    auto set = [&word](bool on, int featureBit) {
        if (on) word |= std::uint64_t{1} << featureBit;
    };
    set(edx & kEdxMmx, 0);
    set(edx & kEdxSse, 1);
    set(edx & kEdxSse2, 2);
    set(ecx & kEcxSse3, 3);
    set(ecx & kEcxSsse3, 4);
    set(ecx & kEcxMovbe, 5);
    set(ecx & kEcxSse41, 6);
    set(ecx & kEcxSse42, 7);
    set(ecx & kEcxAvx, 8);
    // The control register exists only when the OS enabled it; without AVX the
    // question is moot.
    const bool xcr0Readable = (ecx & kEcxOsxsave) && (ecx & kEcxAvx);
    set(xcr0Readable && (xcr0 & kXcr0AvxState) == kXcr0AvxState, 9);
    set(ecx & kEcxAes, 10);
    set(ecx & kEcxPclmul, 11);
    return word;
}

std::optional<int> parseTypeRequest(std::string_view text) noexcept {
    const std::optional<long> value = convert(text);
    if (!value) return std::nullopt;
    if (*value >= 1 && *value <= 5) return *value == 1 ? 0 : static_cast<int>(*value);
    if (*value == 0 && text == "0") return 0;
    return std::nullopt;
}

std::optional<int> parseSubcodeRequest(std::string_view text) noexcept {
    const std::optional<long> value = convert(text);
    if (value && (*value == 64 || *value == 66)) return static_cast<int>(*value);
    return std::nullopt;
}

ImageDispatch chooseImageDispatch(std::uint64_t f, bool osAvxState) noexcept {
    auto has = [f](int b) { return (f >> b) & 1u; };
    if (has(8) && has(9) && osAvxState) return {5, 1};
    if (has(6)) return {4, 1};
    if (has(5) && has(4)) return {3, 2};
    if (has(4)) return {3, 1};
    if (has(3)) return {2, 1};
    if (has(2)) return {1, 1};
    return {0, 0};
}

int detectedTypeCache() noexcept {
    return state().detected.load(std::memory_order_acquire);
}

} // namespace nrt::detail

using namespace nrt::detail;

extern "C" int nrt_cpu_detect(void) {
    CpuState& s = state();
    int type = s.type.load(std::memory_order_acquire);
    if (type >= 0) return type;

    std::lock_guard guard(runtimeLock());
    type = s.type.load(std::memory_order_relaxed);
    if (type >= 0) return type;

    std::optional<int> request;
    if (const auto text = readEnvironment("NRT_DEBUG_CPU_TYPE", kCpuVariableBuffer))
        request = parseTypeRequest(*text);
    // Detection is cached apart from the request, so that a report can tell
    // a forced type from the real one.
    if (s.detected.load(std::memory_order_relaxed) < 0)
        s.detected.store(detectType(), std::memory_order_release);
    type = request ? *request : s.detected.load(std::memory_order_relaxed);
    s.type.store(type, std::memory_order_release);
    return type;
}

extern "C" int nrt_cpu_subcode(void) {
    CpuState& s = state();
    int subcode = s.subcode.load(std::memory_order_acquire);
    if (subcode >= 0) return subcode;

    const int type = nrt_cpu_detect();
    std::lock_guard guard(runtimeLock());
    subcode = s.subcode.load(std::memory_order_relaxed);
    if (subcode >= 0) return subcode;

    const std::uint32_t ecx = cpuid(1).ecx;
    if (type == 5) {
        std::optional<int> request;
        if (const auto text = readEnvironment("NRT_DEBUG_CPU_MA", kCpuVariableBuffer))
            request = parseSubcodeRequest(*text);
        subcode = request ? *request : classifySubcode(5, ecx);
    } else {
        subcode = classifySubcode(type, ecx);
    }
    s.subcode.store(subcode, std::memory_order_release);
    return subcode;
}

extern "C" unsigned long long nrt_cpu_features(void) {
    CpuState& s = state();
    if (!s.featuresKnown.load(std::memory_order_acquire)) {
        const CpuidRegisters leaf1 = cpuid(1);
        s.features.store(buildFeatureWord(leaf1.ecx, leaf1.edx, readXcr0()),
                         std::memory_order_relaxed);
        s.featuresKnown.store(true, std::memory_order_release);
    }
    return s.features.load(std::memory_order_relaxed) &
           s.featureMask.load(std::memory_order_relaxed) & 0xFFFFFFFFull;
}

extern "C" void nrt_set_feature_mask(unsigned long long mask) {
    state().featureMask.store(mask, std::memory_order_relaxed);
}

extern "C" int nrt_image_primitives_init(void) {
    // Every x86-64 processor reports leaf 1 and SSE2; one that cannot is too
    // old or too strange for the primitives' assumptions.
    if (!cpuidAvailable() || (cpuid(1).edx & kEdxSse2) == 0) return 20;
    const std::uint64_t features = nrt_cpu_features();
    // Checked again apart from the feature word, which the mask may have
    // edited: the index 5 kernels must never run where the OS would lose the
    // upper register halves on a context switch.
    const bool osAvxState = (readXcr0() & kXcr0AvxState) == kXcr0AvxState;
    const ImageDispatch d = chooseImageDispatch(features, osAvxState);
    CpuState& s = state();
    s.imageIndex.store(d.index, std::memory_order_relaxed);
    s.imageSecondary.store(d.secondary, std::memory_order_relaxed);
    return 0;
}

extern "C" int nrt_image_dispatch_index(void) {
    return state().imageIndex.load(std::memory_order_relaxed);
}

extern "C" int nrt_image_dispatch_secondary(void) {
    return state().imageSecondary.load(std::memory_order_relaxed);
}
