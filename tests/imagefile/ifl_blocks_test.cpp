// Metadata blocks that must travel as the source holds them: the Photoshop
// resource block of a JPEG (with the IPTC inside it), and a maker note that
// a reader must find as the camera wrote it.
#include "IflTestSupport.h"

using namespace ifltest;

namespace {

// The bytes of an EXIF tag of a file, empty when it has none.
std::vector<std::uint8_t> tagBytes(const std::string& path, const char* key) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    auto image = Exiv2::ImageFactory::open(path);
#pragma GCC diagnostic pop
    image->readMetadata();
    const auto tag = image->exifData().findKey(Exiv2::ExifKey(key));
    if (tag == image->exifData().end()) return {};
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(tag->size()));
    tag->copy(bytes.data(), Exiv2::invalidByteOrder);
    return bytes;
}

// The IPTC inside the block is compared over every format by ifl_tags_test;
// here, the block's other resources.
TEST(PhotoshopBlock, TravelsAsTheSourceHoldsItOrIsNamed) {
    QTemporaryDir folder;
    const std::string source = folder.filePath(QStringLiteral("ps.jpg")).toStdString();
    const std::vector<std::uint8_t> payload = jpegWithPhotoshopBlock(source);
    const std::vector<std::uint8_t> sourceBytes = readBytes(source);
    // The format, and whether it keeps the block (else a warning names it).
    const std::pair<const char*, bool> cases[] = {{"jpeg", true},  {"tiff", true}, {"png", false},
                                                  {"webp", false}, {"exr", false}, {"hdri", false},
                                                  {"bmp", false},  {"tga", false}};
    for (const auto& [format, kept] : cases) {
        SCOPED_TRACE(format);
        const bool floats = std::string(format) == "exr" || std::string(format) == "hdri";
        ZImage image = makePicture(8, 8, ZImage::RGB, floats ? 32 : 8);
        const QString path = folder.filePath(QStringLiteral("out.") + QLatin1String(format));
        QStringList notes;
        image.Save(path, QLatin1String(format), -1, QString::fromStdString(source), &notes);
        const std::string joined = notes.join(QLatin1Char('\n')).toStdString();
        EXPECT_EQ(joined.find("Photoshop resource block") == std::string::npos, kept) << joined;
        if (std::string(format) == "jpeg") {
            EXPECT_EQ(jpegSegments(readBytes(path.toStdString()), 0xED),
                      std::vector<std::vector<std::uint8_t>>{payload});
        } else if (std::string(format) == "tiff") {
            EXPECT_EQ(tagBytes(path.toStdString(), "Exif.Image.ImageResources"),
                      std::vector<std::uint8_t>(payload.begin() + 14, payload.end()));
        }
    }
    EXPECT_EQ(readBytes(source), sourceBytes);
}

std::vector<std::string> exiv2Messages;

TEST(MakerNote, ComesBackAsTheCameraWroteItAndReadsWithoutAWarning) {
    QTemporaryDir folder;
    const std::string source = dataFile("metadata/rich_all_metadata.jpg");
    const std::vector<std::uint8_t> note = tagBytes(source, "Exif.Photo.MakerNote");
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
        EXPECT_EQ(tagBytes(path.toStdString(), "Exif.Photo.MakerNote"), note);
        const Metadata out = readMetadata(path.toStdString());
        Exiv2::LogMsg::setHandler(previous);
        EXPECT_TRUE(hasKeyWith(out.exif, "Exif.Nikon3.")); // and its entries decode
        EXPECT_TRUE(exiv2Messages.empty()) << exiv2Messages.front();
    }
}

} // namespace
