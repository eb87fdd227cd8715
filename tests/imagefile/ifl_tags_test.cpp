// Every photograph of data/, every metadata sample and files made here for
// the Photoshop block and a TIFF's own IPTC, first saved into each output format with the
// photograph's metadata, then run through `skyrinse`: each tag, dataset and
// property of the source is in the output with its value, or named in a
// warning as something the format cannot hold; the sources stay as they were.
#include "IflTestSupport.h"
#include "imagefile/internal/IflMetadata.h"

#include <QProcess>

#include <cstdlib>
#include <sstream>

using namespace ifltest;

namespace {

// Tags, datasets and properties by key; repeated IPTC datasets get "#n".
using Tags = std::map<std::string, std::string>;

Tags tagsOf(const Exiv2::ExifData& exif, const Exiv2::IptcData& iptc, const std::string& xmp,
            const std::vector<std::uint8_t>& icc) {
    Tags tags;
    for (const Exiv2::Exifdatum& d : exif)
        tags[d.key()] = d.toString();
    std::map<std::string, int> seen;
    for (const Exiv2::Iptcdatum& d : iptc)
        tags[d.key() + "#" + std::to_string(seen[d.key()]++)] = d.toString();
    Exiv2::XmpData parsed;
    if (!xmp.empty() && Exiv2::XmpParser::decode(parsed, xmp) == 0)
        for (const Exiv2::Xmpdatum& d : parsed)
            tags[d.key()] = d.toString();
    if (!icc.empty()) tags["ICC"] = std::string(icc.begin(), icc.end());
    return tags;
}

// What Exiv2 reads from a file; for files it cannot read (EXR, Radiance),
// what IFL takes from the decoder's attributes.
Tags readTags(const std::string& path) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    try {
        Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path, false);
        image->readMetadata();
        std::vector<std::uint8_t> icc;
        if (image->iccProfileDefined())
            icc.assign(image->iccProfile()->pData_,
                       image->iccProfile()->pData_ + image->iccProfile()->size_);
        return tagsOf(image->exifData(), image->iptcData(), image->xmpPacket(), icc);
    } catch (const Exiv2::AnyError&) {
    }
#pragma GCC diagnostic pop
    IflLoadParams params;
    params.flags = IFL_LOAD_METADATA | IFL_LOAD_HEADER_ONLY;
    IflBitmap* loaded = nullptr;
    IflFileInformation info;
    EXPECT_EQ(iflLoadBitmap(path.c_str(), &loaded, params, &info), IFL_OK) << path;
    const IflBitmapPtr bitmap(loaded);
    const IflMetadata* m = ifl::metadataOf(bitmap.get());
    return m ? tagsOf(m->exif, m->iptc, m->xmp, m->icc) : Tags{};
}

// The same value, or the same numbers where a format keeps rationals as
// floats (EXR).
bool sameValue(const std::string& a, const std::string& b) {
    if (a == b) return true;
    std::istringstream x(a), y(b);
    std::string p, q;
    int n = 0;
    auto number = [](const std::string& t, double& v) {
        const auto slash = t.find('/');
        char* end = nullptr;
        v = std::strtod(t.c_str(), &end);
        if (slash != std::string::npos) v /= std::strtod(t.c_str() + slash + 1, nullptr);
        return end != t.c_str();
    };
    while (x >> p) {
        double u = 0, v = 0;
        if (!(y >> q) || !number(p, u) || !number(q, v) ||
            std::abs(u - v) > 1e-5 * std::max(1.0, std::abs(u)))
            return false;
        ++n;
    }
    return n > 0 && !(y >> q);
}

// Whether a warning names what the output lacks of key `key`: the key itself,
// its part of the EXIF block, or the whole block.
bool named(const std::string& key, const std::string& warnings) {
    const std::string bare = key.substr(0, key.find('#'));
    auto says = [&](const std::string& text) { return warnings.find(text) != std::string::npos; };
    if (says(bare)) return true;
    if (bare == "ICC") return says("no ICC profile;");
    if (bare.rfind("Iptc.", 0) == 0) return says("no IPTC;");
    if (bare.rfind("Xmp.", 0) == 0) return says("no XMP;");
    const std::string group = Exiv2::ExifKey(bare).groupName();
    if (Exiv2::ExifTags::isMakerGroup(group) || group == "MakerNote" ||
        bare == "Exif.Photo.MakerNote")
        return says("no EXIF maker note;") || says("no EXIF;");
    if (group == "Thumbnail") return says("no EXIF thumbnail") || says("no EXIF;");
    return says("no EXIF;");
}

// A TIFF whose IPTC sits in its own directory (tag 33723), as TIFF writers keep it.
void tiffWithIptc(const std::string& path) {
    makePicture(8, 8, ZImage::RGB, 8)
        .Save(QString::fromStdString(path), QStringLiteral("tiff"), -1, QString());
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path);
#pragma GCC diagnostic pop
    image->readMetadata();
    image->iptcData()["Iptc.Application2.Headline"] = "Haze in the valley";
    image->writeMetadata();
}

bool hasIptc(const Tags& tags) {
    const auto first = tags.lower_bound("Iptc.");
    return first != tags.end() && first->first.rfind("Iptc.", 0) == 0;
}

// Every tag of `from` is in `to` with its value, or named in `warnings`.
void expectCarried(const Tags& from, const Tags& to, const std::string& warnings,
                   const std::string& what) {
    for (const auto& [key, value] : from) {
        if (isPosition(key) || describesLayout(key) || key == "Exif.Image.DateTime") continue;
        // The IPTC of a TIFF's directory travels as the output's IPTC.
        if (key == "Exif.Image.IPTCNAA") {
            EXPECT_TRUE(hasIptc(to) || named("Iptc.", warnings)) << what << ": IPTC lost";
            continue;
        }
        const auto found = to.find(key);
        if (found == to.end())
            EXPECT_TRUE(named(key, warnings)) << what << ": " << key << " lost without a word";
        else
            EXPECT_TRUE(sameValue(value, found->second))
                << what << ": " << key << " changed: \"" << value << "\" -> \"" << found->second
                << "\"";
    }
}

struct OutputFormat {
    const char* name;
    int bits;
};
constexpr OutputFormat outputFormats[] = {{"jpeg", 8}, {"png", 8},  {"tiff", 16}, {"webp", 8},
                                          {"exr", 32}, {"hdr", 32}, {"bmp", 8},   {"tga", 8}};

TEST(TagsThroughSkyrinse, NothingIsLostThatTheFormatHolds) {
    QTemporaryDir folder;
    const QDir work(folder.path());
    std::vector<std::string> sources;
    for (const QString& dir :
         {QStringLiteral(SKYRINSE_PHOTO_DATA), QStringLiteral(SKYRINSE_TEST_DATA "/metadata")})
        for (const QString& name :
             QDir(dir).entryList({QStringLiteral("*.jpg"), QStringLiteral("*.tiff")}))
            // `make demo` leaves its result beside the photograph.
            if (!name.contains(QStringLiteral("_dehazed")))
                sources.push_back(QDir(dir).filePath(name).toStdString());
    sources.push_back(work.filePath(QStringLiteral("photoshop.jpg")).toStdString());
    jpegWithPhotoshopBlock(sources.back());
    sources.push_back(work.filePath(QStringLiteral("tiff_iptc.tif")).toStdString());
    tiffWithIptc(sources.back());
    ASSERT_GE(sources.size(), 8u);

    // Into each format with the source's metadata, as the plug-in saves.
    std::map<std::string, std::vector<std::uint8_t>> inputs; // skyrinse's inputs and their bytes
    for (const std::string& source : sources) {
        const std::vector<std::uint8_t> before = readBytes(source);
        const Tags sourceTags = readTags(source);
        const QString stem = QFileInfo(QString::fromStdString(source)).completeBaseName();
        for (const OutputFormat& f : outputFormats) {
            ZImage image = makePicture(24, 16, ZImage::RGB, f.bits);
            const QString path = work.filePath(stem + QLatin1Char('.') + QLatin1String(f.name));
            QStringList notes;
            image.Save(path, QLatin1String(f.name), -1, QString::fromStdString(source), &notes);
            const Tags outputTags = readTags(path.toStdString());
            const std::string said = notes.join(QLatin1Char('\n')).toStdString();
            expectCarried(sourceTags, outputTags, said, source + " into " + f.name);
            // A TIFF's IPTC goes once, as IPTC: not again as an EXIF tag, nor
            // named as lost.
            EXPECT_EQ(said.find("IPTCNAA"), std::string::npos) << source << " into " << f.name;
            if (std::string(f.name) != "tiff") {
                EXPECT_FALSE(outputTags.count("Exif.Image.IPTCNAA"))
                    << source << " into " << f.name;
                // How a TIFF source stored its pixels says nothing true of
                // another format's file.
                for (const char* storage :
                     {"Exif.Image.ImageWidth", "Exif.Image.Compression", "Exif.Image.StripOffsets",
                      "Exif.Image.RowsPerStrip", "Exif.Image.BitsPerSample",
                      "Exif.Image.PlanarConfiguration"})
                    EXPECT_FALSE(outputTags.count(storage))
                        << source << " into " << f.name << ": " << storage;
            }
            inputs[path.toStdString()] = readBytes(path.toStdString());
        }
        EXPECT_EQ(readBytes(source), before) << source;
        // The photograph itself goes through skyrinse as well.
        const QString copy = work.filePath(QStringLiteral("own_") +
                                           QFileInfo(QString::fromStdString(source)).fileName());
        QFile::copy(QString::fromStdString(source), copy);
        inputs[copy.toStdString()] = before;
    }

    QStringList arguments{QStringLiteral("--strength"), QStringLiteral("0")};
    for (const auto& entry : inputs)
        arguments << QString::fromStdString(entry.first);
    QProcess skyrinse;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), work.filePath(QStringLiteral("config")));
    environment.remove(QStringLiteral("SKYRINSE_PLUGIN"));
    skyrinse.setProcessEnvironment(environment);
    skyrinse.setProcessChannelMode(QProcess::MergedChannels);
    skyrinse.start(QStringLiteral(SKYRINSE_BINARY), arguments);
    ASSERT_TRUE(skyrinse.waitForFinished(300000));
    const std::string said = skyrinse.readAll().toStdString();
    ASSERT_EQ(skyrinse.exitCode(), 0) << said;

    // A format's own file comes back with everything it held.
    for (const auto& [input, bytes] : inputs) {
        const QFileInfo in(QString::fromStdString(input));
        const QString output = in.dir().filePath(
            in.completeBaseName() + QStringLiteral("_dehazed.") + in.suffix().toLower());
        ASSERT_TRUE(QFileInfo::exists(output)) << output.toStdString() << "\n" << said;
        expectCarried(readTags(input), readTags(output.toStdString()), std::string(),
                      "skyrinse " + input);
        EXPECT_EQ(readBytes(input), bytes) << input;
    }
}

} // namespace
