// The O(1) minimum filter against a brute-force clipped-window minimum.
#include "primitives/MinFilter.h"

#include "HazeTestImages.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

std::vector<float> randomPlane(std::size_t count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> v(count);
    for (float& x : v)
        x = value(rng);
    return v;
}

std::vector<float> filtered(std::vector<float> in, int width, int height, int channels, int radius,
                            int threads = 1) {
    std::vector<float> out(in.size(), std::numeric_limits<float>::quiet_NaN());
    const std::ptrdiff_t stride = static_cast<std::ptrdiff_t>(width) * channels;
    prim::minFilter({in.data(), stride, width, height}, {out.data(), stride, width, height},
                    channels, radius, threads);
    return out;
}

TEST(MinFilter, EqualsClippedWindowMinimumForRadiiOneToTwenty) {
    // Sizes off the window, narrower and shorter than it; every channel count
    // meets every size.
    const int sizes[][2] = {{37, 23}, {5, 41}, {70, 3}, {1, 1}, {1, 17}, {19, 1}};
    unsigned seed = 1;
    for (const auto& size : sizes)
        for (int radius = 1; radius <= 20; ++radius) {
            const int w = size[0];
            const int h = size[1];
            const int channels = 1 + radius % 4;
            const auto in = randomPlane(static_cast<std::size_t>(w) * h * channels, seed++);
            const auto expected = hazetest::naiveMinFilter(in, w, h, channels, radius);
            const auto actual = filtered(in, w, h, channels, radius);
            ASSERT_EQ(expected, actual)
                << w << " x " << h << ", radius " << radius << ", " << channels << " channels";
        }
}

TEST(MinFilter, RadiusZeroCopiesAndHugeRadiusGivesGlobalMinimum) {
    const int w = 13;
    const int h = 9;
    const auto in = randomPlane(static_cast<std::size_t>(w) * h * 2, 7);
    EXPECT_EQ(in, filtered(in, w, h, 2, 0));

    const auto all = filtered(in, w, h, 2, 1 << 30);
    for (int c = 0; c < 2; ++c) {
        float m = in[c];
        for (std::size_t i = c; i < in.size(); i += 2)
            m = std::min(m, in[i]);
        for (std::size_t i = c; i < all.size(); i += 2)
            ASSERT_EQ(m, all[i]);
    }
}

TEST(MinFilter, HonoursRowStridesAndLeavesPaddingAlone) {
    const int w = 11;
    const int h = 7;
    const std::ptrdiff_t inStride = w * 4 + 5;
    const std::ptrdiff_t outStride = w * 4 + 3;
    auto in = randomPlane(static_cast<std::size_t>(inStride) * h, 9);
    std::vector<float> out(static_cast<std::size_t>(outStride) * h, 42.0f);
    prim::minFilter({in.data(), inStride, w, h}, {out.data(), outStride, w, h}, 4, 2);

    std::vector<float> packed;
    for (int y = 0; y < h; ++y)
        packed.insert(packed.end(), in.begin() + y * inStride, in.begin() + y * inStride + w * 4);
    const auto expected = hazetest::naiveMinFilter(packed, w, h, 4, 2);
    for (int y = 0; y < h; ++y) {
        for (int i = 0; i < w * 4; ++i)
            ASSERT_EQ(expected[y * w * 4 + i], out[y * outStride + i]);
        for (int i = w * 4; i < outStride; ++i)
            ASSERT_EQ(42.0f, out[y * outStride + i]) << "padding written in row " << y;
    }
}

TEST(MinFilter, ResultDoesNotDependOnThreadCount) {
    const int w = 300;
    const int h = 211;
    const auto in = randomPlane(static_cast<std::size_t>(w) * h * 4, 11);
    const auto one = filtered(in, w, h, 4, 4, 1);
    EXPECT_EQ(one, filtered(in, w, h, 4, 4, 3));
}

TEST(MinFilter, RejectsBadArguments) {
    std::vector<float> a(16), b(16);
    EXPECT_THROW(prim::minFilter({a.data(), 8, 2, 2}, {b.data(), 8, 2, 2}, 5, 1),
                 std::invalid_argument);
    EXPECT_THROW(prim::minFilter({a.data(), 8, 2, 2}, {b.data(), 8, 1, 2}, 4, 1),
                 std::invalid_argument);
    EXPECT_THROW(prim::minFilter({a.data(), 7, 2, 2}, {b.data(), 8, 2, 2}, 4, 1),
                 std::invalid_argument);
}

} // namespace
