// Pictures written by ZImage::Save and read back by ZImage::Load keep their
// size, component count, depth and values, within what each codec loses.
#include "IflTestSupport.h"

#include <OpenImageIO/imageio.h>

#include <regex>

using namespace ifltest;

namespace {

struct RoundTrip {
    const char* name;
    const char* format;
    const char* suffix;
    int type;
    int bits;
    double tolerance; // absolute in the depth's unit, or relative for HDR
    bool relative;
};

void PrintTo(const RoundTrip& r, std::ostream* os) {
    *os << r.name;
}

// The file's bytes with every date and time the writer stamped (TIFF's
// DateTime is the moment of the save) made the same, so that two saves a
// second apart compare equal.
std::string withoutClock(const QString& path) {
    const std::vector<std::uint8_t> bytes = readBytes(path.toStdString());
    static const std::regex stamp(R"(\d{4}:\d\d:\d\d \d\d:\d\d:\d\d)");
    return std::regex_replace(std::string(bytes.begin(), bytes.end()), stamp, "clock");
}

class RoundTripTest : public ::testing::TestWithParam<RoundTrip> {
protected:
    QTemporaryDir folder;
};

TEST_P(RoundTripTest, KeepsLayoutAndValues) {
    const RoundTrip& r = GetParam();
    const ZImage original = makePicture(37, 23, r.type, r.bits);
    ZImage written;
    written.CopyFrom(original);
    const QString path = folder.filePath(QStringLiteral("picture.") + QLatin1String(r.suffix));
    written.Save(path, QLatin1String(r.format), -1, QString());

    ZImage loaded;
    loaded.Load(path);
    ASSERT_EQ(loaded.Width(), 37);
    ASSERT_EQ(loaded.Height(), 23);
    ASSERT_EQ(loaded.BitmapType(), r.type);
    ASSERT_EQ(loaded.BitsPerComponent(), r.bits);
    EXPECT_LE(maxDifference(original, loaded, r.relative), r.tolerance);
    // No temporary file stays beside the picture.
    EXPECT_EQ(entries(folder.path()), QStringList{QFileInfo(path).fileName()});

    // Encoded while it is made, in uneven steps (one repeated, one past the
    // end), the picture is the same file; a save never finished leaves none.
    const QString byRows = folder.filePath(QStringLiteral("rows.") + QLatin1String(r.suffix));
    {
        ZImageRowSave abandoned(written, byRows, QLatin1String(r.format), -1, QString());
        abandoned.rowsReady(5);
    }
    EXPECT_FALSE(QFileInfo::exists(byRows));
    ZImageRowSave save(written, byRows, QLatin1String(r.format), -1, QString());
    for (const int rows : {1, 8, 8, 20, 99})
        save.rowsReady(rows);
    save.finish();
    EXPECT_EQ(withoutClock(path), withoutClock(byRows));
}

INSTANTIATE_TEST_SUITE_P(
    Formats, RoundTripTest,
    ::testing::Values(RoundTrip{"jpeg_rgb8", "jpeg", "jpg", ZImage::RGB, 8, 10, false},
                      RoundTrip{"jpeg_grey8", "JPG", "jpg", ZImage::Gray, 8, 4, false},
                      RoundTrip{"png_rgb8", "png", "png", ZImage::RGB, 8, 0, false},
                      RoundTrip{"png_rgba8", "png", "png", ZImage::RGBA, 8, 0, false},
                      RoundTrip{"png_grey16", "png", "png", ZImage::Gray, 16, 0, false},
                      RoundTrip{"png_rgba16", "PNG", "png", ZImage::RGBA, 16, 0, false},
                      RoundTrip{"tiff_rgb8", "tif", "tif", ZImage::RGB, 8, 0, false},
                      RoundTrip{"tiff_rgb16", "tiff", "tiff", ZImage::RGB, 16, 0, false},
                      RoundTrip{"tiff_rgba16", "Tif", "tiff", ZImage::RGBA, 16, 0, false},
                      RoundTrip{"tiff_grey_float", "tiff", "tiff", ZImage::Gray, 32, 0, false},
                      RoundTrip{"tiff_rgba_float", "tiff", "tiff", ZImage::RGBA, 32, 0, false},
                      RoundTrip{"exr_rgb_float", "exr", "exr", ZImage::RGB, 32, 0, false},
                      RoundTrip{"exr_rgba_float", "EXR", "exr", ZImage::RGBA, 32, 1e-6, false},
                      RoundTrip{"exr_grey_float", "exr", "exr", ZImage::Gray, 32, 0, false},
                      // RGBE keeps 8 bits of mantissa under a shared exponent.
                      RoundTrip{"hdr_rgb_float", "HDR", "hdr", ZImage::RGB, 32, 1.0 / 128, true},
                      RoundTrip{"webp_rgb8", "webp", "webp", ZImage::RGB, 8, 12, false},
                      RoundTrip{"bmp_rgb8", "bmp", "bmp", ZImage::RGB, 8, 0, false},
                      RoundTrip{"tga_rgba8", "tga", "tga", ZImage::RGBA, 8, 0, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RoundTrip, TransparentPixelsKeepTheirColour) {
    // Premultiplying on the way in or out would turn these pixels black.
    QTemporaryDir folder;
    ZImage image(4, 1, ZImage::RGBA, 8);
    for (int x = 0; x < 4; ++x) {
        setComponent(image, x, 0, 0, 200);
        setComponent(image, x, 0, 1, 100);
        setComponent(image, x, 0, 2, 50);
        setComponent(image, x, 0, 3, x * 40);
    }
    for (const char* format : {"png", "tiff"}) {
        const QString path = folder.filePath(QStringLiteral("alpha.") + QLatin1String(format));
        image.Save(path, QLatin1String(format), -1, QString());
        ZImage loaded;
        loaded.Load(path);
        EXPECT_EQ(maxDifference(image, loaded), 0) << format;
    }
}

TEST(RoundTrip, GreyWithAlphaBecomesRgba) {
    QTemporaryDir folder;
    const std::string path = folder.filePath(QStringLiteral("ga.png")).toStdString();
    const std::uint8_t pixels[] = {10, 255, 90, 128, 250, 0};
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out);
    OIIO::ImageSpec spec(3, 1, 2, OIIO::TypeDesc::UINT8);
    spec.alpha_channel = 1;
    spec.attribute("oiio:UnassociatedAlpha", 1);
    ASSERT_TRUE(out->open(path, spec));
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::UINT8, pixels));
    ASSERT_TRUE(out->close());

    ZImage loaded;
    loaded.Load(QString::fromStdString(path));
    ASSERT_EQ(loaded.BitmapType(), ZImage::RGBA);
    for (int x = 0; x < 3; ++x) {
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(component(loaded, x, 0, c), pixels[2 * x]) << x << "," << c;
        EXPECT_EQ(component(loaded, x, 0, 3), pixels[2 * x + 1]) << x;
    }
}

TEST(RoundTrip, AlphaIsDroppedWithANoteWhereTheFormatHasNone) {
    QTemporaryDir folder;
    struct Case {
        const char* format;
        int bits;
    };
    for (const Case c : {Case{"jpeg", 8}, Case{"hdri", 32}}) {
        ZImage image = makePicture(8, 8, ZImage::RGBA, c.bits);
        const QString path = folder.filePath(QStringLiteral("noalpha.") + QLatin1String(c.format));
        QStringList notes;
        image.Save(path, QLatin1String(c.format), -1, QString(), &notes);
        ASSERT_EQ(notes.size(), 1) << c.format;
        EXPECT_TRUE(notes[0].contains(QLatin1String("alpha"))) << notes[0].toStdString();
        ZImage loaded;
        loaded.Load(path);
        EXPECT_EQ(loaded.BitmapType(), ZImage::RGB) << c.format;
    }
}

TEST(RoundTrip, GreyIsSpreadOverRgbWhereTheFormatHasNoGrey) {
    QTemporaryDir folder;
    ZImage image = makePicture(8, 4, ZImage::Gray, 32);
    const QString path = folder.filePath(QStringLiteral("grey.hdr"));
    image.Save(path, QStringLiteral("hdr"), -1, QString());
    ZImage loaded;
    loaded.Load(path);
    ASSERT_EQ(loaded.BitmapType(), ZImage::RGB);
    for (int x = 0; x < 8; ++x)
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(component(loaded, x, 2, c), component(image, x, 2, 0),
                        component(image, x, 2, 0) / 128);
}

TEST(FormatNames, SuffixesAndCaseNameTheSameFormat) {
    QTemporaryDir folder;
    const ZImage image = makePicture(8, 8, ZImage::RGB, 32);
    struct Case {
        const char* name;
        const char* codec;
    };
    int n = 0;
    for (const Case c :
         {Case{"JPG", "jpeg"}, Case{"jpeg", "jpeg"}, Case{"Tif", "tiff"}, Case{"TIFF", "tiff"},
          Case{"HDR", "hdr"}, Case{"hdri", "hdr"}, Case{"Exr", "openexr"}}) {
        ZImage copy;
        copy.CopyFrom(image);
        if (std::string(c.codec) == "jpeg") image.CopyTo(copy, ZImage::RGB, 8);
        // The file name says nothing: the format comes from the name alone.
        const QString path = folder.filePath(QStringLiteral("file%1.bin").arg(n++));
        copy.Save(path, QLatin1String(c.name), -1, QString());
        auto in = OIIO::ImageInput::open(path.toStdString());
        ASSERT_TRUE(in) << c.name;
        EXPECT_STREQ(in->format_name(), c.codec) << c.name;
    }
}

// What the encoder recorded, read back by the decoder.
std::string compressionOf(const QString& path) {
    auto in = OIIO::ImageInput::open(path.toStdString());
    return in ? std::string(in->spec().get_string_attribute("compression")) : "unreadable";
}

TEST(QualityRule, SetsTheCompressionOfTiffAndExr) {
    QTemporaryDir folder;
    struct Case {
        const char* format;
        int bits;
        int quality;
        const char* compression;
    };
    int n = 0;
    for (const Case c :
         {Case{"tiff", 16, 1, "none"}, Case{"tiff", 16, 2, "lzw"}, Case{"tiff", 16, 3, "zip"},
          Case{"tiff", 16, -1, "lzw"}, Case{"exr", 32, 1, "none"}, Case{"exr", 32, 2, "rle"},
          Case{"exr", 32, 3, "zips"}, Case{"exr", 32, 4, "zip"}, Case{"exr", 32, 5, "piz"},
          Case{"exr", 32, 6, "pxr24"}, Case{"exr", 32, 8, "b44a"}, Case{"exr", 32, 99, "piz"}}) {
        ZImage image = makePicture(16, 16, ZImage::RGB, c.bits);
        const QString path = folder.filePath(QStringLiteral("q%1.%2").arg(n++).arg(c.format));
        image.Save(path, QLatin1String(c.format), c.quality, QString());
        EXPECT_EQ(compressionOf(path), c.compression) << c.format << " quality " << c.quality;
    }
}

TEST(QualityRule, JpegQualityAndPngLevelChangeTheFileSize) {
    QTemporaryDir folder;
    ZImage image = makePicture(64, 64, ZImage::RGB, 8);
    for (int y = 0; y < 64; ++y) // texture that compresses differently at each setting
        for (int x = 0; x < 64; ++x)
            setComponent(image, x, y, 1, (x * 37 + y * 91) % 251);
    const auto sizeAt = [&](const char* format, int quality) {
        const QString path = folder.filePath(QStringLiteral("s%1.%2").arg(quality).arg(format));
        image.Save(path, QLatin1String(format), quality, QString());
        return QFileInfo(path).size();
    };
    EXPECT_LT(sizeAt("jpeg", 0), sizeAt("jpeg", 12));
    EXPECT_GT(sizeAt("png", 0), sizeAt("png", 9));
}

TEST(IflFormats, WritesOnlyDepthsAndLayoutsTheFormatHolds) {
    std::int32_t index = 0;
    EXPECT_EQ(iflGetFormatIndexByName("JPG", &index), IFL_OK);
    EXPECT_EQ(index, IFL_FORMAT_JPEG);
    EXPECT_EQ(iflGetFormatIndexByName("gif", &index), IFL_ERROR_BAD_FORMAT_INDEX);
    EXPECT_EQ(index, IFL_FORMAT_UNKNOWN);

    EXPECT_TRUE(iflFormatWrites(IFL_FORMAT_JPEG, 8, 3));
    EXPECT_FALSE(iflFormatWrites(IFL_FORMAT_JPEG, 16, 3));
    EXPECT_FALSE(iflFormatWrites(IFL_FORMAT_JPEG, 8, 4));
    EXPECT_TRUE(iflFormatWrites(IFL_FORMAT_PNG, 16, 4));
    EXPECT_FALSE(iflFormatWrites(IFL_FORMAT_PNG, 32, 3));
    EXPECT_TRUE(iflFormatWrites(IFL_FORMAT_TIFF, 32, 1));
    EXPECT_FALSE(iflFormatWrites(IFL_FORMAT_EXR, 16, 3));
    EXPECT_FALSE(iflFormatWrites(IFL_FORMAT_HDRI, 32, 4));
    EXPECT_FALSE(iflFormatWrites(IFL_FORMAT_UNKNOWN, 8, 3));
}

TEST(IflFormats, ADepthTheFormatCannotHoldIsABadBitmapAndWritesNothing) {
    QTemporaryDir folder;
    ZImage image = makePicture(8, 8, ZImage::RGB, 32);
    const QString path = folder.filePath(QStringLiteral("float.png"));
    try {
        image.Save(path, QStringLiteral("png"), -1, QString());
        FAIL() << "a float picture was written as PNG";
    } catch (const ZException& e) {
        EXPECT_EQ(QString::fromStdString(e.what()),
                  QStringLiteral("Error IFL : \"IFL_ERROR_BAD_BITMAP\"\nFile : \"%1\"\nReason : "
                                 "png files do not hold 32-bit components")
                      .arg(path));
    }
    EXPECT_TRUE(entries(folder.path()).isEmpty());
}

TEST(IflLoad, HeaderOnlyGivesTheLayoutWithoutPixels) {
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    params.flags |= IFL_LOAD_HEADER_ONLY;
    IflBitmap* raw = nullptr;
    IflFileInformation info;
    ASSERT_EQ(iflLoadBitmap(dataFile("metadata/tiff8_rgba_icc.tiff").c_str(), &raw, params, &info),
              IFL_OK);
    const IflBitmapPtr bitmap(raw);
    EXPECT_EQ(bitmap->data, nullptr);
    EXPECT_EQ(bitmap->type, ZImage::RGBA);
    EXPECT_EQ(bitmap->bitsPerComponent, 8);
    EXPECT_EQ(bitmap->bytesPerLine % 4, 0);
    EXPECT_EQ(info.formatName, "tiff");
    EXPECT_EQ(info.formatIndex, IFL_FORMAT_TIFF);
    EXPECT_EQ(info.width, bitmap->width);
    EXPECT_EQ(info.channels, 4);
}

} // namespace

namespace {

// A source written directly with OpenImageIO, in a storage form IFL's own
// saves do not choose by themselves.
struct StorageCase {
    const char* name;
    const char* file;
    OIIO::TypeDesc type;
    int channels;
    bool associated;  // alpha stored associated
    float resolution; // dots per inch written in the file, 0 for none
};

void PrintTo(const StorageCase& c, std::ostream* os) {
    *os << c.name;
}

class StorageTest : public ::testing::TestWithParam<StorageCase> {};

// The stored values as floats, exactly as in the file (no alpha conversion).
std::vector<float> storedValues(const std::string& path, OIIO::ImageSpec* spec = nullptr) {
    auto in = OIIO::ImageInput::open(path);
    if (!in) return {};
    if (spec) *spec = in->spec();
    std::vector<float> values(std::size_t(in->spec().image_pixels()) * in->spec().nchannels);
    in->read_image(0, 0, 0, in->spec().nchannels, OIIO::TypeDesc::FLOAT, values.data());
    return values;
}

TEST_P(StorageTest, TheOutputKeepsTheSourcesForm) {
    const StorageCase& c = GetParam();
    QTemporaryDir folder;
    const std::string source = folder.filePath(QLatin1String(c.file)).toStdString();
    {
        OIIO::ImageSpec spec(16, 8, c.channels, c.type);
        if (c.channels == 4) {
            spec.alpha_channel = 3;
            spec.attribute("oiio:UnassociatedAlpha", c.associated ? 0 : 1);
        }
        if (c.resolution > 0) {
            spec.attribute("XResolution", c.resolution);
            spec.attribute("YResolution", c.resolution);
            spec.attribute("ResolutionUnit", "in");
        }
        std::vector<float> pixels(16 * 8 * c.channels);
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            const float alpha = 0.2f + 0.6f * float((i / c.channels) % 16) / 15.0f;
            const float colour = 0.1f + 0.8f * float(i % 7) / 6.0f;
            // Associated colour never exceeds its alpha.
            pixels[i] = c.channels == 4 && i % 4 == 3 ? alpha
                        : c.associated                ? colour * alpha
                                                      : colour;
        }
        auto out = OIIO::ImageOutput::create(source);
        ASSERT_TRUE(out && out->open(source, spec));
        ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()));
        ASSERT_TRUE(out->close());
    }
    const std::vector<std::uint8_t> sourceBytes = readBytes(source);

    // What the plug-in does at strength 0: load, save with the source named.
    ZImage image;
    image.Load(QString::fromStdString(source));
    const QString output =
        folder.filePath(QStringLiteral("out.") + QFileInfo(QLatin1String(c.file)).suffix());
    image.Save(output, QFileInfo(QLatin1String(c.file)).suffix(), -1,
               QString::fromStdString(source));

    OIIO::ImageSpec in, out;
    const std::vector<float> before = storedValues(source, &in);
    const std::vector<float> after = storedValues(output.toStdString(), &out);
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i)
        ASSERT_NEAR(after[i], before[i], 1e-6) << c.name << " value " << i;
    EXPECT_EQ(out.format, in.format) << c.name;
    EXPECT_EQ(out.get_int_attribute("oiio:UnassociatedAlpha", 0),
              in.get_int_attribute("oiio:UnassociatedAlpha", 0))
        << c.name;
    EXPECT_EQ(out.get_float_attribute("XResolution", 0), c.resolution) << c.name;
    EXPECT_EQ(readBytes(source), sourceBytes);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, StorageTest,
    ::testing::Values(
        StorageCase{"tiff_associated_8", "assoc.tif", OIIO::TypeDesc::UINT8, 4, true, 0},
        StorageCase{"tiff_associated_16", "assoc16.tif", OIIO::TypeDesc::UINT16, 4, true, 0},
        StorageCase{"tiff_unassociated_8", "unassoc.tif", OIIO::TypeDesc::UINT8, 4, false, 0},
        StorageCase{"exr_half_rgba", "half.exr", OIIO::TypeDesc::HALF, 4, true, 0},
        StorageCase{"exr_half_rgb", "half3.exr", OIIO::TypeDesc::HALF, 3, false, 0},
        StorageCase{"tiff_300_dpi", "dpi.tif", OIIO::TypeDesc::UINT16, 3, false, 300}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
