// Metadata by kind: a source without it gives a file without it, each kind
// travels alone, broken metadata costs only itself, and an XMP packet goes as
// the source's bytes. ifl_tags_test compares every tag over every format.
#include "IflTestSupport.h"

using namespace ifltest;

namespace {

TEST(MetadataCarried, NoSourceOrABareSourceGivesNoMetadata) {
    QTemporaryDir folder;
    const QString bare = folder.filePath(QStringLiteral("bare.png"));
    makePicture(8, 8, ZImage::RGB, 8).Save(bare, QStringLiteral("png"), -1, QString());
    for (const QString& source : {QString(), bare}) {
        for (const char* format : {"jpeg", "png", "tiff"}) {
            ZImage image = makePicture(8, 8, ZImage::RGB, 8);
            const QString path = folder.filePath(QStringLiteral("none.") + QLatin1String(format));
            image.Save(path, QLatin1String(format), -1, source);
            const Metadata out = readMetadata(path.toStdString());
            EXPECT_TRUE(out.icc.empty()) << format;
            EXPECT_TRUE(out.iptc.empty()) << format;
            EXPECT_TRUE(out.xmp.empty()) << format;
            // A TIFF's own directory shows as layout tags, and the encoder
            // stamps the time the file was made; nothing else may be there.
            for (const auto& [key, value] : out.exif)
                EXPECT_TRUE(describesLayout(key) || key == "Exif.Image.Orientation" ||
                            key == "Exif.Image.DateTime")
                    << format << ": " << key << " = " << value;
        }
    }
}

// A JPEG with exactly the given kinds, made from a bare one.
std::string makeSource(const QTemporaryDir& folder, const char* name, bool exif, bool iptc) {
    const QString path = folder.filePath(QLatin1String(name));
    makePicture(8, 8, ZImage::RGB, 8).Save(path, QStringLiteral("jpeg"), -1, QString());
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path.toStdString());
    image->readMetadata();
    if (exif) image->exifData()["Exif.Image.Artist"] = "Only EXIF";
    if (iptc) image->iptcData()["Iptc.Application2.Headline"] = "Only IPTC";
    image->writeMetadata();
#pragma GCC diagnostic pop
    return path.toStdString();
}

TEST(MetadataCarried, EachKindTravelsAlone) {
    QTemporaryDir folder;
    const std::string exifOnly = makeSource(folder, "exif.jpg", true, false);
    const std::string iptcOnly = makeSource(folder, "iptc.jpg", false, true);

    ZImage a = makePicture(8, 8, ZImage::RGB, 8);
    const QString outA = folder.filePath(QStringLiteral("a.jpg"));
    a.Save(outA, QStringLiteral("jpeg"), -1, QString::fromStdString(exifOnly));
    const Metadata ma = readMetadata(outA.toStdString());
    EXPECT_EQ(ma.exif.at("Exif.Image.Artist"), "Only EXIF");
    EXPECT_TRUE(ma.iptc.empty());
    EXPECT_FALSE(iflBitmapHasIPTC(a.Bitmap()));

    ZImage b = makePicture(8, 8, ZImage::RGB, 8);
    const QString outB = folder.filePath(QStringLiteral("b.jpg"));
    b.Save(outB, QStringLiteral("jpeg"), -1, QString::fromStdString(iptcOnly));
    const Metadata mb = readMetadata(outB.toStdString());
    EXPECT_FALSE(mb.exif.count("Exif.Image.Artist"));
    ASSERT_EQ(mb.iptc.count("Iptc.Application2.Headline"), 1u);
    EXPECT_EQ(mb.iptc.find("Iptc.Application2.Headline")->second, "Only IPTC");
    EXPECT_FALSE(iflBitmapHasEXIF(b.Bitmap()));
}

TEST(MetadataCarried, TheSavedImageKeepsWhatItWasGiven) {
    // The image now holds the source's metadata, so a second save without a
    // source writes it too; but without the profile, whose flag belongs to
    // the save that carried it over.
    QTemporaryDir folder;
    const std::string sourcePath = dataFile("metadata/exif_iptc_xmp_icc.jpg");
    ZImage image = makePicture(8, 8, ZImage::RGB, 8);
    image.Save(folder.filePath(QStringLiteral("1.jpg")), QStringLiteral("jpeg"), -1,
               QString::fromStdString(sourcePath));
    EXPECT_TRUE(iflBitmapHasICCProfile(image.Bitmap()));
    const QString second = folder.filePath(QStringLiteral("2.jpg"));
    image.Save(second, QStringLiteral("jpeg"), -1, QString());
    const Metadata out = readMetadata(second.toStdString());
    EXPECT_TRUE(out.icc.empty());
    EXPECT_EQ(out.xmpValues, readMetadata(sourcePath).xmpValues);
    EXPECT_FALSE(out.iptc.empty());
}

TEST(BrokenMetadata, AnInvalidProfileIsDroppedAndTheRestKept) {
    // A source whose profile declares a length it does not have, beside a
    // valid EXIF block.
    QTemporaryDir folder;
    const QString sourcePath = folder.filePath(QStringLiteral("badicc.jpg"));
    makePicture(8, 8, ZImage::RGB, 8).Save(sourcePath, QStringLiteral("jpeg"), -1, QString());
    {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        Exiv2::Image::AutoPtr source = Exiv2::ImageFactory::open(sourcePath.toStdString());
        source->readMetadata();
        std::vector<Exiv2::byte> garbage(200, 0x5A);
        Exiv2::DataBuf profile(garbage.data(), static_cast<long>(garbage.size()));
        source->setIccProfile(profile, false);
        source->exifData()["Exif.Image.Artist"] = "Kept";
        source->writeMetadata();
#pragma GCC diagnostic pop
    }

    ZImage image = makePicture(8, 8, ZImage::RGB, 8);
    const QString path = folder.filePath(QStringLiteral("out.jpg"));
    QStringList notes;
    image.Save(path, QStringLiteral("jpeg"), -1, sourcePath, &notes);
    ASSERT_FALSE(notes.isEmpty());
    EXPECT_TRUE(notes.join(QLatin1Char('\n')).contains(QLatin1String("ICC profile")))
        << notes.join(QLatin1Char('\n')).toStdString();
    const Metadata out = readMetadata(path.toStdString());
    EXPECT_TRUE(out.icc.empty());
    EXPECT_EQ(out.exif.at("Exif.Image.Artist"), "Kept");
}

} // namespace

namespace {

// A JPEG made here whose XMP packet has a repeated property, which the XMP
// toolkit refuses to parse, as some camera software writes them.
std::string jpegWithBrokenXmp(const QTemporaryDir& folder, std::string& packet) {
    const QString path = folder.filePath(QStringLiteral("brokenxmp.jpg"));
    makePicture(8, 8, ZImage::RGB, 8).Save(path, QStringLiteral("jpeg"), -1, QString());
    packet = "<?xpacket begin=\"\xef\xbb\xbf\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>"
             "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
             "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description "
             "rdf:about=\"\" xmlns:xmp=\"http://ns.adobe.com/xap/1.0/\" xmp:Rating=\"3\" "
             "xmp:Rating=\"4\"/></rdf:RDF></x:xmpmeta><?xpacket end=\"w\"?>";
    const std::string name = "http://ns.adobe.com/xap/1.0/";
    std::vector<std::uint8_t> bytes = readBytes(path.toStdString());
    const std::size_t length = 2 + name.size() + 1 + packet.size();
    std::vector<std::uint8_t> segment{0xFF, 0xE1, std::uint8_t(length >> 8),
                                      std::uint8_t(length & 0xFF)};
    segment.insert(segment.end(), name.begin(), name.end());
    segment.push_back(0);
    segment.insert(segment.end(), packet.begin(), packet.end());
    bytes.insert(bytes.begin() + 2, segment.begin(), segment.end());
    writeBytes(path.toStdString(), bytes);
    return path.toStdString();
}

} // namespace

TEST(MetadataAsBytes, TheXmpPacketTravelsAsTheSourceHoldsIt) {
    QTemporaryDir folder;
    std::string broken;
    const std::string brokenSource = jpegWithBrokenXmp(folder, broken);
    const std::string goodSource = dataFile("metadata/exif_iptc_xmp_icc.jpg");
    const std::string good = readMetadata(goodSource).xmp;
    ASSERT_FALSE(good.empty());
    struct Case {
        const std::string& source;
        const std::string& packet;
        const char* format;
        bool parsable;
    };
    // A TIFF's packet is written from its parsed form, so only JPEG and PNG
    // carry an unparsable one; TiffDropsAnUnparsablePacketWithTheReason
    // covers the TIFF.
    const Case cases[] = {{brokenSource, broken, "jpeg", false},
                          {brokenSource, broken, "png", false},
                          {goodSource, good, "jpeg", true},
                          {goodSource, good, "png", true}};
    int n = 0;
    for (const Case& c : cases) {
        const std::vector<std::uint8_t> sourceBytes = readBytes(c.source);
        ZImage image = makePicture(8, 8, ZImage::RGB, 8);
        const QString path = folder.filePath(QStringLiteral("out%1.").arg(n++) + c.format);
        QStringList notes;
        image.Save(path, QLatin1String(c.format), -1, QString::fromStdString(c.source), &notes);
        const std::string joined = notes.join(QLatin1Char('\n')).toStdString();
        EXPECT_EQ(readMetadata(path.toStdString()).xmp, c.packet) << c.format << " " << c.parsable;
        if (c.parsable) {
            EXPECT_EQ(joined.find("XMP"), std::string::npos) << joined;
        } else {
            // Named once, with the toolkit's reason, and never as dropped.
            ASSERT_EQ(notes.size(), 1) << joined;
            EXPECT_NE(joined.find("could not be parsed (XMP Toolkit error"), std::string::npos)
                << joined;
            EXPECT_EQ(joined.find("dropped"), std::string::npos) << joined;
        }
        EXPECT_EQ(readBytes(c.source), sourceBytes);
    }
}

TEST(MetadataAsBytes, TiffDropsAnUnparsablePacketWithTheReason) {
    QTemporaryDir folder;
    std::string packet;
    const std::string source = jpegWithBrokenXmp(folder, packet);
    ZImage image = makePicture(8, 8, ZImage::RGB, 8);
    const QString path = folder.filePath(QStringLiteral("out.tif"));
    QStringList notes;
    image.Save(path, QStringLiteral("tiff"), -1, QString::fromStdString(source), &notes);
    const std::string joined = notes.join(QLatin1Char('\n')).toStdString();
    EXPECT_NE(joined.find("XMP could not be written and was dropped: the XMP toolkit cannot parse"),
              std::string::npos)
        << joined;
    EXPECT_TRUE(readMetadata(path.toStdString()).xmp.empty());
}
