// ZImage::Copy over all 81 pairs of formats, checked pixel by pixel against a
// plain per-pixel model written here from the conversion rules (it calls
// nothing of the production code), on windows at offsets inside larger
// images whose pixels outside the window must not change; the narrowing of
// every word to a byte against v / 257; and large copies cut into bands.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

enum class Depth { F, W, B };

struct Format {
    Depth depth;
    int type;
    int bits() const { return depth == Depth::F ? 32 : depth == Depth::W ? 16 : 8; }
    int channels() const { return type == ZImage::RGBA ? 4 : type == ZImage::RGB ? 3 : 1; }
};

const std::array<Format, 9> kFormats{{{Depth::F, ZImage::RGBA},
                                      {Depth::F, ZImage::RGB},
                                      {Depth::F, ZImage::Gray},
                                      {Depth::W, ZImage::RGBA},
                                      {Depth::W, ZImage::RGB},
                                      {Depth::W, ZImage::Gray},
                                      {Depth::B, ZImage::RGBA},
                                      {Depth::B, ZImage::RGB},
                                      {Depth::B, ZImage::Gray}}};

std::string nameOf(const Format& f) {
    const char* depth = f.depth == Depth::F ? "F" : f.depth == Depth::W ? "W" : "B";
    const char* type = f.type == ZImage::RGBA ? "RGBA" : f.type == ZImage::RGB ? "RGB" : "Gray";
    return std::string(depth) + type;
}

// ---- The model. Components travel as doubles holding the exact value of
// the component: an integer for W and B, a float for F.
using Pixel = std::array<double, 4>;

double fullScale(Depth d) {
    return d == Depth::F ? 1.0 : d == Depth::W ? 65535.0 : 255.0;
}

int rank(Depth d) {
    return d == Depth::B ? 0 : d == Depth::W ? 1 : 2;
}

double floatToInteger(float v, float full) {
    const float scaled = v * full;
    if (std::isnan(scaled) || scaled <= 0.0f) return 0.0;
    if (scaled >= full) return full;
    return std::nearbyint(static_cast<double>(scaled)); // ties to even in the default mode
}

double wordToByteFast(std::uint64_t v) {
    constexpr std::uint64_t kMask = 0xFFFFFFFFu;
    std::uint64_t t = (v + kMask + 1 - 32768) & kMask;
    t = (t - (t >> 8)) & kMask;
    t >>= 8;
    return static_cast<double>((t - 128) & 0xFF);
}

double convert(double v, Depth from, Depth to) {
    if (from == to) return v;
    switch (from) {
    case Depth::F:
        return floatToInteger(static_cast<float>(v), to == Depth::W ? 65535.0f : 255.0f);
    case Depth::W:
        return to == Depth::F ? static_cast<double>(static_cast<float>(v) / 65535.0f)
                              : wordToByteFast(static_cast<std::uint64_t>(v));
    case Depth::B:
        return to == Depth::F ? static_cast<double>(static_cast<float>(v) * (1.0f / 255.0f))
                              : v * 257.0;
    }
    return 0.0;
}

double grayAt(Depth d, const Pixel& p) {
    if (d == Depth::B) {
        const auto r = static_cast<long>(p[0]), g = static_cast<long>(p[1]),
                   b = static_cast<long>(p[2]);
        return static_cast<double>((1225 * r + 2404 * g + 467 * b + 2048) / 4096);
    }
    const float r = static_cast<float>(p[0]), g = static_cast<float>(p[1]),
                b = static_cast<float>(p[2]);
    const float sum = 0.299f * r + 0.587f * g + 0.114f * b;
    return d == Depth::F ? static_cast<double>(sum) : std::floor(static_cast<double>(sum + 0.5f));
}

Pixel expected(const Format& from, const Format& to, const Pixel& in) {
    const int cs = from.channels(), ct = to.channels();
    if (ct == 1 && cs > 1) {
        const Depth high = rank(from.depth) >= rank(to.depth) ? from.depth : to.depth;
        Pixel wide{};
        for (int c = 0; c < cs; ++c)
            wide[c] = convert(in[c], from.depth, high);
        return {convert(grayAt(high, wide), high, to.depth)};
    }
    Pixel q{};
    for (int c = 0; c < cs; ++c)
        q[c] = convert(in[c], from.depth, to.depth);
    if (cs == 1 && ct > 1) q[1] = q[2] = q[0];
    if (ct == 4 && cs < 4) q[3] = fullScale(to.depth);
    return q;
}

// ---- Image access.
double componentAt(const ZImage& image, int x, int y, int c) {
    const std::uint8_t* p = image.PixelAt(x, y);
    switch (image.BitsPerComponent()) {
    case 32: {
        float v;
        std::memcpy(&v, p + 4 * c, 4);
        return v;
    }
    case 16: {
        std::uint16_t v;
        std::memcpy(&v, p + 2 * c, 2);
        return v;
    }
    default:
        return p[c];
    }
}

void setComponent(ZImage& image, int x, int y, int c, double value) {
    std::uint8_t* p = image.PixelAt(x, y);
    if (image.BitsPerComponent() == 32) {
        const float v = static_cast<float>(value);
        std::memcpy(p + 4 * c, &v, 4);
    } else if (image.BitsPerComponent() == 16) {
        const auto v = static_cast<std::uint16_t>(value);
        std::memcpy(p + 2 * c, &v, 2);
    } else {
        p[c] = static_cast<std::uint8_t>(value);
    }
}

// The float nearest to (k + 0.5) / full whose product with full is exactly
// k + 0.5 in single precision, if one lies within a few steps; else the
// nearest float itself.
float halfwayFloat(int k, float full) {
    const float target = static_cast<float>(k) + 0.5f;
    const float start = target / full;
    float down = start, up = start;
    for (int i = 0; i < 4; ++i) {
        if (down * full == target) return down;
        if (up * full == target) return up;
        down = std::nextafter(down, 0.0f);
        up = std::nextafter(up, 2.0f);
    }
    return start;
}

// Values that exercise every rule: full scale and zero, exact halves of both
// integer scales (ties), floats outside 0..1 and NaN, and plain random ones.
double interestingValue(Depth d, std::mt19937& random) {
    std::uniform_int_distribution<int> pick(0, 9);
    const int kind = pick(random);
    if (d == Depth::F) {
        std::uniform_int_distribution<int> step(0, 65534);
        switch (kind) {
        case 0:
            return 0.0;
        case 1:
            return 1.0;
        case 2:
            return halfwayFloat(step(random) % 255, 255.0f);
        case 3:
            return halfwayFloat(step(random), 65535.0f);
        case 4:
            return pick(random) == 0 ? -std::numeric_limits<float>::infinity()
                                     : -std::uniform_real_distribution<float>(0.0f, 2.0f)(random);
        case 5:
            return pick(random) == 0 ? std::numeric_limits<float>::infinity()
                                     : std::uniform_real_distribution<float>(1.0f, 3.0f)(random);
        case 6:
            return pick(random) < 3 ? std::numeric_limits<float>::quiet_NaN() : 0.5;
        default:
            return std::uniform_real_distribution<float>(0.0f, 1.0f)(random);
        }
    }
    const int full = d == Depth::W ? 65535 : 255;
    if (kind == 0) return 0;
    if (kind == 1) return full;
    if (kind == 2 && d == Depth::W) return 128; // first value at which the fast narrowing rounds up
    return std::uniform_int_distribution<int>(0, full)(random);
}

bool sameComponent(double a, double b) {
    return (std::isnan(a) && std::isnan(b)) || a == b;
}

class PixelCopyCell : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(PixelCopyCell, MatchesTheModelInsideTheWindowAndLeavesTheRestAlone) {
    const Format from = kFormats[std::get<0>(GetParam())];
    const Format to = kFormats[std::get<1>(GetParam())];
    std::mt19937 random(1234u + 9u * std::get<0>(GetParam()) + std::get<1>(GetParam()));

    ZImage source(37, 11, from.type, from.bits(), false);
    for (int y = 0; y < 11; ++y)
        for (int x = 0; x < 37; ++x)
            for (int c = 0; c < from.channels(); ++c)
                setComponent(source, x, y, c, interestingValue(from.depth, random));

    // A target that already holds other values: every cell must write every
    // component of the window, alpha included.
    ZImage target(45, 15, to.type, to.bits(), false);
    for (int y = 0; y < 15; ++y)
        for (int x = 0; x < 45; ++x)
            for (int c = 0; c < to.channels(); ++c)
                setComponent(target, x, y, c, to.depth == Depth::F ? 0.25 : 7 + c);
    ZImage before;
    before.CopyFrom(target);

    constexpr int srcX = 3, srcY = 2, width = 31, height = 8, dstX = 5, dstY = 4;
    source.Copy(srcX, srcY, width, height, target, dstX, dstY);

    int mismatches = 0;
    for (int y = 0; y < 15; ++y) {
        for (int x = 0; x < 45; ++x) {
            const bool inside = x >= dstX && x < dstX + width && y >= dstY && y < dstY + height;
            Pixel want{};
            Pixel in{};
            if (inside) {
                for (int c = 0; c < from.channels(); ++c)
                    in[c] = componentAt(source, x - dstX + srcX, y - dstY + srcY, c);
                want = expected(from, to, in);
            } else {
                for (int c = 0; c < to.channels(); ++c)
                    want[c] = componentAt(before, x, y, c);
            }
            for (int c = 0; c < to.channels(); ++c) {
                const double got = componentAt(target, x, y, c);
                if (!sameComponent(got, want[c]) && ++mismatches <= 5)
                    ADD_FAILURE() << (inside ? "inside" : "outside") << " (" << x << ", " << y
                                  << ") component " << c << ": got " << got << ", want " << want[c]
                                  << " from (" << in[0] << ", " << in[1] << ", " << in[2] << ", "
                                  << in[3] << ")";
            }
        }
    }
    EXPECT_EQ(mismatches, 0);
}

INSTANTIATE_TEST_SUITE_P(AllFormatPairs, PixelCopyCell,
                         ::testing::Combine(::testing::Range(0, 9), ::testing::Range(0, 9)),
                         [](const auto& info) {
                             return nameOf(kFormats[std::get<0>(info.param)]) + "_to_" +
                                    nameOf(kFormats[std::get<1>(info.param)]);
                         });

// The fast narrowing is not v / 257 rounded: it may differ, by one upwards,
// only for values just below a half, and does so for exactly 128 of them.
TEST(PixelCopyRounding, WordToByteIsWithinOneOfDivisionAndRoundsUpOnlyJustBelowHalves) {
    ZImage words(65536, 1, ZImage::Gray, 16, false);
    for (int v = 0; v < 65536; ++v)
        setComponent(words, v, 0, 0, v);
    ZImage bytes;
    words.CopyTo(bytes, ZImage::Gray, 8);

    int roundedUp = 0;
    for (int v = 0; v < 65536; ++v) {
        const double exact = v / 257.0;
        const int nearest = static_cast<int>(std::lround(exact)); // no exact halves: 257 is odd
        const double got = componentAt(bytes, v, 0, 0);
        if (got == nearest) continue;
        ++roundedUp;
        EXPECT_EQ(got, nearest + 1) << "v = " << v << " may only go up, by one";
        EXPECT_GT(exact - std::floor(exact), 0.49) << "v = " << v << " is not just below a half";
    }
    EXPECT_EQ(roundedUp, 128);
}

TEST(PixelCopyRounding, LargeWindowsGiveTheSameAsRowByRowWhateverTheThreadCount) {
    // Large enough to be cut into many bands of rows and shared by a team;
    // each row copied on its own is the reference.
    std::mt19937 random(99);
    ZImage source(613, 401, ZImage::RGBA, 32, false);
    for (int y = 0; y < source.Height(); ++y)
        for (int x = 0; x < source.Width(); ++x)
            for (int c = 0; c < 4; ++c)
                setComponent(source, x, y, c, interestingValue(Depth::F, random));
    const int saved = threadCount;
    for (const int type : {ZImage::RGBA, ZImage::RGB, ZImage::Gray}) {
        for (const int bits : {8, 16}) {
            ZImage rowByRow(source.Width(), source.Height(), type, bits, false);
            threadCount = 1;
            for (int y = 0; y < source.Height(); ++y)
                source.Copy(0, y, source.Width(), 1, rowByRow, 0, y);
            for (const int threads : {1, 2}) {
                threadCount = threads;
                ZImage whole;
                source.CopyTo(whole, type, bits);
                // Row by row: the padding at the end of each line is never written.
                const std::size_t rowBytes =
                    static_cast<std::size_t>(whole.BytesPerPixel()) * whole.Width();
                int rowsDiffering = 0;
                for (int y = 0; y < whole.Height(); ++y)
                    rowsDiffering +=
                        std::memcmp(whole.PixelAt(0, y), rowByRow.PixelAt(0, y), rowBytes) != 0;
                EXPECT_EQ(rowsDiffering, 0)
                    << "type " << type << ", " << bits << " bits, " << threads << " threads";
            }
        }
    }
    threadCount = saved;
}

} // namespace
