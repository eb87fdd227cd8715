// Helpers shared by the image file tests: scratch folders, files as bytes,
// synthetic pictures and what Exiv2 reads back from a file.
#pragma once

#include "ZImage/ZImage.h"
#include "imagefile/Ifl.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include "imagefile/internal/IflMetadata.h"
#include <exiv2/exiv2.hpp>
#pragma GCC diagnostic pop

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace ifltest {

inline std::string dataFile(const std::string& name) {
    return std::string(SKYRINSE_TEST_DATA) + "/" + name;
}

// The bytes of a file; empty for a folder or a missing file.
inline std::vector<std::uint8_t> readBytes(const std::string& path) {
    if (!QFileInfo(QString::fromStdString(path)).isFile()) return {};
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

// Names of the entries of a folder, hidden ones included.
inline QStringList entries(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                                  QDir::Name);
}

// Component c of pixel (x, y), as a double in the unit of its depth.
inline double component(const ZImage& image, int x, int y, int c) {
    const std::uint8_t* p = image.PixelAt(x, y);
    switch (image.BitsPerComponent()) {
    case 8:
        return p[c];
    case 16: {
        std::uint16_t v;
        std::memcpy(&v, p + 2 * c, 2);
        return v;
    }
    default: {
        float v;
        std::memcpy(&v, p + 4 * c, 4);
        return v;
    }
    }
}

inline void setComponent(ZImage& image, int x, int y, int c, double value) {
    std::uint8_t* p = image.PixelAt(x, y);
    switch (image.BitsPerComponent()) {
    case 8:
        p[c] = static_cast<std::uint8_t>(value);
        break;
    case 16: {
        const auto v = static_cast<std::uint16_t>(value);
        std::memcpy(p + 2 * c, &v, 2);
        break;
    }
    default: {
        const auto v = static_cast<float>(value);
        std::memcpy(p + 4 * c, &v, 4);
        break;
    }
    }
}

// A smooth picture with a different ramp per component, so that swapped or
// lost components show; floats run past 1.0 as HDR pictures do.
inline ZImage makePicture(int width, int height, int type, int bits) {
    ZImage image(width, height, type, bits);
    const int components = ZImage::ComponentsOfType(type);
    const double full = bits == 8 ? 255.0 : bits == 16 ? 65535.0 : 2.0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < components; ++c) {
                const double t = (c % 2 == 0) ? double(x) / (width - 1) : double(y) / (height - 1);
                const double v = c == 3 ? 0.25 + 0.5 * t : (0.1 + 0.8 * (c == 2 ? 1.0 - t : t));
                setComponent(image, x, y, c, bits == 32 ? v * full : std::round(v * full));
            }
    return image;
}

// Largest difference between two pictures of the same layout; with
// `relative`, relative to the pixel's largest component, as shared-exponent
// codecs round.
inline double maxDifference(const ZImage& a, const ZImage& b, bool relative = false) {
    double worst = 0.0;
    const int components = a.BytesPerPixel() / (a.BitsPerComponent() / 8);
    for (int y = 0; y < a.Height(); ++y)
        for (int x = 0; x < a.Width(); ++x) {
            double scale = 1e-6;
            for (int c = 0; c < components; ++c)
                scale = std::max(scale, std::abs(component(a, x, y, c)));
            for (int c = 0; c < components; ++c) {
                double d = std::abs(component(a, x, y, c) - component(b, x, y, c));
                if (relative) d /= scale;
                worst = std::max(worst, d);
            }
        }
    return worst;
}

// What Exiv2 reads from a file.
struct Metadata {
    std::vector<std::uint8_t> icc;
    std::map<std::string, std::string> exif;
    std::multimap<std::string, std::string> iptc;
    std::string xmp;                              // the packet as Exiv2 gives it
    std::map<std::string, std::string> xmpValues; // its properties
};

inline Metadata readMetadata(const std::string& path) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Metadata m;
    Exiv2::Image::AutoPtr image = Exiv2::ImageFactory::open(path, false);
    image->readMetadata();
    if (image->iccProfileDefined())
        m.icc.assign(image->iccProfile()->pData_,
                     image->iccProfile()->pData_ + image->iccProfile()->size_);
    for (const Exiv2::Exifdatum& d : image->exifData())
        m.exif[d.key()] = d.toString();
    for (const Exiv2::Iptcdatum& d : image->iptcData())
        m.iptc.emplace(d.key(), d.toString());
    m.xmp = image->xmpPacket();
    for (const Exiv2::Xmpdatum& d : image->xmpData())
        m.xmpValues[d.key()] = d.toString();
    return m;
#pragma GCC diagnostic pop
}

// The payloads of a JPEG's segments with the given marker, up to the first scan.
inline std::vector<std::vector<std::uint8_t>> jpegSegments(const std::vector<std::uint8_t>& jpeg,
                                                           std::uint8_t marker) {
    std::vector<std::vector<std::uint8_t>> found;
    std::size_t at = 2;
    while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF && jpeg[at + 1] != 0xDA) {
        const std::size_t length = std::size_t{jpeg[at + 2]} << 8 | jpeg[at + 3];
        if (length < 2 || at + 2 + length > jpeg.size()) break;
        if (jpeg[at + 1] == marker)
            found.emplace_back(jpeg.begin() + static_cast<std::ptrdiff_t>(at + 4),
                               jpeg.begin() + static_cast<std::ptrdiff_t>(at + 2 + length));
        at += 2 + length;
    }
    return found;
}

// Puts a segment right after a JPEG's start-of-image marker.
inline void insertJpegSegment(std::vector<std::uint8_t>& jpeg, std::uint8_t marker,
                              const std::vector<std::uint8_t>& payload) {
    const std::size_t length = payload.size() + 2;
    std::vector<std::uint8_t> segment{0xFF, marker, std::uint8_t(length >> 8),
                                      std::uint8_t(length & 0xFF)};
    segment.insert(segment.end(), payload.begin(), payload.end());
    jpeg.insert(jpeg.begin() + 2, segment.begin(), segment.end());
}

// Tags whose values are positions in the file, which a rewrite moves; the
// maker note's own tags are compared one by one instead of as raw bytes.
inline bool isPosition(const std::string& key) {
    static const char* const positions[] = {
        "Exif.Image.ExifTag",   "Exif.Image.GPSTag",     "Exif.Photo.InteroperabilityTag",
        "Exif.Photo.MakerNote", "Exif.MakerNote.Offset", "Exif.Thumbnail.JPEGInterchangeFormat"};
    for (const char* k : positions)
        if (key == k) return true;
    return false;
}

// Tags that describe the file's own layout rather than the photograph, as
// IFL tells them apart when it writes; and the thumbnail, which does not go
// into a TIFF.
inline bool describesLayout(const std::string& key) {
    return ifl::isLayoutTag(key) || isPosition(key) || key.rfind("Exif.Thumbnail.", 0) == 0;
}

// One image resource: "8BIM", its id, an empty name, its size, its data.
inline void addResource(std::vector<std::uint8_t>& block, std::uint16_t id,
                        const std::vector<std::uint8_t>& data) {
    const std::uint32_t size = static_cast<std::uint32_t>(data.size());
    block.insert(block.end(), {'8', 'B', 'I', 'M', std::uint8_t(id >> 8), std::uint8_t(id), 0, 0,
                               std::uint8_t(size >> 24), std::uint8_t(size >> 16),
                               std::uint8_t(size >> 8), std::uint8_t(size)});
    block.insert(block.end(), data.begin(), data.end());
    if (size & 1) block.push_back(0);
}

// A JPEG whose APP13 segment holds a print resolution resource, a caption
// resource of odd length and the IPTC record; returns the segment's payload.
inline std::vector<std::uint8_t> jpegWithPhotoshopBlock(const std::string& path) {
    makePicture(8, 8, ZImage::RGB, 8)
        .Save(QString::fromStdString(path), QStringLiteral("jpeg"), -1, QString());
    Exiv2::IptcData iptc;
    iptc["Iptc.Application2.Headline"] = "Fog over the meadows";
    iptc["Iptc.Application2.City"] = "Aitzgorri";
    const Exiv2::DataBuf iim = Exiv2::IptcParser::encode(iptc);
    std::vector<std::uint8_t> payload{'P', 'h', 'o', 't', 'o', 's', 'h',
                                      'o', 'p', ' ', '3', '.', '0', 0};
    addResource(payload, 0x03ED, {0, 0x48, 0, 0, 0, 1, 0, 1, 0, 0x48, 0, 0, 0, 1, 0, 1});
    addResource(payload, 0x03F0, {'c', 'a', 'p'});
    addResource(payload, 0x0404, std::vector<std::uint8_t>(iim.pData_, iim.pData_ + iim.size_));
    std::vector<std::uint8_t> bytes = readBytes(path);
    insertJpegSegment(bytes, 0xED, payload);
    writeBytes(path, bytes);
    return payload;
}

inline bool hasKeyWith(const std::map<std::string, std::string>& exif, const std::string& prefix) {
    return std::any_of(exif.begin(), exif.end(),
                       [&](const auto& kv) { return kv.first.rfind(prefix, 0) == 0; });
}

} // namespace ifltest
