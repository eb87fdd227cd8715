// upsampleDarkChannel against a brute-force joint bilateral filter: the weight
// tables, the clipped neighbourhood, the clamped range index, transparency;
// the plain path gives the same bits as the formulas, the vector paths stay
// within a bound of them, and the pass fused with the haze model gives the
// same bits as the map pass followed by the apply pass.
#include "ZImage/ZImageHaze.h"
#include "ZImage/ZImageHaze_p.h"

#include "HazeTestImages.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

using hazetest::Rgba;

namespace {

std::vector<float> randomMap(std::size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(-0.1f, 1.1f);
    std::vector<float> m(n);
    for (float& v : m)
        v = value(rng);
    return m;
}

// The filter written out pixel by pixel, with its own index arithmetic.
std::vector<float> modelUpsample(const ZImage& full, const ZImage& working,
                                 const std::vector<float>& map) {
    const int w = full.Width(), h = full.Height();
    const int sw = working.Width(), sh = working.Height();
    const float fx = static_cast<float>(sw) / static_cast<float>(w);
    const float fy = static_cast<float>(sh) / static_cast<float>(h);
    auto index = [](float difference) {
        const float v = std::trunc(1000.0f * difference);
        return static_cast<int>(std::clamp(std::isnan(v) ? 2000.0f : v, -2000.0f, 2000.0f));
    };
    std::vector<float> out;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float* p = hazetest::pixel(full, x, y);
            if (p[3] == 0.0f) {
                out.push_back(0.0f);
                continue;
            }
            const int xs = static_cast<int>(static_cast<float>(x) * fx);
            const int ys = static_cast<int>(static_cast<float>(y) * fy);
            float weights = 0.0f, values = 0.0f;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int u = xs + dx, v = ys + dy;
                    if (u < 0 || v < 0 || u >= sw || v >= sh) continue;
                    const float* q = hazetest::pixel(working, u, v);
                    if (q[3] == 0.0f) continue;
                    const float wt = static_cast<float>(haze::rangeWeight(index(p[0] - q[0])) *
                                                        haze::spatialWeight(dx, dy) *
                                                        haze::rangeWeight(index(p[1] - q[1])) *
                                                        haze::rangeWeight(index(p[2] - q[2])));
                    weights += wt;
                    values += wt * map[static_cast<std::size_t>(v) * sw + u];
                }
            out.push_back(weights == 0.0f ? 0.0f : values / weights);
        }
    return out;
}

std::vector<float> upsample(const ZImage& full, const ZImage& working,
                            const std::vector<float>& map) {
    auto result = full.upsampleDarkChannel(map.data(), working);
    return {result.get(), result.get() + static_cast<std::size_t>(full.Width()) * full.Height()};
}

TEST(HazeTables, RangeWeightIsTheRoundedNormalDensity) {
    for (int i = -2000; i <= 2000; i += 8) {
        const double x = i / 1000.0;
        const double density = std::exp(-x * x / 0.02) / (0.1 * std::sqrt(2.0 * std::numbers::pi));
        const double g = haze::rangeWeight(i);
        EXPECT_NEAR(density, g, density * 5e-6) << i;
        EXPECT_EQ(g, haze::rangeWeight(-i));
        // Six significant digits exactly: printing with six gives it back.
        char text[32];
        std::snprintf(text, sizeof text, "%.5e", g);
        EXPECT_EQ(g, std::strtod(text, nullptr)) << i;
    }
}

TEST(HazeTables, SpatialWeightIsTheIntegerKernelOver571) {
    EXPECT_EQ(127.0 / 571, haze::spatialWeight(0, 0));
    EXPECT_EQ(52.0 / 571, haze::spatialWeight(0, -1));
    EXPECT_EQ(31.0 / 571, haze::spatialWeight(-1, 1));
    EXPECT_EQ(2.0 / 571, haze::spatialWeight(-2, 2));
}

TEST(HazeTables, RangeIndexTruncatesTowardZeroAndClampsToTheTable) {
    EXPECT_EQ(-1, haze::rangeIndex(-0.0015f));
    EXPECT_EQ(0, haze::rangeIndex(-0.0009f));
    EXPECT_EQ(1999, haze::rangeIndex(1.9995f));
    EXPECT_EQ(2000, haze::rangeIndex(2.5f));
    EXPECT_EQ(-2000, haze::rangeIndex(-std::numeric_limits<float>::infinity()));
    EXPECT_EQ(2000, haze::rangeIndex(std::numeric_limits<float>::quiet_NaN()));
}

// Some pixels of either image transparent, so that lanes of one block see
// different neighbourhoods.
void punchHoles(ZImage& image, unsigned seed) {
    std::mt19937 rng(seed);
    for (int y = 0; y < image.Height(); ++y)
        for (int x = 0; x < image.Width(); ++x)
            if (rng() % 7 == 0) hazetest::pixel(image, x, y)[3] = 0.0f;
}

// The largest difference between two results; infinite where only one of
// them is NaN.
float largestDifference(const std::vector<float>& a, const std::vector<float>& b) {
    EXPECT_EQ(a.size(), b.size());
    float largest = 0.0f;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        if (std::isnan(a[i]) != std::isnan(b[i])) return std::numeric_limits<float>::infinity();
        largest = std::max(largest, std::abs(a[i] - b[i])); // both NaN: kept
    }
    return largest;
}

// The vector paths weigh by an exponential where the formula reads the table
// of the density rounded to six digits: a weight moves by at most 1.5e-5 of
// itself, a map value by that share of its neighbours' spread (1.2 here).
constexpr float mapBound = 2e-5f;
// The final pixels: within 1e-5 of the formulas' result.
constexpr float pixelBound = 1e-5f;

TEST(UpsampleDarkChannel, EveryPathMatchesTheModelWhenShrinkingAndEnlarging) {
    // Full and working sizes: shrinking as photographs do (a block of eight
    // pixels reaching one to eight working columns), enlarging, widths that
    // are no multiple of eight or sixteen, a single working row.
    const int sizes[][4] = {{37, 29, 11, 8},  {9, 7, 20, 15},   {50, 3, 17, 1},   {5, 5, 5, 5},
                            {203, 61, 13, 4}, {64, 16, 64, 16}, {131, 40, 40, 12}};
    const std::array<float, 3> airlight{0.8f, 0.85f, 0.9f};
    unsigned seed = 40;
    for (const auto& s : sizes) {
        SCOPED_TRACE(testing::Message()
                     << s[0] << " x " << s[1] << " from " << s[2] << " x " << s[3]);
        ZImage full = hazetest::randomImage(s[0], s[1], seed++);
        // Colours close to the full image's, so that weights are far from zero.
        ZImage working = hazetest::randomImage(s[2], s[3], seed++, 0.3f, 0.5f);
        if (s[0] > 100) {
            punchHoles(full, seed++);
            punchHoles(working, seed++);
        }
        const auto map = randomMap(static_cast<std::size_t>(s[2]) * s[3], seed++);
        const std::vector<float> expected = modelUpsample(full, working, map);
        const std::vector<float> fastest = upsample(full, working, map);
        EXPECT_LE(largestDifference(expected, fastest), mapBound);
        // The narrower paths on their own: the plain one is the formula.
        for (const auto path : {haze::RowUpsampler::Path::Avx2, haze::RowUpsampler::Path::Plain}) {
            const haze::RowUpsampler upsampler(working, map.data(), s[0], s[1], path);
            std::vector<float> rows(expected.size());
            for (int y = 0; y < s[1]; ++y)
                upsampler.depthRow(hazetest::pixel(full, 0, y), y,
                                   rows.data() + std::size_t{1} * y * s[0]);
            if (path == haze::RowUpsampler::Path::Plain)
                EXPECT_EQ(expected, rows);
            else
                EXPECT_LE(largestDifference(expected, rows), mapBound);
        }

        // Fused with the haze model: the pixels of the two passes, and within
        // the bound of the formulas' pixels.
        ZImage model, twoPasses, fused;
        model.CopyFrom(full);
        twoPasses.CopyFrom(full);
        fused.CopyFrom(full);
        model.applyHazeRemoval(expected.data(), airlight, 0.7f);
        twoPasses.applyHazeRemoval(fastest.data(), airlight, 0.7f);
        fused.upsampleAndApplyHazeRemoval(map.data(), working, airlight, 0.7f);
        const auto a = hazetest::pixels(twoPasses), b = hazetest::pixels(fused);
        EXPECT_TRUE(hazetest::sameBits(a.data(), b.data(), a.size()));
        EXPECT_LE(largestDifference(hazetest::pixels(model), b), pixelBound);
    }
}

TEST(UpsampleDarkChannel, LastRowAndColumnSeeTwoByTwo) {
    // Same colour everywhere, so only the spatial weights differ. Map values
    // outside the clipped neighbourhood are NaN and would poison a wrong read.
    const ZImage image = hazetest::makeImage(4, 4, [](int, int) {
        return Rgba{0.4f, 0.5f, 0.6f, 1.0f};
    });
    std::vector<float> map(16, std::numeric_limits<float>::quiet_NaN());
    map[2 * 4 + 2] = 0.1f;
    map[2 * 4 + 3] = 0.2f;
    map[3 * 4 + 2] = 0.3f;
    map[3 * 4 + 3] = 0.4f;
    const auto out = upsample(image, image, map);
    const float expected = (31 * 0.1f + 52 * 0.2f + 52 * 0.3f + 127 * 0.4f) / (31 + 52 + 52 + 127);
    EXPECT_NEAR(expected, out[15], 1e-6f);
    // The first pixel's neighbourhood holds only NaNs.
    EXPECT_TRUE(std::isnan(out[0]));
}

TEST(UpsampleDarkChannel, HdrValuesStayInsideTheTable) {
    // Differences of up to +-8 (EXR highlights): the index saturates.
    const ZImage full = hazetest::randomImage(31, 23, 50, -4.0f, 8.0f);
    const ZImage working = hazetest::randomImage(10, 7, 51, 0.0f, 1.0f);
    const auto map = randomMap(70, 52);
    EXPECT_LE(largestDifference(modelUpsample(full, working, map), upsample(full, working, map)),
              mapBound);
}

TEST(UpsampleDarkChannel, TransparencyGivesZero) {
    ZImage full = hazetest::makeImage(6, 6, [](int x, int) {
        return Rgba{0.5f, 0.5f, 0.5f, x == 0 ? 0.0f : 1.0f};
    });
    // Full pixels whose neighbourhood is all transparent have no weight.
    const ZImage working = hazetest::makeImage(6, 6, [](int x, int) {
        return Rgba{0.5f, 0.5f, 0.5f, x >= 3 ? 0.0f : 1.0f};
    });
    const std::vector<float> map(36, 0.7f);
    const auto out = upsample(full, working, map);
    for (int y = 0; y < 6; ++y) {
        EXPECT_EQ(0.0f, out[y * 6 + 0]) << "transparent full pixel";
        EXPECT_NEAR(0.7f, out[y * 6 + 1], 1e-6f);
        EXPECT_NEAR(0.7f, out[y * 6 + 3], 1e-6f) << "one opaque column in reach";
        EXPECT_EQ(0.0f, out[y * 6 + 5]) << "neighbourhood all transparent";
    }
}

TEST(UpsampleDarkChannel, RejectsOtherFormatsOfEitherImage) {
    const ZImage good(4, 4, ZImage::RGBA, 32);
    const std::vector<float> map(16);
    EXPECT_THROW(ZImage(4, 4, ZImage::RGB, 32).upsampleDarkChannel(map.data(), good), ZException);
    EXPECT_THROW(good.upsampleDarkChannel(map.data(), ZImage(4, 4, ZImage::RGBA, 8)), ZException);
    EXPECT_THROW(good.upsampleDarkChannel(nullptr, good), ZException);
}

} // namespace
