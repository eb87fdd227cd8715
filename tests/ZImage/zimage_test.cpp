// ZImage: the bitmap record, its lifecycle and ownership, resampling, what
// Copy refuses and in which order, what CopyTo does with the target's buffer,
// and the screen image of ToQImage.
// Run under ASan in CI, so a leak or a double free of adopted memory fails.
#include "ZImage/ZImage.h"

#include <QImage>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>
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

std::string locationOf(const std::function<void()>& f) {
    const Failure failure = failureOf(f);
    return failure.location + " | " + failure.message;
}

template <typename T>
T* row(const ZImage& image, int y) {
    return reinterpret_cast<T*>(image.PixelAt(0, y));
}

} // namespace

TEST(ZImageCreate, FillsTheRecordAndPadsLinesToFourBytes) {
    ZImage image(3, 1, ZImage::RGB, 8);
    const IflBitmap& b = *image.Bitmap();
    EXPECT_EQ(image.BytesPerPixel(), 3);
    EXPECT_EQ(image.BytesPerLine(), 12);
    EXPECT_EQ(image.Width(), 3);
    EXPECT_EQ(image.Height(), 1);
    EXPECT_EQ(image.BitmapType(), ZImage::RGB);
    EXPECT_EQ(image.BitsPerComponent(), 8);
    EXPECT_EQ(b.componentsPerPixel, 3);
    EXPECT_EQ(b.linePadding, 4);
    EXPECT_EQ(b.transparentIndex, 65535);
    EXPECT_EQ(b.coloursUsed, 0u);
    EXPECT_EQ(b.palette, nullptr);
    EXPECT_EQ(b.origin, 0);
    EXPECT_TRUE(image.OwnsData());
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(b.data[i], 0) << "cleared pixels";

    const ZImage wide(5, 2, ZImage::RGBA, 32, false);
    EXPECT_EQ(wide.BytesPerPixel(), 16);
    EXPECT_EQ(wide.BytesPerLine(), 80);
    const ZImage grey(5, 1, ZImage::Gray, 16);
    EXPECT_EQ(grey.BytesPerLine(), 12);
    EXPECT_EQ(grey.Bitmap()->coloursUsed, 256u);
}

TEST(ZImageCreate, TypeCodesAreClassifiedByMaskInOrder) {
    EXPECT_EQ(ZImage::ComponentsOfType(0x1), 1);
    EXPECT_EQ(ZImage::ComponentsOfType(0x7 | 0x40), 1) << "grey mask is tested first";
    EXPECT_EQ(ZImage::ComponentsOfType(0x40), 3);
    EXPECT_EQ(ZImage::ComponentsOfType(0x1000), 3);
    EXPECT_EQ(ZImage::ComponentsOfType(0x80), 4);
    EXPECT_EQ(ZImage::ComponentsOfType(0x2000), 4);
    EXPECT_EQ(ZImage::ComponentsOfType(0x8), 0);

    ZImage paletted(4, 4, 4, 8);
    ASSERT_NE(paletted.Bitmap()->palette, nullptr);
    EXPECT_EQ(paletted.Bitmap()->coloursUsed, 256u);
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(paletted.Bitmap()->palette[i], 0);
}

TEST(ZImageCreate, RefusesUnknownTypeCodeAndAStrideBeyondThirtyTwoBits) {
    ZImage image;
    const std::string where = locationOf([&] { image.Create(2, 2, 0, 8); });
    EXPECT_NE(where.find("ZImage/ZImage.cpp"), std::string::npos) << where;
    EXPECT_NE(where.find("Invalid Parameter"), std::string::npos) << where;
    EXPECT_NE(locationOf([&] { image.Create(2, 2, 0x8, 8); }).find("Invalid Parameter"),
              std::string::npos);
    EXPECT_NE(
        locationOf([&] { image.Create(1 << 29, 1, ZImage::RGBA, 32); }).find("Not enough memory"),
        std::string::npos);
}

TEST(ZImageCreate, SameFormatKeepsTheBufferAndClearsOnlyWhenAsked) {
    ZImage image(4, 3, ZImage::RGBA, 8);
    std::uint8_t* const data = image.Bitmap()->data;
    std::memset(data, 0xAB, 4 * 4 * 3);
    image.Create(4, 3, ZImage::RGBA, 8, false);
    EXPECT_EQ(image.Bitmap()->data, data);
    EXPECT_EQ(data[17], 0xAB) << "clear false leaves the old pixels";
    image.Create(4, 3, ZImage::RGBA, 8, true);
    EXPECT_EQ(image.Bitmap()->data, data);
    EXPECT_EQ(data[17], 0);
    image.Create(4, 3, ZImage::RGBA, 16, false);
    EXPECT_EQ(image.BitsPerComponent(), 16);
}

TEST(ZImageAccessors, EmptyImageGivesInvalidBitmapFromTheHeader) {
    const ZImage empty;
    EXPECT_TRUE(empty.IsEmpty());
    const std::vector<std::function<void()>> accessors = {
        [&] { (void)empty.BytesPerPixel(); },    [&] { (void)empty.BytesPerLine(); },
        [&] { (void)empty.BitsPerComponent(); }, [&] { (void)empty.Width(); },
        [&] { (void)empty.Height(); },           [&] { (void)empty.BitmapType(); },
        [&] { (void)empty.PixelAt(0, 0); }};
    std::set<std::string> seen;
    for (const auto& accessor : accessors) {
        const std::string where = locationOf(accessor);
        EXPECT_NE(where.find("File: \"ZImage/ZImage.h\" Line: "), std::string::npos) << where;
        EXPECT_NE(where.find("| Invalid Bitmap"), std::string::npos) << where;
        seen.insert(where);
    }
    EXPECT_EQ(seen.size(), accessors.size()) << "each accessor has its own line";
}

TEST(ZImageOwnership, AdoptedMemoryIsNeverFreedAndReCreateOwnsItsOwn) {
    std::vector<std::uint8_t> outside(6 * 5, 7);
    {
        ZImage image(2, 5, ZImage::RGB, 8, false, outside.data(), 6);
        EXPECT_FALSE(image.OwnsData());
        EXPECT_EQ(image.Bitmap()->linePadding, 2) << "a stride of 6 is not a multiple of 4";
        EXPECT_EQ(image.BytesPerLine(), 6);
        EXPECT_EQ(image.PixelAt(1, 2), outside.data() + 2 * 6 + 3);
        // Re-created with memory of its own, the image owns and frees it (no leak under ASan).
        image.Create(3, 3, ZImage::RGB, 8);
        EXPECT_TRUE(image.OwnsData());
        EXPECT_NE(image.Bitmap()->data, outside.data());
    }
    {
        std::vector<std::uint8_t> padded(8 * 5, 7);
        ZImage cleared(2, 5, ZImage::RGB, 8, true, padded.data(), 8);
        EXPECT_EQ(cleared.Bitmap()->linePadding, 4);
        EXPECT_EQ(padded[0], 0) << "adopted memory is cleared too";
        EXPECT_EQ(padded[39], 0);
    }
}

TEST(ZImageCopyFrom, DeepCopiesRecordPixelsPaletteAndText) {
    std::vector<std::uint8_t> outside(8 * 2);
    for (std::size_t i = 0; i < outside.size(); ++i)
        outside[i] = static_cast<std::uint8_t>(i * 3);
    ZImage source(2, 2, ZImage::RGBA, 8, false, outside.data(), 8);
    IflBitmap& record = *source.Bitmap();
    char text[] = "caption";
    record.text = text;
    record.value0 = 11;
    record.value1 = -4;
    // link1 is a plain reference that the copy must not share.
    record.link1 = &record;

    ZImage copy;
    copy.CopyFrom(source);
    record.text = nullptr; // the source never owned it
    ASSERT_FALSE(copy.IsEmpty());
    EXPECT_TRUE(copy.OwnsData());
    const IflBitmap& c = *copy.Bitmap();
    EXPECT_NE(c.data, outside.data());
    EXPECT_EQ(std::memcmp(c.data, outside.data(), outside.size()), 0);
    ASSERT_NE(c.text, nullptr);
    EXPECT_NE(c.text, text);
    EXPECT_STREQ(c.text, "caption");
    EXPECT_EQ(c.link0, nullptr);
    EXPECT_EQ(c.link1, nullptr);
    EXPECT_EQ(c.value0, 11);
    EXPECT_EQ(c.value1, -4);
    EXPECT_EQ(c.width, 2);
    EXPECT_EQ(c.bytesPerLine, 8);

    ZImage paletted(2, 2, 4, 8);
    paletted.Bitmap()->palette[1023] = 9;
    ZImage paletteCopy;
    paletteCopy.CopyFrom(paletted);
    ASSERT_NE(paletteCopy.Bitmap()->palette, paletted.Bitmap()->palette);
    EXPECT_EQ(paletteCopy.Bitmap()->palette[1023], 9);

    ZImage empty;
    paletteCopy.CopyFrom(empty);
    EXPECT_TRUE(paletteCopy.IsEmpty());
}

TEST(ZImageMove, TransfersTheBitmap) {
    ZImage a(3, 3, ZImage::Gray, 8);
    IflBitmap* const record = a.Bitmap();
    ZImage b(std::move(a));
    EXPECT_TRUE(a.IsEmpty());
    EXPECT_EQ(b.Bitmap(), record);
    ZImage c;
    c = std::move(b);
    EXPECT_EQ(c.Bitmap(), record);
}

TEST(ZImageResize, EmptySourceThrowsWithLocationOnly) {
    const ZImage empty;
    ZImage target;
    try {
        empty.ResizeTo(target, 2, 2);
        FAIL();
    } catch (const ZException& e) {
        EXPECT_STREQ(e.what(), "");
        EXPECT_TRUE(e.location()->startsWith(QStringLiteral("File: \"ZImage/ZImage_Resize.cpp\"")));
    }
}

TEST(ZImageResize, SameSizeCopiesWhateverTheArguments) {
    ZImage source(3, 2, ZImage::RGB, 16);
    row<std::uint16_t>(source, 1)[4] = 1234;
    ZImage target;
    source.ResizeTo(target, 3, 2, 12345, -1.0, 7.0, 3.0, 3.0);
    EXPECT_EQ(row<std::uint16_t>(target, 1)[4], 1234);
    EXPECT_NE(target.Bitmap()->data, source.Bitmap()->data);
}

TEST(ZImageResize, UnsupportedTypeGivesAClearedTarget) {
    ZImage source(4, 4, 4, 8);
    std::memset(source.Bitmap()->data, 200, 16);
    ZImage target;
    source.ResizeTo(target, 2, 3);
    EXPECT_EQ(target.Width(), 2);
    EXPECT_EQ(target.Height(), 3);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 2; ++x)
            EXPECT_EQ(*target.PixelAt(x, y), 0);
}

// Component i of line y in the unit of the image's depth.
double at(const ZImage& image, int y, int i) {
    switch (image.BitsPerComponent()) {
    case 8:
        return row<std::uint8_t>(image, y)[i];
    case 16:
        return row<std::uint16_t>(image, y)[i];
    default:
        return row<float>(image, y)[i];
    }
}

// Every format, every mode, shrinking and enlarging: a constant image stays constant.
TEST(ZImageResize, ConstantImagesStayConstant) {
    for (int type : {ZImage::Gray, ZImage::RGB, ZImage::RGBA}) {
        const int components = ZImage::ComponentsOfType(type);
        for (int bits : {8, 16, 32}) {
            auto value = [bits](int c) {
                return bits == 8    ? 40.0 + 50 * c
                       : bits == 16 ? 1000.0 + 9000 * c
                                    : 0.125 + 0.25 * c;
            };
            ZImage source(13, 9, type, bits);
            for (int y = 0; y < 9; ++y)
                for (int i = 0; i < 13 * components; ++i) {
                    const double v = value(i % components);
                    if (bits == 8)
                        row<std::uint8_t>(source, y)[i] = static_cast<std::uint8_t>(v);
                    else if (bits == 16)
                        row<std::uint16_t>(source, y)[i] = static_cast<std::uint16_t>(v);
                    else
                        row<float>(source, y)[i] = static_cast<float>(v);
                }
            for (const auto& [w, h] :
                 {std::pair{7, 5}, std::pair{3, 11}, std::pair{20, 20}, std::pair{1, 1}})
                for (int mode : {0, ZImage::Bilinear, ZImage::Supersample}) {
                    ZImage target;
                    source.ResizeTo(target, w, h, mode);
                    for (int y = 0; y < h; ++y)
                        for (int i = 0; i < w * components; ++i)
                            ASSERT_NEAR(at(target, y, i), value(i % components), 1e-6)
                                << type << "/" << bits << " to " << w << "x" << h << " mode "
                                << mode;
                }
        }
    }
}

TEST(ZImageResize, SupersamplingConservesTheMean) {
    std::mt19937 random(5);
    std::uniform_real_distribution<float> value(0.0f, 1.0f);
    ZImage source(60, 45, ZImage::RGBA, 32);
    double sourceSum[4] = {};
    for (int y = 0; y < 45; ++y)
        for (int i = 0; i < 60 * 4; ++i)
            sourceSum[i % 4] += (row<float>(source, y)[i] = value(random));

    struct Size {
        int w, h;
    };
    for (const Size s : {Size{20, 15}, Size{24, 18}, Size{12, 9}, Size{15, 5}}) {
        ZImage target;
        source.ResizeTo(target, s.w, s.h); // shrinking picks supersampling
        double targetSum[4] = {};
        for (int y = 0; y < s.h; ++y)
            for (int i = 0; i < s.w * 4; ++i)
                targetSum[i % 4] += row<float>(target, y)[i];
        for (int c = 0; c < 4; ++c)
            EXPECT_NEAR(targetSum[c] / (s.w * s.h), sourceSum[c] / (60 * 45), 1e-5)
                << s.w << "x" << s.h << " channel " << c;
    }

    // A 2 x 2 block average is exact.
    ZImage bytes(4, 2, ZImage::Gray, 8);
    const std::uint8_t pixels[2][4] = {{10, 20, 100, 101}, {30, 40, 102, 103}};
    for (int y = 0; y < 2; ++y)
        std::memcpy(bytes.PixelAt(0, y), pixels[y], 4);
    ZImage half;
    bytes.ResizeTo(half, 2, 1, ZImage::Supersample);
    EXPECT_EQ(*half.PixelAt(0, 0), 25);
    EXPECT_EQ(*half.PixelAt(1, 0), 102) << "101.5 rounds to the even neighbour";
}

TEST(ZImageResize, BilinearReproducesALinearRamp) {
    ZImage source(10, 6, ZImage::Gray, 32);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 10; ++x)
            row<float>(source, y)[x] = 0.05f * x + 0.1f * y;
    ZImage target;
    source.ResizeTo(target, 25, 15); // enlarging picks bilinear
    const double fx = 25.0 / 10.0, fy = 15.0 / 6.0;
    int checked = 0;
    for (int y = 0; y < 15; ++y) {
        for (int x = 0; x < 25; ++x) {
            const double sx = (x + 0.5) / fx - 0.5, sy = (y + 0.5) / fy - 0.5;
            if (sx < 0 || sy < 0 || sx > 9 || sy > 5)
                continue; // outside the source centres the edge repeats
            EXPECT_NEAR(row<float>(target, y)[x], 0.05 * sx + 0.1 * sy, 1e-6) << x << "," << y;
            ++checked;
        }
    }
    EXPECT_GT(checked, 200);
}

TEST(ZImageResize, ExplicitFactorAndShiftMoveTheSamplingGrid) {
    ZImage source(8, 1, ZImage::Gray, 32);
    for (int x = 0; x < 8; ++x)
        row<float>(source, 0)[x] = static_cast<float>(x);
    ZImage target;
    // Factor 1 with a shift of 2 pixels samples the source two pixels on.
    source.ResizeTo(target, 4, 1, ZImage::Bilinear, 1.0, 1.0, 2.0, 0.0);
    for (int x = 0; x < 4; ++x)
        EXPECT_FLOAT_EQ(row<float>(target, 0)[x], static_cast<float>(x + 2));
}

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
