// applyHazeRemoval and runHazeRemoval: the transmission floor, the clamps, the
// working size, the cached map, thread independence, failure without change,
// and the recovery of a synthetic hazy scene.
#include "ZImage/ZImageHaze.h"
#include "ZImage/ZImageHaze_p.h"

#include "HazeTestImages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

using hazetest::Rgba;

namespace {

// One pixel per case: the floor of the transmission, the model above it (a
// negative map brightens), the clamp below zero but not above one, alpha
// kept, a transparent pixel untouched.
TEST(ApplyHazeRemoval, FloorModelClampsAndTransparency) {
    struct Case {
        const char* what;
        std::array<float, 4> in;
        float map;
        float strength;
        float t; // the transmission the model should use
    };
    const std::array<float, 3> a{0.8f, 0.55f, 0.45f};
    const Case cases[] = {
        {"1 - 0.95 floored to 0.1", {0.78f, 0.6f, 0.5f, 1.0f}, 0.95f, 1.0f, 0.1f},
        {"above the floor, alpha kept", {0.3f, 0.4f, 0.9f, 0.5f}, 0.5f, 0.6f, 0.7f},
        {"negative map", {0.3f, 0.4f, 0.9f, 1.0f}, -0.5f, 0.6f, 1.3f},
        {"below zero, above one", {0.1f, 0.1f, 0.99f, 1.0f}, 0.8f, 1.0f, 0.2f},
        {"transparent", {0.3f, 0.2f, 0.1f, 0.0f}, 0.5f, 1.0f, 1.0f},
    };
    for (const Case& c : cases) {
        ZImage image = hazetest::makeImage(1, 1, [&](int, int) {
            return Rgba{c.in[0], c.in[1], c.in[2], c.in[3]};
        });
        image.applyHazeRemoval(&c.map, a, c.strength);
        const float* p = hazetest::pixel(image, 0, 0);
        for (int k = 0; k < 3; ++k) {
            const float j = c.in[3] == 0.0f ? c.in[k] : (c.in[k] - a[k]) / c.t + a[k];
            EXPECT_FLOAT_EQ(std::max(j, 0.0f), p[k]) << c.what << ", channel " << k;
        }
        EXPECT_EQ(c.in[3], p[3]) << c.what;
    }
}

TEST(ApplyHazeRemoval, RejectsOtherFormats) {
    const std::array<float, 3> a{};
    const std::vector<float> map(16);
    ZImage rgb(4, 4, ZImage::RGB, 32), good(4, 4, ZImage::RGBA, 32);
    EXPECT_THROW(rgb.applyHazeRemoval(map.data(), a, 0.5f), ZException);
    EXPECT_THROW(good.applyHazeRemoval(nullptr, a, 0.5f), ZException);
}

TEST(HazeWorkingSize, AboutOneHundredThousandPixelsAtTheAspectRatio) {
    EXPECT_EQ(365, hazeWorkingSize(4000, 3000).width);
    EXPECT_EQ(273, hazeWorkingSize(4000, 3000).height);
    EXPECT_EQ(353, hazeWorkingSize(100, 80).width);
    // 30000 x 100000 does not fit in 32 bits.
    EXPECT_EQ(1224, hazeWorkingSize(30000, 2000).width);
    EXPECT_EQ(81, hazeWorkingSize(30000, 2000).height);
    EXPECT_EQ(1414, hazeWorkingSize(200000, 10000).width);
    EXPECT_EQ(1, hazeWorkingSize(1, 1000000).width);
    EXPECT_EQ(1, hazeWorkingSize(10000000, 1).height);
    EXPECT_THROW(hazeWorkingSize(0, 10), ZException);
}

TEST(RunHazeRemoval, StrengthZeroChangesNothing) {
    ZImage image = hazetest::randomImage(64, 48, 90);
    const auto before = hazetest::pixels(image);
    HazeSettings settings;
    settings.airlight = {-1.0f, -2.0f, -3.0f};
    runHazeRemoval(image, settings);
    const auto after = hazetest::pixels(image);
    EXPECT_TRUE(hazetest::sameBits(before.data(), after.data(), before.size()));
    EXPECT_EQ(nullptr, settings.airDepthMap);
    EXPECT_EQ((std::array<float, 3>{-1.0f, -2.0f, -3.0f}), settings.airlight);
}

TEST(RunHazeRemoval, ReusesTheCachedMapAndAirlight) {
    ZImage image = hazetest::randomImage(20, 10, 91);
    ZImage expected;
    expected.CopyFrom(image);
    HazeSettings settings;
    settings.strength = 40;
    settings.airlight = {0.9f, 0.8f, 0.7f};
    settings.airDepthMap = std::make_unique<float[]>(200);
    for (int i = 0; i < 200; ++i)
        settings.airDepthMap[i] = static_cast<float>(i) / 200.0f;
    runHazeRemoval(image, settings);

    expected.applyHazeRemoval(settings.airDepthMap.get(), settings.airlight, 0.4f);
    EXPECT_EQ(hazetest::pixels(expected), hazetest::pixels(image));
    EXPECT_EQ((std::array<float, 3>{0.9f, 0.8f, 0.7f}), settings.airlight);
}

// A scene J with a dark channel of 0, veiled with transmission 0.6 under
// airlight A, with a sky of pure A on top: far from the sky line the refined
// map is 1 - t and strength 100 gives J back.
TEST(RunHazeRemoval, RecoversASyntheticHazyScene) {
    const int w = 480, h = 360, skyRows = 90;
    const std::array<float, 3> a{0.8f, 0.85f, 0.9f};
    const float t = 0.6f;
    std::mt19937 rng(92);
    std::uniform_real_distribution<float> value(0.0f, 1.0f);
    std::vector<Rgba> scene(static_cast<std::size_t>(w) * h);
    for (Rgba& j : scene)
        j = Rgba{value(rng), value(rng), 0.0f, 1.0f};
    ZImage image = hazetest::makeImage(w, h, [&](int x, int y) {
        if (y < skyRows) return Rgba{a[0], a[1], a[2], 1.0f};
        const Rgba& j = scene[static_cast<std::size_t>(y) * w + x];
        return Rgba{j.r * t + a[0] * (1 - t), j.g * t + a[1] * (1 - t), j.b * t + a[2] * (1 - t),
                    1.0f};
    });

    HazeSettings settings;
    settings.strength = 100;
    runHazeRemoval(image, settings);
    ASSERT_NE(nullptr, settings.airDepthMap);
    for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(a[c], settings.airlight[c], 1e-5f);
    for (int y = h - 40; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            ASSERT_NEAR(1.0f - t, settings.airDepthMap[static_cast<std::size_t>(y) * w + x], 0.01f);
            const float* p = hazetest::pixel(image, x, y);
            const Rgba& j = scene[static_cast<std::size_t>(y) * w + x];
            ASSERT_NEAR(j.r, p[0], 0.02f * std::abs(j.r - a[0]) + 1e-4f) << x << ", " << y;
            ASSERT_NEAR(j.b, p[2], 0.02f * std::abs(j.b - a[2]) + 1e-4f) << x << ", " << y;
        }
    EXPECT_GT(settings.airDepthMap[w * 10 + 10], 0.85f) << "the sky is all haze";
}

TEST(RunHazeRemoval, AllBlackImageDoesNotFail) {
    ZImage image = hazetest::makeImage(50, 40, [](int, int) { return Rgba{0, 0, 0, 1}; });
    HazeSettings settings;
    settings.strength = 60;
    EXPECT_NO_THROW(runHazeRemoval(image, settings));
    EXPECT_EQ((std::array<float, 3>{0.0f, 0.0f, 0.0f}), settings.airlight);
    EXPECT_EQ(1.0f, hazetest::pixel(image, 3, 3)[3]);
}

TEST(RunHazeRemoval, FailureLeavesImageAndCacheAsTheyWere) {
    ZImage image(30, 20, ZImage::RGB, 32);
    hazetest::pixel(image, 1, 1)[0] = 0.25f;
    HazeSettings settings;
    settings.strength = 60;
    EXPECT_THROW(runHazeRemoval(image, settings), ZException);
    EXPECT_EQ(nullptr, settings.airDepthMap);
    EXPECT_EQ(0.25f, hazetest::pixel(image, 1, 1)[0]);
}

// The bytes of an image of any format, row by row without padding.
std::vector<std::uint8_t> bytesOf(const ZImage& image) {
    std::vector<std::uint8_t> out;
    const std::size_t row = static_cast<std::size_t>(image.Width()) * image.BytesPerPixel();
    for (int y = 0; y < image.Height(); ++y)
        out.insert(out.end(), image.PixelAt(0, y), image.PixelAt(0, y) + row);
    return out;
}

// The run that writes a file converts, removes the haze and converts back
// band by band; it must give the bytes of the three whole-image steps.
TEST(RunHazeRemovalInto, SameBytesAsConvertingRemovingAndConvertingBack) {
    struct Case {
        int width, height, fromType, fromBits, toType, toBits, strength, threads;
        bool cachedMap;
    };
    const Case cases[] = {
        {1000, 600, ZImage::RGB, 8, ZImage::RGB, 8, 60, 2, false},    // a photograph, shrunk
        {150, 90, ZImage::Gray, 16, ZImage::RGBA, 32, 100, 1, false}, // enlarged working copy
        {70, 40, ZImage::RGBA, 16, ZImage::RGB, 8, 0, 2, false},      // strength 0: only converted
        {70, 40, ZImage::RGB, 32, ZImage::Gray, 16, 45, 1, true},     // the cached map
        {90, 50, ZImage::RGBA, 8, ZImage::RGBA, 8, 60, 1, false},     // bytes with alpha
        {90, 50, ZImage::RGB, 8, ZImage::RGBA, 32, 60, 1, false},     // bytes in, floats out
    };
    unsigned seed = 95;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << " x " << c.height << ", " << c.fromType << "/"
                                        << c.fromBits << " to " << c.toType << "/" << c.toBits);
        hazetest::ThreadCountScope scope(c.threads);
        ZImage source;
        hazetest::randomImage(c.width, c.height, seed++).CopyTo(source, c.fromType, c.fromBits);
        HazeSettings mine, theirs;
        mine.strength = theirs.strength = c.strength;
        if (c.cachedMap) {
            const std::size_t n = static_cast<std::size_t>(c.width) * c.height;
            mine.airlight = theirs.airlight = {0.9f, 0.8f, 0.85f};
            mine.airDepthMap = std::make_unique<float[]>(n);
            theirs.airDepthMap = std::make_unique<float[]>(n);
            for (std::size_t i = 0; i < n; ++i)
                mine.airDepthMap[i] = theirs.airDepthMap[i] = static_cast<float>(i % 97) / 90.0f;
        }

        ZImage image, expected, output;
        source.CopyTo(image, ZImage::RGBA, 32);
        runHazeRemoval(image, theirs, DepthMap::Discard);
        // The rows told complete are final when told, and all are told.
        image.CopyTo(expected, c.toType, c.toBits);
        const std::size_t row = static_cast<std::size_t>(c.width) * expected.BytesPerPixel();
        int told = 0;
        runHazeRemovalInto(source, mine, output, c.toType, c.toBits, [&](int rows) {
            EXPECT_GT(rows, told);
            for (; told < rows; ++told)
                EXPECT_EQ(0, std::memcmp(expected.PixelAt(0, told), output.PixelAt(0, told), row))
                    << "row " << told;
        });
        EXPECT_EQ(c.height, told);
        EXPECT_EQ(theirs.airlight, mine.airlight);
        EXPECT_EQ(c.cachedMap, mine.airDepthMap != nullptr);
        EXPECT_EQ(bytesOf(expected), bytesOf(output));

        // The working copy resampled from converted rows.
        const HazeWorkingSize size = hazeWorkingSize(c.width, c.height);
        ZImage direct, converted;
        source.CopyTo(image, ZImage::RGBA, 32);
        image.ResizeTo(direct, size.width, size.height);
        source.ResizeAsFloatTo(converted, size.width, size.height);
        EXPECT_EQ(hazetest::pixels(direct), hazetest::pixels(converted));
    }
}

TEST(RunHazeRemoval, ResultDoesNotDependOnThreadCount) {
    const ZImage source = hazetest::randomImage(1000, 600, 94);
    std::vector<float> images[2], maps[2];
    std::array<float, 3> airlights[2];
    for (int threads = 1; threads <= 2; ++threads) {
        hazetest::ThreadCountScope scope(threads);
        ASSERT_EQ(threads, haze::regionThreads(1000 * 600)) << "too small to split";
        ZImage image;
        image.CopyFrom(source);
        HazeSettings settings;
        settings.strength = 75;
        runHazeRemoval(image, settings);
        images[threads - 1] = hazetest::pixels(image);
        maps[threads - 1].assign(settings.airDepthMap.get(),
                                 settings.airDepthMap.get() + 1000 * 600);
        airlights[threads - 1] = settings.airlight;
    }
    EXPECT_EQ(airlights[0], airlights[1]);
    // Only the sparse solve may round differently on two threads.
    for (std::size_t i = 0; i < maps[0].size(); ++i)
        ASSERT_NEAR(maps[0][i], maps[1][i], 1e-4f) << i;
    for (std::size_t i = 0; i < images[0].size(); ++i)
        ASSERT_NEAR(images[0][i], images[1][i], 1e-3f) << i;
}

} // namespace
