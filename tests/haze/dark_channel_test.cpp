// estimateDarkChannel: window radius, airlight choice and normalised map on
// random images, and the cases a plain rule cannot tell apart (the candidate
// count at the height boundaries, equal dark values, black and transparent).
#include "ZImage/ZImageHaze.h"
#include "ZImage/ZImageHaze_p.h"

#include "HazeTestImages.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

using hazetest::Rgba;

namespace {

struct Estimate {
    std::array<float, 3> airlight;
    std::vector<float> map;
};

// The selection rule written out the slow way: candidates sorted by dark value,
// a new one placed before all of equal value, the front one dropped when a
// larger value arrives.
Estimate modelEstimate(const ZImage& image, int keepRows) {
    const int w = image.Width(), h = image.Height();
    const auto in = hazetest::pixels(image);
    const auto f = hazetest::naiveMinFilter(in, w, h, 4, std::max(w, h) / 100 + 1);
    auto dark = [&](std::size_t i) { return std::min({f[4 * i], f[4 * i + 1], f[4 * i + 2]}); };

    std::vector<std::pair<float, std::size_t>> candidates;
    auto insert = [&](float key, std::size_t i) {
        auto at = candidates.begin();
        while (at != candidates.end() && at->first < key)
            ++at;
        candidates.insert(at, {key, i});
    };
    const std::size_t seeded = static_cast<std::size_t>(keepRows) * w;
    for (std::size_t i = 0; i < seeded; ++i)
        insert(dark(i), i);
    for (std::size_t i = seeded; i < in.size() / 4; ++i)
        if (dark(i) > candidates.front().first) {
            candidates.erase(candidates.begin());
            insert(dark(i), i);
        }

    float best = -1.0f;
    std::size_t winner = 0;
    for (const auto& [key, i] : candidates) {
        const float l =
            static_cast<float>(0.3 * in[4 * i] + 0.59 * in[4 * i + 1] + 0.11 * in[4 * i + 2]);
        if (best < l) {
            best = l;
            winner = i;
        }
    }
    Estimate e{{in[4 * winner], in[4 * winner + 1], in[4 * winner + 2]}, {}};
    for (std::size_t i = 0; i < in.size() / 4; ++i)
        e.map.push_back(std::min({f[4 * i] / e.airlight[0], f[4 * i + 1] / e.airlight[1],
                                  f[4 * i + 2] / e.airlight[2]}));
    return e;
}

Estimate estimate(const ZImage& image) {
    Estimate e{};
    auto map = image.estimateDarkChannel(e.airlight);
    e.map.assign(map.get(), map.get() + static_cast<std::size_t>(image.Width()) * image.Height());
    return e;
}

TEST(DarkChannelSizes, RegionsSplitOnlyWhenEachThreadGetsAQuarterMegapixel) {
    hazetest::ThreadCountScope threads(2);
    EXPECT_EQ(1, haze::regionThreads(100000));
    EXPECT_EQ(1, haze::regionThreads(2 * 262144 - 1));
    EXPECT_EQ(2, haze::regionThreads(2 * 262144));
    EXPECT_EQ(2, haze::regionThreads(24000000));
}

TEST(TopPixelMap, NewestOfEqualKeysComesFirstAndIsReplacedFirst) {
    const float px[5] = {};
    haze::TopPixelMap top;
    top.insert(0.5f, &px[0]);
    top.insert(0.2f, &px[1]);
    top.insert(0.5f, &px[2]);
    top.insert(0.2f, &px[3]);
    std::vector<const float*> order;
    for (const auto& entry : top)
        order.push_back(entry.second);
    EXPECT_EQ((std::vector<const float*>{&px[3], &px[1], &px[2], &px[0]}), order);

    // The newest of the smallest goes; the older 0.2 stays at the front.
    top.replaceSmallest(0.7f, &px[4]);
    order.clear();
    for (const auto& entry : top)
        order.push_back(entry.second);
    EXPECT_EQ((std::vector<const float*>{&px[1], &px[2], &px[0], &px[4]}), order);
    EXPECT_EQ(0.2f, top.smallestKey());
}

TEST(TopPixelMap, NanRanksBelowEveryNumber) {
    const float px[2] = {};
    haze::TopPixelMap top;
    top.insert(-5.0f, &px[0]);
    top.insert(std::nanf(""), &px[1]);
    EXPECT_EQ(&px[1], top.begin()->second);
}

TEST(EstimateDarkChannel, SinglePixelIsItsOwnAirlight) {
    const ZImage image = hazetest::makeImage(1, 1, [](int, int) {
        return Rgba{0.3f, 0.6f, 0.9f, 1.0f};
    });
    const Estimate e = estimate(image);
    EXPECT_EQ((std::array<float, 3>{0.3f, 0.6f, 0.9f}), e.airlight);
    ASSERT_EQ(1u, e.map.size());
    EXPECT_EQ(1.0f, e.map[0]);
}

TEST(EstimateDarkChannel, MatchesTheSelectionRuleOnRandomImages) {
    const int sizes[][2] = {{60, 45}, {45, 60}, {7, 3}, {130, 9}, {1, 50}};
    unsigned seed = 20;
    for (const auto& size : sizes) {
        const ZImage image = hazetest::randomImage(size[0], size[1], seed++, 0.05f, 1.0f);
        const Estimate model = modelEstimate(image, 1);
        const Estimate actual = estimate(image);
        EXPECT_EQ(model.airlight, actual.airlight) << size[0] << " x " << size[1];
        EXPECT_EQ(model.map, actual.map) << size[0] << " x " << size[1];
    }
}

TEST(EstimateDarkChannel, KeepCountDecidesWhichRowsCompete) {
    // Blue grows down the image, so the candidates are the last row(s); the
    // brightest pixel, one row up, competes only when two rows are kept.
    for (const int height : {1000, 1001, 1999, 2000}) {
        const ZImage image = hazetest::makeImage(4, height, [&](int x, int y) {
            const float blue = 0.1f + 0.0004f * static_cast<float>(y);
            if (x == 1 && y == height - 2) return Rgba{1.0f, 1.0f, blue, 1.0f};
            return Rgba{0.95f, 0.95f, blue, 1.0f};
        });
        const float* last = hazetest::pixel(image, 0, height - 1);
        const float* bright = hazetest::pixel(image, 1, height - 2);
        const std::array<float, 3> expected =
            height >= 2000 ? std::array<float, 3>{bright[0], bright[1], bright[2]}
                           : std::array<float, 3>{last[0], last[1], last[2]};
        EXPECT_EQ(expected, estimate(image).airlight) << "height " << height;
    }
}

TEST(EstimateDarkChannel, EqualDarkValuesKeepTheFirstRowAndItsNewestBrightest) {
    // Every dark value is 0.5, so the seed row is never replaced; its
    // luminances are equal in float and the newest (rightmost) wins.
    const int w = 8;
    const float left = 0.5f + std::ldexp(1.0f, -23);
    const float right = 0.5f + std::ldexp(1.0f, -22);
    ZImage image = hazetest::makeImage(w, 6, [&](int x, int y) {
        if (y == 0) return Rgba{0.5f, 0.5f, x == 0 ? left : x == w - 1 ? right : 0.5f, 1.0f};
        return Rgba{0.9f, 0.95f, 0.5f, 1.0f};
    });
    auto luminance = [](float b) {
        return static_cast<float>(0.3 * 0.5f + 0.59 * 0.5f + 0.11 * b);
    };
    ASSERT_EQ(luminance(0.5f), luminance(left));
    ASSERT_EQ(luminance(0.5f), luminance(right));

    EXPECT_EQ((std::array<float, 3>{0.5f, 0.5f, right}), estimate(image).airlight);
}

TEST(EstimateDarkChannel, AllBlackGivesNanMapWithoutFailing) {
    const ZImage image = hazetest::makeImage(20, 15, [](int, int) { return Rgba{0, 0, 0, 1}; });
    const Estimate e = estimate(image);
    EXPECT_EQ((std::array<float, 3>{0.0f, 0.0f, 0.0f}), e.airlight);
    for (const float v : e.map)
        ASSERT_TRUE(std::isnan(v));
}

TEST(EstimateDarkChannel, TransparentPixelCanSupplyTheAirlight) {
    const ZImage image = hazetest::makeImage(12, 12, [](int x, int y) {
        if (x >= 9 && y >= 9) return Rgba{0.8f, 0.85f, 0.9f, 0.0f};
        return Rgba{0.2f, 0.25f, 0.3f, 1.0f};
    });
    EXPECT_EQ((std::array<float, 3>{0.8f, 0.85f, 0.9f}), estimate(image).airlight);
}

TEST(EstimateDarkChannel, ResultDoesNotDependOnThreadCount) {
    const ZImage image = hazetest::randomImage(820, 700, 77, 0.0f, 1.0f);
    Estimate one, two;
    {
        hazetest::ThreadCountScope threads(1);
        one = estimate(image);
    }
    {
        hazetest::ThreadCountScope threads(2);
        ASSERT_EQ(2, haze::regionThreads(820 * 700)) << "too small to split";
        two = estimate(image);
    }
    EXPECT_EQ(one.airlight, two.airlight);
    ASSERT_EQ(one.map.size(), two.map.size());
    EXPECT_TRUE(hazetest::sameBits(one.map.data(), two.map.data(), one.map.size()));
}

TEST(EstimateDarkChannel, RejectsOtherFormats) {
    std::array<float, 3> airlight{};
    try {
        (void)ZImage(4, 4, ZImage::RGB, 32).estimateDarkChannel(airlight);
        ADD_FAILURE() << "no exception for RGB";
    } catch (const ZException& e) {
        EXPECT_STREQ("Invalid Bitmap", e.what());
        EXPECT_TRUE(e.location()->contains(QStringLiteral("ZImageHaze.cpp")));
    }
    EXPECT_THROW((void)ZImage(4, 4, ZImage::RGBA, 16).estimateDarkChannel(airlight), ZException);
    EXPECT_THROW((void)ZImage().estimateDarkChannel(airlight), ZException);
}

} // namespace
