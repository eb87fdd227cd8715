// Processor detection: the classification tables against register values of
// processors of every level, the debug requests, the feature word with and
// without operating system support, the image dispatch index, and agreement of
// the live answers with what the kernel reports in /proc/cpuinfo.

#include "runtime/internal/CpuInfo.h"
#include "runtime/nrt.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

using namespace nrt::detail;

namespace {

constexpr std::uint32_t bit(int n) {
    return 1u << n;
}

TEST(CpuClassification, TypeIsTheFirstLevelThatHolds) {
    EXPECT_EQ(classifyType(0, 0), 0);
    EXPECT_EQ(classifyType(0, bit(25)), 0); // SSE alone is baseline
    EXPECT_EQ(classifyType(0, bit(26)), 2);
    EXPECT_EQ(classifyType(bit(0), bit(26)), 3);
    EXPECT_EQ(classifyType(bit(0) | bit(9), bit(26)), 4);
    EXPECT_EQ(classifyType(bit(0) | bit(9) | bit(19) | bit(20), bit(26)), 5);
    // Each test stands alone: a higher bit wins even without the lower ones.
    EXPECT_EQ(classifyType(bit(20), 0), 5);
}

TEST(CpuClassification, SubcodeFollowsAesAndSse41) {
    EXPECT_EQ(classifySubcode(5, bit(20)), 64); // SSE4.2 without AES
    EXPECT_EQ(classifySubcode(5, bit(20) | bit(25)), 66);
    EXPECT_EQ(classifySubcode(4, bit(9)), 32);
    EXPECT_EQ(classifySubcode(4, bit(9) | bit(19)), 33);
    EXPECT_EQ(classifySubcode(4, bit(9) | bit(25)), 32); // AES matters on type 5 only
    EXPECT_EQ(classifySubcode(3, ~0u), 0);
}

TEST(CpuClassification, DebugRequests) {
    EXPECT_EQ(parseTypeRequest("2"), 2);
    EXPECT_EQ(parseTypeRequest(" 4"), 4);
    EXPECT_EQ(parseTypeRequest(""), std::nullopt);
    EXPECT_EQ(parseSubcodeRequest("33"), std::nullopt);
    EXPECT_EQ(parseSubcodeRequest("abc"), std::nullopt);
}

TEST(CpuFeatures, EachBitComesFromItsRegisterBit) {
    struct Bit {
        std::uint32_t ecx, edx;
        unsigned feature;
    };
    const Bit table[] = {
        {0, bit(23), NRT_FEATURE_MMX},      {0, bit(25), NRT_FEATURE_SSE},
        {0, bit(26), NRT_FEATURE_SSE2},     {bit(0), 0, NRT_FEATURE_SSE3},
        {bit(9), 0, NRT_FEATURE_SSSE3},     {bit(22), 0, NRT_FEATURE_MOVBE},
        {bit(19), 0, NRT_FEATURE_SSE41},    {bit(20), 0, NRT_FEATURE_SSE42},
        {bit(28), 0, NRT_FEATURE_AVX},      {bit(25), 0, NRT_FEATURE_AES},
        {bit(1), 0, NRT_FEATURE_PCLMULQDQ},
    };
    for (const Bit& b : table)
        EXPECT_EQ(buildFeatureWord(b.ecx, b.edx, 0), b.feature) << b.feature;
}

TEST(CpuFeatures, AvxStateNeedsOsxsaveAvxAndBothRegisterStates) {
    const std::uint32_t avx = bit(28), osxsave = bit(27);
    EXPECT_EQ(buildFeatureWord(avx | osxsave, 0, 0x7) & NRT_FEATURE_AVX_OS, NRT_FEATURE_AVX_OS);
    EXPECT_EQ(buildFeatureWord(avx | osxsave, 0, 0x3) & NRT_FEATURE_AVX_OS, 0u); // no YMM state
    EXPECT_EQ(buildFeatureWord(avx, 0, 0x7) & NRT_FEATURE_AVX_OS, 0u);     // OS did not enable
    EXPECT_EQ(buildFeatureWord(osxsave, 0, 0x7) & NRT_FEATURE_AVX_OS, 0u); // no AVX
    EXPECT_EQ(buildFeatureWord(~0u, ~0u, ~0ull) >> 32, 0u);
}

TEST(ImageDispatch, IndexAndSecondaryByFirstMatchingRow) {
    auto pick = [](unsigned features, bool os) {
        const ImageDispatch d = chooseImageDispatch(features, os);
        return std::make_pair(d.index, d.secondary);
    };
    const unsigned avxBoth = NRT_FEATURE_AVX | NRT_FEATURE_AVX_OS;
    EXPECT_EQ(pick(avxBoth | NRT_FEATURE_SSE41, true), std::make_pair(5, 1));
    EXPECT_EQ(pick(avxBoth | NRT_FEATURE_SSE41, false), std::make_pair(4, 1));
    EXPECT_EQ(pick(NRT_FEATURE_AVX | NRT_FEATURE_SSE2, true), std::make_pair(1, 1));
    EXPECT_EQ(pick(NRT_FEATURE_MOVBE | NRT_FEATURE_SSSE3, true), std::make_pair(3, 2));
    EXPECT_EQ(pick(NRT_FEATURE_MOVBE, true), std::make_pair(0, 0));
    EXPECT_EQ(pick(NRT_FEATURE_SSE3 | NRT_FEATURE_SSE2, true), std::make_pair(2, 1));
    EXPECT_EQ(pick(NRT_FEATURE_SSE2, true), std::make_pair(1, 1));
    EXPECT_EQ(pick(0, true), std::make_pair(0, 0));
}

std::set<std::string> cpuinfoFlags() {
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind("flags", 0) == 0) {
            std::istringstream words(line.substr(line.find(':') + 1));
            std::set<std::string> flags;
            std::string w;
            while (words >> w)
                flags.insert(w);
            return flags;
        }
    }
    return {};
}

TEST(LiveDetection, AgreesWithTheKernelsView) {
#if !defined(__x86_64__)
    GTEST_SKIP() << "x86-64 only";
#endif
    const std::set<std::string> flags = cpuinfoFlags();
    if (flags.empty()) GTEST_SKIP() << "no /proc/cpuinfo";
    const bool sse42 = flags.count("sse4_2") != 0, ssse3 = flags.count("ssse3") != 0;
    const int expected = sse42 ? 5 : ssse3 ? 4 : flags.count("pni") ? 3 : 2;
    EXPECT_EQ(nrt_cpu_detect(), expected);
    EXPECT_EQ(detectedTypeCache(), expected);
    if (expected == 5) {
        EXPECT_EQ(nrt_cpu_subcode(), flags.count("aes") ? 66 : 64);
    }

    const unsigned long long f = nrt_cpu_features();
    EXPECT_EQ((f & NRT_FEATURE_SSE2) != 0, flags.count("sse2") != 0);
    EXPECT_EQ((f & NRT_FEATURE_SSE42) != 0, sse42);
    EXPECT_EQ((f & NRT_FEATURE_AES) != 0, flags.count("aes") != 0);
    EXPECT_EQ((f & NRT_FEATURE_MOVBE) != 0, flags.count("movbe") != 0);
    // The kernel lists avx only when it also saves the AVX state.
    EXPECT_EQ((f & NRT_FEATURE_AVX_OS) != 0, flags.count("avx") != 0);
}

TEST(LiveDetection, FeatureMaskLowersTheImageIndex) {
    ASSERT_EQ(nrt_image_primitives_init(), 0);
    const int full = nrt_image_dispatch_index();
    EXPECT_EQ(full, chooseImageDispatch(nrt_cpu_features(), full == 5).index);

    nrt_set_feature_mask(NRT_FEATURE_SSE2 | NRT_FEATURE_SSE);
    EXPECT_EQ(nrt_cpu_features() &
                  ~static_cast<unsigned long long>(NRT_FEATURE_SSE2 | NRT_FEATURE_SSE),
              0u);
    ASSERT_EQ(nrt_image_primitives_init(), 0);
    EXPECT_EQ(nrt_image_dispatch_index(), 1);
    EXPECT_EQ(nrt_image_dispatch_secondary(), 1);

    nrt_set_feature_mask(~0ull);
    ASSERT_EQ(nrt_image_primitives_init(), 0);
    EXPECT_EQ(nrt_image_dispatch_index(), full);
}

} // namespace
