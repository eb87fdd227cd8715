// Metadata blocks that must travel as the source holds them: the Photoshop
// resource block of a JPEG (with the IPTC inside it), and a maker note that
// a reader must find as the camera wrote it.
#include "IflTestSupport.h"

using namespace ifltest;

namespace {

struct BlockCase {
    const char* format;
    bool blockKept; // the resources other than IPTC reach the output
    bool iptcKept;
};

TEST(PhotoshopBlock, TravelsAsTheSourceHoldsItOrIsNamed) {
    QTemporaryDir folder;
    const std::string source = folder.filePath(QStringLiteral("ps.jpg")).toStdString();
    const std::vector<std::uint8_t> payload = jpegWithPhotoshopBlock(source);
    const std::vector<std::uint8_t> sourceBytes = readBytes(source);
    const Metadata sourceMetadata = readMetadata(source);
    ASSERT_EQ(sourceMetadata.iptc.size(), 2u);
    const std::vector<std::uint8_t> resources(payload.begin() + 14, payload.end());

    const BlockCase cases[] = {{"jpeg", true, true},   {"tiff", true, true}, {"png", false, true},
                               {"webp", false, false}, {"exr", false, true}, {"hdri", false, false},
                               {"bmp", false, false},  {"tga", false, false}};
    for (const BlockCase& c : cases) {
        SCOPED_TRACE(c.format);
        ZImage image =
            makePicture(8, 8, ZImage::RGB,
                        std::string(c.format) == "exr" || std::string(c.format) == "hdri" ? 32 : 8);
        const QString path = folder.filePath(QStringLiteral("out.") + QLatin1String(c.format));
        QStringList notes;
        image.Save(path, QLatin1String(c.format), -1, QString::fromStdString(source), &notes);
        const std::string joined = notes.join(QLatin1Char('\n')).toStdString();
        EXPECT_EQ(joined.find("Photoshop resource block") == std::string::npos, c.blockKept)
            << joined;
        EXPECT_EQ(joined.find("no IPTC") == std::string::npos, c.iptcKept) << joined;
        if (std::string(c.format) == "jpeg") {
            const auto segments = jpegSegments(readBytes(path.toStdString()), 0xED);
            ASSERT_EQ(segments.size(), 1u);
            EXPECT_EQ(segments[0], payload);
        }
        if (std::string(c.format) == "tiff") {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
            auto out = Exiv2::ImageFactory::open(path.toStdString());
#pragma GCC diagnostic pop
            out->readMetadata();
            const auto tag = out->exifData().findKey(Exiv2::ExifKey("Exif.Image.ImageResources"));
            ASSERT_NE(tag, out->exifData().end());
            std::vector<std::uint8_t> held(static_cast<std::size_t>(tag->size()));
            tag->copy(held.data(), Exiv2::invalidByteOrder);
            EXPECT_EQ(held, resources);
        }
        if (c.iptcKept && std::string(c.format) != "exr") {
            EXPECT_EQ(readMetadata(path.toStdString()).iptc, sourceMetadata.iptc);
        }
    }
    EXPECT_EQ(readBytes(source), sourceBytes);
}

std::vector<std::string> exiv2Messages;

std::vector<std::uint8_t> makerNoteOf(const std::string& path) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    auto image = Exiv2::ImageFactory::open(path);
#pragma GCC diagnostic pop
    image->readMetadata();
    const auto note = image->exifData().findKey(Exiv2::ExifKey("Exif.Photo.MakerNote"));
    if (note == image->exifData().end()) return {};
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(note->size()));
    note->copy(bytes.data(), Exiv2::invalidByteOrder);
    return bytes;
}

TEST(MakerNote, ComesBackAsTheCameraWroteItAndReadsWithoutAWarning) {
    QTemporaryDir folder;
    const std::string source = dataFile("metadata/rich_all_metadata.jpg");
    const std::vector<std::uint8_t> note = makerNoteOf(source);
    ASSERT_GT(note.size(), 100u);
    for (const char* format : {"jpeg", "tiff", "png", "webp"}) {
        SCOPED_TRACE(format);
        const QString path = folder.filePath(QStringLiteral("out.") + QLatin1String(format));
        makePicture(8, 8, ZImage::RGB, 8)
            .Save(path, QLatin1String(format), -1, QString::fromStdString(source));
        // Exiv2's messages while the output is read, IFL's handler aside.
        const Exiv2::LogMsg::Handler previous = Exiv2::LogMsg::handler();
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::warn);
        Exiv2::LogMsg::setHandler([](int, const char* text) { exiv2Messages.emplace_back(text); });
        exiv2Messages.clear();
        EXPECT_EQ(makerNoteOf(path.toStdString()), note);
        const Metadata out = readMetadata(path.toStdString());
        Exiv2::LogMsg::setHandler(previous);
        EXPECT_TRUE(hasKeyWith(out.exif, "Exif.Nikon3.")); // and its entries decode
        EXPECT_TRUE(exiv2Messages.empty()) << exiv2Messages.front();
    }
}

} // namespace
