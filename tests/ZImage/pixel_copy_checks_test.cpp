// What ZImage::Copy refuses and in which order, what CopyTo does with the
// target's buffer, and the screen image of ToQImage.
#include "ZImage/ZImage.h"

#include <QImage>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

struct Failure {
    std::string message;
    std::string location;
};

Failure failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const ZException& e) {
        return {e.what(), e.location()->toStdString()};
    }
    return {"no exception", ""};
}

// Pixels of every line of an image, padding left out.
std::vector<std::uint8_t> pixelBytes(const ZImage& image) {
    std::vector<std::uint8_t> bytes;
    const std::size_t row = static_cast<std::size_t>(image.BytesPerPixel()) * image.Width();
    for (int y = 0; y < image.Height(); ++y)
        bytes.insert(bytes.end(), image.PixelAt(0, y), image.PixelAt(0, y) + row);
    return bytes;
}

ZImage patterned(int width, int height, int type, int bits) {
    ZImage image(width, height, type, bits, false);
    for (int y = 0; y < height; ++y)
        for (int i = 0; i < image.BytesPerPixel() * width; ++i)
            image.PixelAt(0, y)[i] = static_cast<std::uint8_t>(y * 31 + i * 7);
    return image;
}

} // namespace

// Each check throws from its own line, so the location says which one fired;
// rows with several faults show which check comes first.
TEST(PixelCopyChecks, EachFaultAtItsOwnSiteInTheOrderSourceTargetDstSrc) {
    const ZImage empty, fine(8, 8, ZImage::Gray, 8), oddDepth(8, 8, ZImage::RGB, 12),
        palette(8, 8, 4, 8);
    ZImage noTarget, paletteTarget(8, 8, 4, 8), oddDepthTarget(8, 8, ZImage::RGBA, 12),
        target(8, 8, ZImage::Gray, 8);
    auto copy = [&](const ZImage& s, ZImage& t, int sx, int sy, int dx, int dy) {
        return failureOf([&] { s.Copy(sx, sy, 2, 2, t, dx, dy); });
    };
    struct Row {
        Failure failure;
        const char* message;
        int sameSiteAs; // -1: a site of its own
    };
    const Row rows[] = {
        {copy(empty, noTarget, 0, 0, 0, 0), "Invalid Bitmap", -1},
        {copy(oddDepth, noTarget, 0, 0, 0, 0), "Invalid Bitmap", -1},
        {copy(palette, noTarget, 0, 0, 0, 0), "Invalid Bitmap", -1},
        {copy(fine, noTarget, 0, 0, -1, 0), "Invalid Parameter", -1},
        {copy(fine, paletteTarget, 0, 0, -1, 0), "Invalid Parameter", -1},
        {copy(fine, oddDepthTarget, 0, 0, -1, 0), "Invalid Parameter", -1},
        {copy(fine, target, 0, 0, -1, 0), "Invalid Parameter", -1},   // 6: dstX
        {copy(fine, target, 0, 0, 0, -1), "Invalid Parameter", -1},   // 7: dstY
        {copy(fine, target, -1, 0, 0, 0), "Invalid Parameter", -1},   // 8: srcX
        {copy(fine, target, 0, -1, 0, 0), "Invalid Parameter", -1},   // 9: srcY
        {copy(fine, target, -1, -1, -1, -1), "Invalid Parameter", 6}, // dstX first
        {copy(fine, target, -1, -1, 0, -1), "Invalid Parameter", 7},  // then dstY
        {copy(fine, target, -1, -1, 0, 0), "Invalid Parameter", 8},   // then srcX
    };
    std::set<std::string> sites;
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const Row& r = rows[i];
        EXPECT_EQ(r.failure.message, r.message) << "row " << i;
        EXPECT_NE(r.failure.location.find("ZImage/ZImage_Copy.cpp"), std::string::npos)
            << r.failure.location;
        if (r.sameSiteAs >= 0)
            EXPECT_EQ(r.failure.location, rows[r.sameSiteAs].failure.location) << "row " << i;
        else
            sites.insert(r.failure.location);
    }
    EXPECT_EQ(sites.size(), 10u) << "two checks share a site";
}

TEST(PixelCopyChecks, WindowsPastAnEdgeOrOfNegativeSizeAreRefusedAndWriteNothing) {
    const ZImage source = patterned(10, 6, ZImage::RGBA, 8);
    ZImage target = patterned(7, 9, ZImage::RGB, 16);
    const auto before = pixelBytes(target);
    struct Window {
        int srcX, srcY, width, height, dstX, dstY;
        const char* why;
    };
    const Window refused[] = {
        {4, 0, 7, 2, 0, 0, "past the source's right edge"},
        {0, 3, 2, 4, 0, 0, "past the source's bottom edge"},
        {0, 0, 4, 2, 4, 0, "past the target's right edge"},
        {0, 0, 2, 5, 0, 5, "past the target's bottom edge"},
        {10, 0, 1, 1, 0, 0, "starting beyond the source's width"},
        {0, 0, 1, 1, 0, 9, "starting beyond the target's height"},
        {2, 2, -1, 1, 2, 2, "negative width"},
        {2, 2, 1, -1, 2, 2, "negative height"},
        {0, 0, 2, 2, 2147483647, 0, "an end beyond the range of int"},
    };
    for (const Window& w : refused)
        EXPECT_EQ(failureOf([&] {
                      source.Copy(w.srcX, w.srcY, w.width, w.height, target, w.dstX, w.dstY);
                  }).message,
                  "Invalid Parameter")
            << w.why;
    EXPECT_EQ(pixelBytes(target), before);

    // Empty windows change nothing, and touching the far edges is allowed.
    EXPECT_NO_THROW(source.Copy(2, 2, 0, 3, target, 1, 1));
    EXPECT_NO_THROW(source.Copy(2, 2, 3, 0, target, 1, 1));
    EXPECT_EQ(pixelBytes(target), before);
    EXPECT_NO_THROW(source.Copy(3, 0, 7, 6, target, 0, 3));
}

TEST(PixelCopyTo, RefusesAnEmptyOrUnknownSourceOrTargetFormat) {
    ZImage target;
    EXPECT_EQ(failureOf([&] { ZImage().CopyTo(target, ZImage::RGBA, 32); }).message,
              "Invalid Bitmap");
    EXPECT_EQ(failureOf([&] { ZImage(2, 2, 4, 8).CopyTo(target, ZImage::RGBA, 32); }).message,
              "Invalid Bitmap");
    EXPECT_EQ(failureOf([&] { ZImage(2, 2, ZImage::RGB, 8).CopyTo(target, 4, 8); }).message,
              "Invalid Parameter");
}

TEST(PixelCopyTo, KeepsATargetBufferOfTheSameSizeAndFormatAndReplacesAnyOther) {
    const ZImage source = patterned(5, 3, ZImage::RGB, 8);
    ZImage target(5, 3, ZImage::RGBA, 32);
    const std::uint8_t* kept = target.PixelAt(0, 0);
    source.CopyTo(target, ZImage::RGBA, 32);
    EXPECT_EQ(target.PixelAt(0, 0), kept);

    source.CopyTo(target, ZImage::Gray, 16);
    EXPECT_EQ(target.BitmapType(), ZImage::Gray);
    EXPECT_EQ(target.BitsPerComponent(), 16);
    EXPECT_EQ(target.Width(), 5);
    EXPECT_EQ(target.Height(), 3);
}

TEST(PixelCopyTo, WritesThroughAWrappedBufferWithAnOddStride) {
    constexpr int width = 3, height = 2, stride = 4 * width + 1;
    std::vector<std::uint8_t> memory(stride * height, 0xEE);
    ZImage wrapped(width, height, ZImage::RGBA, 8, false, memory.data(), stride);
    const ZImage source = patterned(width, height, ZImage::RGB, 16);
    ZImage expected;
    source.CopyTo(expected, ZImage::RGBA, 8);

    source.CopyTo(wrapped, ZImage::RGBA, 8);
    EXPECT_EQ(wrapped.Bitmap()->data, memory.data());
    EXPECT_FALSE(wrapped.OwnsData());
    EXPECT_EQ(pixelBytes(wrapped), pixelBytes(expected));
    for (int y = 0; y < height; ++y)
        EXPECT_EQ(memory[y * stride + 4 * width], 0xEE) << "the byte past each line is not ours";
}

TEST(PixelCopyTo, ConvertsAnImageIntoItself) {
    ZImage image = patterned(6, 4, ZImage::RGBA, 8);
    ZImage expected;
    image.CopyTo(expected, ZImage::RGB, 16);
    image.CopyTo(image, ZImage::RGB, 16);
    EXPECT_EQ(pixelBytes(image), pixelBytes(expected));
    image.CopyTo(image, ZImage::RGB, 16);
    EXPECT_EQ(pixelBytes(image), pixelBytes(expected));
}

// The screen image is the 8-bit RGBA conversion in Qt's ARGB32 order.
TEST(PixelCopyToQImage, GivesArgb32PixelsOfTheEightBitConversion) {
    for (const auto& [type, bits] : {std::pair{ZImage::RGBA, 32}, std::pair{ZImage::Gray, 16}}) {
        const ZImage source = patterned(5, 3, type, bits);
        ZImage bytes;
        source.CopyTo(bytes, ZImage::RGBA, 8);
        QImage image;
        source.ToQImage(image);
        ASSERT_EQ(image.format(), QImage::Format_ARGB32);
        ASSERT_EQ(image.size(), QSize(5, 3));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) {
                const std::uint8_t* p = bytes.PixelAt(x, y);
                EXPECT_EQ(image.pixel(x, y), qRgba(p[0], p[1], p[2], p[3]))
                    << bits << " bits at " << x << "," << y;
            }
    }
    QImage image;
    EXPECT_EQ(failureOf([&] { ZImage().ToQImage(image); }).message, "Invalid Bitmap");
}
