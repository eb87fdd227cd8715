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

TEST(PixelCopyChecks, SourceIsCheckedBeforeTargetEachFaultAtItsOwnSite) {
    const ZImage empty;
    const ZImage fine(4, 4, ZImage::RGB, 8);
    const ZImage oddDepth(4, 4, ZImage::RGB, 12);
    const ZImage palette(4, 4, 4, 8);
    ZImage target(4, 4, ZImage::RGBA, 32);
    ZImage noTarget;
    ZImage paletteTarget(4, 4, 4, 8);
    ZImage oddDepthTarget(4, 4, ZImage::RGBA, 12);

    const std::vector<Failure> failures{
        failureOf([&] { empty.Copy(0, 0, 4, 4, noTarget, 0, 0); }),
        failureOf([&] { oddDepth.Copy(0, 0, 4, 4, noTarget, 0, 0); }),
        failureOf([&] { palette.Copy(0, 0, 4, 4, noTarget, 0, 0); }),
        failureOf([&] { fine.Copy(0, 0, 4, 4, noTarget, -1, 0); }),
        failureOf([&] { fine.Copy(0, 0, 4, 4, paletteTarget, -1, 0); }),
        failureOf([&] { fine.Copy(0, 0, 4, 4, oddDepthTarget, -1, 0); }),
    };
    const std::vector<std::string> messages{"Invalid Bitmap",    "Invalid Bitmap",
                                            "Invalid Bitmap",    "Invalid Parameter",
                                            "Invalid Parameter", "Invalid Parameter"};
    std::set<std::string> sites;
    for (std::size_t i = 0; i < failures.size(); ++i) {
        EXPECT_EQ(failures[i].message, messages[i]) << "check " << i;
        EXPECT_NE(failures[i].location.find("ZImage/ZImage_Copy.cpp"), std::string::npos)
            << failures[i].location;
        sites.insert(failures[i].location);
    }
    EXPECT_EQ(sites.size(), failures.size()) << "two checks share a site";
    EXPECT_NO_THROW(fine.Copy(0, 0, 4, 4, target, 0, 0));
}

TEST(PixelCopyChecks, CoordinatesAreTestedInTheOrderDstXDstYSrcXSrcY) {
    const ZImage source(8, 8, ZImage::Gray, 8);
    ZImage target(8, 8, ZImage::Gray, 8);
    auto site = [&](int srcX, int srcY, int dstX, int dstY) {
        return failureOf([&] { source.Copy(srcX, srcY, 2, 2, target, dstX, dstY); });
    };
    const Failure dstX = site(0, 0, -1, 0), dstY = site(0, 0, 0, -1);
    const Failure srcX = site(-1, 0, 0, 0), srcY = site(0, -1, 0, 0);
    for (const Failure& f : {dstX, dstY, srcX, srcY})
        EXPECT_EQ(f.message, "Invalid Parameter");
    EXPECT_EQ(
        std::set<std::string>({dstX.location, dstY.location, srcX.location, srcY.location}).size(),
        4u);
    EXPECT_EQ(site(-1, -1, -1, -1).location, dstX.location);
    EXPECT_EQ(site(-1, -1, 0, -1).location, dstY.location);
    EXPECT_EQ(site(-1, -1, 0, 0).location, srcX.location);
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
    for (const Window& w : refused) {
        EXPECT_EQ(failureOf([&] {
                      source.Copy(w.srcX, w.srcY, w.width, w.height, target, w.dstX, w.dstY);
                  }).message,
                  "Invalid Parameter")
            << w.why;
    }
    EXPECT_EQ(pixelBytes(target), before);

    // Touching the far edges is allowed, and an empty window changes nothing.
    EXPECT_NO_THROW(source.Copy(3, 0, 7, 6, target, 0, 3));
    ZImage untouched = patterned(7, 9, ZImage::RGB, 16);
    const auto untouchedBefore = pixelBytes(untouched);
    EXPECT_NO_THROW(source.Copy(2, 2, 0, 3, untouched, 1, 1));
    EXPECT_NO_THROW(source.Copy(2, 2, 3, 0, untouched, 1, 1));
    EXPECT_EQ(pixelBytes(untouched), untouchedBefore);
}

TEST(PixelCopyTo, RefusesAnEmptyOrUnknownSource) {
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
    EXPECT_EQ(reinterpret_cast<const float*>(target.PixelAt(0, 0))[3], 1.0f);

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

    std::vector<std::uint16_t> words(3 * width * height);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = static_cast<std::uint16_t>(i * 257 * 13);
    ZImage source(width, height, ZImage::RGB, 16, false);
    for (int y = 0; y < height; ++y)
        std::memcpy(source.PixelAt(0, y), words.data() + 3 * width * y, 6 * width);

    source.CopyTo(wrapped, ZImage::RGBA, 8);
    EXPECT_EQ(wrapped.Bitmap()->data, memory.data());
    EXPECT_FALSE(wrapped.OwnsData());
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const std::uint8_t* p = memory.data() + y * stride + 4 * x;
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(p[c], words[3 * (y * width + x) + c] / 257) << x << "," << y;
            EXPECT_EQ(p[3], 255);
        }
        EXPECT_EQ(memory[y * stride + 4 * width], 0xEE) << "the byte past each line is not ours";
    }
}

TEST(PixelCopyTo, ConvertsAnImageIntoItself) {
    ZImage image = patterned(6, 4, ZImage::RGBA, 8);
    ZImage expected;
    image.CopyTo(expected, ZImage::RGB, 16);
    image.CopyTo(image, ZImage::RGB, 16);
    EXPECT_EQ(pixelBytes(image), pixelBytes(expected));
    const auto same = pixelBytes(image);
    image.CopyTo(image, ZImage::RGB, 16);
    EXPECT_EQ(pixelBytes(image), same);
}

TEST(PixelCopyToQImage, GivesArgb32PixelsOfTheEightBitConversion) {
    ZImage source(3, 2, ZImage::RGBA, 32, false);
    const float values[2][3][4] = {
        {{1.0f, 0.0f, 0.5f, 1.0f}, {0.2f, 0.4f, 0.6f, 0.0f}, {-1.0f, 2.0f, 0.25f, 0.75f}},
        {{0.0f, 0.0f, 0.0f, 0.0f}, {1.0f, 1.0f, 1.0f, 1.0f}, {0.1f, 0.9f, 0.3f, 0.5f}},
    };
    for (int y = 0; y < 2; ++y)
        std::memcpy(source.PixelAt(0, y), values[y], sizeof values[y]);

    QImage image;
    source.ToQImage(image);
    ASSERT_EQ(image.format(), QImage::Format_ARGB32);
    ASSERT_EQ(image.size(), QSize(3, 2));
    // Bytes from floats: v x 255 in single precision, rounded with ties to
    // even; 0.5, 0.1, 0.9 and 0.3 all land exactly on halves (127.5 -> 128,
    // 25.5 -> 26, 229.5 -> 230, 76.5 -> 76).
    EXPECT_EQ(image.pixel(0, 0), qRgba(255, 0, 128, 255));
    EXPECT_EQ(image.pixel(1, 0), qRgba(51, 102, 153, 0));
    EXPECT_EQ(image.pixel(2, 0), qRgba(0, 255, 64, 191));
    EXPECT_EQ(image.pixel(0, 1), qRgba(0, 0, 0, 0));
    EXPECT_EQ(image.pixel(1, 1), qRgba(255, 255, 255, 255));
    EXPECT_EQ(image.pixel(2, 1), qRgba(26, 230, 76, 128));

    // A grey 16-bit source: three equal channels and an opaque alpha.
    ZImage grey(2, 1, ZImage::Gray, 16, false);
    reinterpret_cast<std::uint16_t*>(grey.PixelAt(0, 0))[0] = 0;
    reinterpret_cast<std::uint16_t*>(grey.PixelAt(0, 0))[1] = 257 * 200;
    grey.ToQImage(image);
    EXPECT_EQ(image.pixel(0, 0), qRgba(0, 0, 0, 255));
    EXPECT_EQ(image.pixel(1, 0), qRgba(200, 200, 200, 255));

    EXPECT_EQ(failureOf([&] { ZImage().ToQImage(image); }).message, "Invalid Bitmap");
}
