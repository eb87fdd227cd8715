// Profile and photo metadata: reading them from a file, carrying them on a
// bitmap record, and writing them into an encoded file.
//
// Exiv2 does the reading and writing for the formats it knows (JPEG, PNG,
// TIFF, WebP). For the others the decoder's and encoder's attributes stand in,
// converted through OpenImageIO's EXIF and IPTC codecs so that a record holds
// one form whatever its source.
#include "imagefile/internal/IflMetadata.h"
#include "imagefile/Ifl.h"

#include <OpenImageIO/tiffutils.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // Exiv2's auto_ptr

namespace {

thread_local std::vector<std::string>* warningSink = nullptr;

void exiv2LogHandler(int /*level*/, const char* text) {
    if (!warningSink || !text) return;
    std::string line(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    warningSink->push_back("metadata: " + line);
}

// Exiv2's log handler and XMP toolkit are process-wide; set them up once.
void initialiseExiv2() {
    static std::once_flag once;
    std::call_once(once, [] {
        Exiv2::XmpParser::initialize();
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::warn);
        Exiv2::LogMsg::setHandler(exiv2LogHandler);
    });
}

// The attribute that holds an XMP packet whole in files Exiv2 cannot write.
constexpr const char* xmpPacketAttribute = "XMPPacket";

bool hasAttributePrefix(const OIIO::ImageSpec& spec, std::string_view prefix) {
    for (const auto& p : spec.extra_attribs)
        if (OIIO::Strutil::istarts_with(p.name().string(), prefix)) return true;
    return false;
}

// An EXR stores a triple of floats (GPS latitude, longitude, time of day) as
// a vector, which comes back typed as one and which the EXIF encoder, wanting
// three plain floats, would skip: position and time would be lost on the way
// out of an EXR. The copy has them as plain triples again.
OIIO::ImageSpec withPlainTriples(const OIIO::ImageSpec& spec) {
    OIIO::ImageSpec plain = spec;
    for (OIIO::ParamValue& p : plain.extra_attribs) {
        const OIIO::TypeDesc t = p.type();
        if (t.basetype == OIIO::TypeDesc::FLOAT && t.aggregate == OIIO::TypeDesc::VEC3 &&
            t.arraylen == 0) {
            const float* v = static_cast<const float*>(p.data());
            const float triple[3] = {v[0], v[1], v[2]};
            p.init(p.name(), OIIO::TypeDesc(OIIO::TypeDesc::FLOAT, 3), 1, triple);
        }
    }
    return plain;
}

bool isDirectoryPointer(const std::string& key) {
    return key == "Exif.Image.ExifTag" || key == "Exif.Image.GPSTag" ||
           key == "Exif.Photo.InteroperabilityTag";
}

// Decoder attributes to the record's form, for files Exiv2 does not read.
void metadataFromAttributes(const OIIO::ImageSpec& spec, IflMetadata& out,
                            std::vector<std::string>& warnings) {
    if (const OIIO::ParamValue* icc = spec.find_attribute("ICCProfile");
        icc && icc->type().basetype == OIIO::TypeDesc::UINT8) {
        const auto* bytes = static_cast<const std::uint8_t*>(icc->data());
        out.icc.assign(bytes, bytes + icc->type().basesize() * icc->nvalues());
    }
    // IFD0 tags (Make, Artist...) carry no prefix; the encoder takes every
    // attribute it knows as an EXIF tag and leaves the others.
    {
        std::vector<char> blob;
        OIIO::encode_exif(withPlainTriples(spec), blob, OIIO::endian::little);
        // The encoder may put the JPEG segment's name in front of the TIFF header.
        std::size_t skip = 0;
        if (blob.size() >= 6 && std::memcmp(blob.data(), "Exif\0\0", 6) == 0) skip = 6;
        if (blob.size() > skip + 8) try {
                out.exifByteOrder = Exiv2::ExifParser::decode(
                    out.exif, reinterpret_cast<const Exiv2::byte*>(blob.data() + skip),
                    static_cast<std::uint32_t>(blob.size() - skip));
            } catch (const std::exception& e) {
                out.exif.clear();
                warnings.push_back(std::string("EXIF attributes dropped: ") + e.what());
            }
        // The encoder stamps the versions it implements; the photograph's
        // own are in the attributes.
        static constexpr std::pair<const char*, const char*> versions[] = {
            {"Exif:ExifVersion", "Exif.Photo.ExifVersion"},
            {"Exif:FlashPixVersion", "Exif.Photo.FlashpixVersion"}};
        for (const auto& [attribute, key] : versions) {
            const std::string version = spec.get_string_attribute(attribute);
            const auto found = out.exif.findKey(Exiv2::ExifKey(key));
            if (version.size() != 4 || found == out.exif.end()) continue;
            Exiv2::DataValue value(Exiv2::undefined);
            value.read(reinterpret_cast<const Exiv2::byte*>(version.data()), 4);
            found->setValue(&value);
        }
    }
    if (const std::string packet = spec.get_string_attribute(xmpPacketAttribute); !packet.empty())
        out.xmp = packet;
    if (hasAttributePrefix(spec, "IPTC:")) {
        std::vector<char> iim;
        OIIO::encode_iptc_iim(spec, iim);
        if (!iim.empty() &&
            Exiv2::IptcParser::decode(out.iptc, reinterpret_cast<const Exiv2::byte*>(iim.data()),
                                      static_cast<std::uint32_t>(iim.size())) != 0) {
            out.iptc.clear();
            warnings.push_back("IPTC attributes dropped: not a valid IIM block");
        }
    }
}

using ifl::Exif;
using ifl::Icc;
using ifl::Iptc;
using ifl::Photoshop;
using ifl::Xmp;

constexpr unsigned allKinds[] = {Icc, Exif, Iptc, Xmp, Photoshop};

// The name a JPEG gives its Photoshop segments, ahead of the resources.
constexpr char photoshopName[] = "Photoshop 3.0";
constexpr std::size_t photoshopNameSize = sizeof photoshopName; // with its terminating zero
constexpr std::uint16_t iptcResource = 0x0404;

// The Photoshop segments of a JPEG, read up to its first scan: their
// resources joined, as one block.
std::vector<std::uint8_t> readJpegPhotoshop(Exiv2::BasicIo& io) {
    std::vector<std::uint8_t> block;
    if (io.open() != 0) return block;
    Exiv2::byte head[4];
    if (io.read(head, 2) != 2 || head[0] != 0xFF || head[1] != 0xD8) {
        io.close();
        return block;
    }
    for (;;) {
        if (io.read(head, 2) != 2 || head[0] != 0xFF) break;
        Exiv2::byte marker = head[1];
        while (marker == 0xFF) // fill bytes before a marker
            if (io.read(&marker, 1) != 1) break;
        if (marker == 0xD9 || marker == 0xDA) break; // end of image, start of scan
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue; // no length
        if (io.read(head, 2) != 2) break;
        const long length = (long{head[0]} << 8 | head[1]) - 2;
        if (length < 0) break;
        if (marker == 0xED && length >= static_cast<long>(photoshopNameSize)) {
            Exiv2::DataBuf payload = io.read(length);
            if (payload.size_ != length) break;
            if (std::memcmp(payload.pData_, photoshopName, photoshopNameSize) == 0)
                block.insert(block.end(), payload.pData_ + photoshopNameSize,
                             payload.pData_ + payload.size_);
        } else if (io.seek(length, Exiv2::BasicIo::cur) != 0) {
            break;
        }
    }
    io.close();
    return block;
}

// The IPTC resource of a Photoshop block, decoded; empty when there is none.
Exiv2::IptcData iptcOfBlock(const std::vector<std::uint8_t>& block) {
    Exiv2::IptcData iptc;
    const Exiv2::byte* record = nullptr;
    std::uint32_t header = 0, size = 0;
    if (!block.empty() &&
        Exiv2::Photoshop::locateIptcIrb(block.data(), static_cast<long>(block.size()), &record,
                                        &header, &size) == 0 &&
        size > 0)
        Exiv2::IptcParser::decode(iptc, record + header, size);
    return iptc;
}

// The block to write: the source's bytes when the IPTC to be written is what
// the block holds, else the block with its IPTC resource replaced.
std::vector<std::uint8_t> photoshopToWrite(const IflMetadata& metadata, bool withIptc) {
    const Exiv2::IptcData iptc = withIptc ? metadata.iptc : Exiv2::IptcData();
    const Exiv2::DataBuf held = Exiv2::IptcParser::encode(iptcOfBlock(metadata.photoshop));
    const Exiv2::DataBuf wanted = Exiv2::IptcParser::encode(iptc);
    if (held.size_ == wanted.size_ &&
        (held.size_ == 0 || std::memcmp(held.pData_, wanted.pData_, held.size_) == 0))
        return metadata.photoshop;
    const Exiv2::DataBuf rebuilt = Exiv2::Photoshop::setIptcIrb(
        metadata.photoshop.data(), static_cast<long>(metadata.photoshop.size()), iptc);
    return std::vector<std::uint8_t>(rebuilt.pData_, rebuilt.pData_ + rebuilt.size_);
}

// Replaces the Photoshop segments of an encoded JPEG by `block`, in the place
// of the first one, or after the application segments that open the file.
void putJpegPhotoshop(std::vector<std::uint8_t>& jpeg, const std::vector<std::uint8_t>& block) {
    if (jpeg.size() < 4 || jpeg[0] != 0xFF || jpeg[1] != 0xD8)
        throw std::runtime_error("the encoder's output is no JPEG");
    std::vector<std::uint8_t> out(jpeg.begin(), jpeg.begin() + 2);
    std::size_t at = 2;
    std::size_t insertAt = 0; // 0: not yet placed
    bool inOpening = true;
    while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF) {
        const std::uint8_t marker = jpeg[at + 1];
        if (marker == 0xDA || marker == 0xD9) break;
        const std::size_t length = std::size_t{jpeg[at + 2]} << 8 | jpeg[at + 3];
        if (length < 2 || at + 2 + length > jpeg.size()) break;
        const bool isApp = marker >= 0xE0 && marker <= 0xEF;
        const bool isPhotoshop = marker == 0xED && length - 2 >= photoshopNameSize &&
                                 std::memcmp(&jpeg[at + 4], photoshopName, photoshopNameSize) == 0;
        if (inOpening && !isApp && insertAt == 0) insertAt = out.size();
        inOpening = inOpening && isApp;
        if (isPhotoshop) {
            if (insertAt == 0) insertAt = out.size();
        } else {
            out.insert(out.end(), jpeg.begin() + static_cast<std::ptrdiff_t>(at),
                       jpeg.begin() + static_cast<std::ptrdiff_t>(at + 2 + length));
        }
        at += 2 + length;
    }
    if (insertAt == 0) insertAt = out.size();
    out.insert(out.end(), jpeg.begin() + static_cast<std::ptrdiff_t>(at), jpeg.end());

    std::vector<std::uint8_t> segments;
    constexpr std::size_t most = 0xFFFF - 2 - photoshopNameSize;
    for (std::size_t done = 0; done < block.size(); done += most) {
        const std::size_t part = std::min(most, block.size() - done);
        const std::size_t length = 2 + photoshopNameSize + part;
        segments.insert(segments.end(),
                        {0xFF, 0xED, std::uint8_t(length >> 8), std::uint8_t(length & 0xFF)});
        segments.insert(segments.end(), photoshopName, photoshopName + photoshopNameSize);
        segments.insert(segments.end(), block.begin() + static_cast<std::ptrdiff_t>(done),
                        block.begin() + static_cast<std::ptrdiff_t>(done + part));
    }
    out.insert(out.begin() + static_cast<std::ptrdiff_t>(insertAt), segments.begin(),
               segments.end());
    jpeg = std::move(out);
}

const char* kindName(unsigned kind) {
    switch (kind) {
    case Icc:
        return "ICC profile";
    case Exif:
        return "EXIF";
    case Iptc:
        return "IPTC";
    case Xmp:
        return "XMP";
    case Photoshop:
        return "Photoshop resource block";
    }
    return "";
}

// A maker note that opens with its own TIFF header (Nikon's, after its
// name and version) places its entries relative to itself, so its bytes
// stay valid wherever they land. Exiv2 would rebuild it from its decoded tags
// instead, and the rebuilt note differs from what the camera wrote; the
// decoded tags are taken out so that the note goes as the source's bytes.
void keepSelfContainedMakerNote(Exiv2::ExifData& exif) {
    const auto note = exif.findKey(Exiv2::ExifKey("Exif.Photo.MakerNote"));
    if (note == exif.end() || note->size() < 18) return;
    std::vector<std::uint8_t> head(static_cast<std::size_t>(note->size()));
    note->copy(head.data(), Exiv2::invalidByteOrder);
    static constexpr std::uint8_t intel[] = {'I', 'I', 0x2A, 0x00};
    static constexpr std::uint8_t motorola[] = {'M', 'M', 0x00, 0x2A};
    bool ownHeader = false;
    for (std::size_t at = 0; at + 4 <= 18 && !ownHeader; ++at)
        ownHeader =
            std::memcmp(&head[at], intel, 4) == 0 || std::memcmp(&head[at], motorola, 4) == 0;
    if (!ownHeader) return;
    for (auto it = exif.begin(); it != exif.end();) {
        const std::string group = it->groupName();
        if (Exiv2::ExifTags::isMakerGroup(group) || group == "MakerNote")
            it = exif.erase(it);
        else
            ++it;
    }
}

// Returns `encoded` with exactly the given kinds of `metadata` written into it;
// throws what Exiv2 throws.
std::vector<std::uint8_t> writeKinds(const std::vector<std::uint8_t>& encoded,
                                     const IflMetadata& metadata, unsigned kinds, bool tiff) {
    Exiv2::Image::AutoPtr image =
        Exiv2::ImageFactory::open(encoded.data(), static_cast<long>(encoded.size()));
    image->readMetadata();
    // What the encoder wrote on its own gives way to the source's metadata, so
    // that a source without metadata gives an output without any.
    image->clearMetadata();
    if (kinds & Icc) {
        Exiv2::DataBuf profile(metadata.icc.data(), static_cast<long>(metadata.icc.size()));
        image->setIccProfile(profile, true);
    }
    if (kinds & (Exif | Photoshop)) {
        Exiv2::ExifData exif = (kinds & Exif) ? metadata.exif : Exiv2::ExifData();
        keepSelfContainedMakerNote(exif);
        // In a TIFF the thumbnail's directory would become a second page.
        if (tiff) {
            Exiv2::ExifThumb thumb(exif);
            thumb.erase();
        } else {
            // How a TIFF source stored its pixels would be read as a claim
            // about this file; a TIFF output gets its own from its writer.
            for (auto d = exif.begin(); d != exif.end();)
                d = ifl::isStorageTag(d->key()) ? exif.erase(d) : std::next(d);
        }
        // A TIFF holds the Photoshop block in a tag of its own directory.
        if (tiff && (kinds & Photoshop)) {
            const std::vector<std::uint8_t> block = photoshopToWrite(metadata, kinds & Iptc);
            Exiv2::DataValue value(Exiv2::unsignedByte);
            value.read(block.data(), static_cast<long>(block.size()));
            exif.add(Exiv2::ExifKey("Exif.Image.ImageResources"), &value);
        }
        image->setExifData(exif);
        image->setByteOrder(metadata.exifByteOrder);
    }
    if (kinds & Iptc) image->setIptcData(metadata.iptc);
    if ((kinds & Xmp) && tiff) {
        // Exiv2 writes a TIFF's packet (tag 700) from its parsed form only.
        Exiv2::XmpData parsed;
        if (Exiv2::XmpParser::decode(parsed, metadata.xmp) != 0)
            throw std::runtime_error("the XMP toolkit cannot parse the packet, and a TIFF's packet "
                                     "is written from its parsed form");
        image->setXmpData(parsed);
    } else if (kinds & Xmp) {
        // The packet as the source holds it, byte for byte: setXmpPacket
        // would parse it first and refuse one the toolkit cannot read.
        image->clearXmpData();
        image->xmpPacket() = metadata.xmp;
        image->writeXmpFromPacket(true);
    }
    image->writeMetadata();

    Exiv2::BasicIo& io = image->io();
    if (io.open() != 0)
        throw Exiv2::Error(Exiv2::kerDataSourceOpenFailed, "memory", "encoded picture");
    const long size = io.size();
    Exiv2::DataBuf bytes = io.read(size);
    io.close();
    if (bytes.size_ != size) throw Exiv2::Error(Exiv2::kerFailedToReadImageData);
    std::vector<std::uint8_t> out(bytes.pData_, bytes.pData_ + bytes.size_);
    // Exiv2 builds a JPEG's Photoshop segment from the IPTC alone; the
    // source's block goes in its place.
    if (!tiff && (kinds & Photoshop) && image->imageType() == Exiv2::ImageType::jpeg)
        putJpegPhotoshop(out, photoshopToWrite(metadata, kinds & Iptc));
    return out;
}

} // namespace

namespace ifl {

bool isLayoutTag(const std::string& key) {
    static const char* const layout[] = {"Exif.Image.ImageWidth",
                                         "Exif.Image.ImageLength",
                                         "Exif.Image.BitsPerSample",
                                         "Exif.Image.Compression",
                                         "Exif.Image.PhotometricInterpretation",
                                         "Exif.Image.StripOffsets",
                                         "Exif.Image.SamplesPerPixel",
                                         "Exif.Image.RowsPerStrip",
                                         "Exif.Image.StripByteCounts",
                                         "Exif.Image.PlanarConfiguration",
                                         "Exif.Image.ExtraSamples",
                                         "Exif.Image.SampleFormat",
                                         "Exif.Image.Predictor",
                                         "Exif.Photo.PixelXDimension",
                                         "Exif.Photo.PixelYDimension",
                                         "Exif.Image.YCbCrPositioning",
                                         "Exif.Photo.ComponentsConfiguration"};
    for (const char* k : layout)
        if (key == k) return true;
    return false;
}

bool isStorageTag(const std::string& key) {
    return key.rfind("Exif.Image.", 0) == 0 && key != "Exif.Image.YCbCrPositioning" &&
           isLayoutTag(key);
}

IflMetadata* metadataOf(const IflBitmap* bitmap) {
    return bitmap ? static_cast<IflMetadata*>(bitmap->link0) : nullptr;
}

IflMetadata& ensureMetadata(IflBitmap* bitmap) {
    if (!bitmap->link0) bitmap->link0 = std::make_unique<IflMetadata>().release();
    return *static_cast<IflMetadata*>(bitmap->link0);
}

void freeMetadata(IflBitmap* bitmap) {
    std::unique_ptr<IflMetadata> owned(static_cast<IflMetadata*>(bitmap->link0));
    bitmap->link0 = nullptr;
}

Exiv2Warnings::Exiv2Warnings(std::vector<std::string>& sink) : previous(warningSink) {
    initialiseExiv2();
    warningSink = &sink;
}

Exiv2Warnings::~Exiv2Warnings() {
    warningSink = previous;
}

void readMetadata(const std::function<Exiv2::Image::AutoPtr()>& open, const OIIO::ImageSpec& spec,
                  IflMetadata& out, std::vector<std::string>& warnings) {
    Exiv2Warnings capture(warnings);
    Exiv2::Image::AutoPtr image;
    try {
        image = open();
    } catch (const Exiv2::AnyError&) {
        // Not a format Exiv2 reads: the decoder's attributes are all there is.
        metadataFromAttributes(spec, out, warnings);
        return;
    }
    try {
        image->readMetadata();
    } catch (const std::exception& e) {
        // One damaged block makes Exiv2 give up on all of them; the decoder
        // read the file its own way, and what it found is taken instead.
        warnings.push_back(std::string("metadata: ") + e.what() +
                           "; the XMP packet was dropped and the rest taken from the decoder");
        metadataFromAttributes(spec, out, warnings);
        return;
    }
    if (const Exiv2::DataBuf* icc = image->iccProfile(); icc && icc->size_ > 0)
        out.icc.assign(icc->pData_, icc->pData_ + icc->size_);
    out.exif = image->exifData();
    out.exifByteOrder =
        image->byteOrder() == Exiv2::bigEndian ? Exiv2::bigEndian : Exiv2::littleEndian;
    out.iptc = image->iptcData();
    if (image->imageType() == Exiv2::ImageType::jpeg) {
        out.photoshop = readJpegPhotoshop(image->io());
    } else if (const auto tag = out.exif.findKey(Exiv2::ExifKey("Exif.Image.ImageResources"));
               tag != out.exif.end()) {
        // A TIFF's block: kept whole, beside the EXIF rather than in it.
        out.photoshop.resize(static_cast<std::size_t>(tag->size()));
        tag->copy(out.photoshop.data(), Exiv2::invalidByteOrder);
        out.exif.erase(tag);
    }
    // A TIFF keeps its IPTC in a tag of its directory as well. The record
    // holds it once, as IPTC, which each output writes where its format keeps
    // it (a TIFF's writer makes the tag again); as an EXIF tag it would go
    // twice, or be named as lost where the IPTC itself travels.
    if (const auto naa = out.exif.findKey(Exiv2::ExifKey("Exif.Image.IPTCNAA"));
        naa != out.exif.end() && !out.iptc.empty())
        out.exif.erase(naa);
    out.xmp = image->xmpPacket();
    if (!out.xmp.empty() && image->xmpData().empty()) {
        // The toolkit could not parse the packet (a repeated property, say).
        // It still travels, as bytes; the toolkit's words replace its two
        // log lines in one warning.
        std::string reason;
        std::erase_if(warnings, [&](const std::string& w) {
            const bool toolkit = w.find("XMP Toolkit error") != std::string::npos;
            if (toolkit && reason.empty()) reason = w.substr(w.find("XMP Toolkit error"));
            return toolkit || w.find("Failed to decode XMP") != std::string::npos;
        });
        warnings.push_back("the XMP packet could not be parsed (" +
                           (reason.empty() ? std::string("no reason given") : reason) +
                           "); it is carried unchanged as the source's bytes");
    }
}

bool photoshopHasMoreThanIptc(const std::vector<std::uint8_t>& block) {
    // Resources: "8BIM", a 2-byte id, a name padded to even length, a 4-byte
    // size, the data padded to even length.
    std::size_t at = 0;
    while (at + 12 <= block.size()) {
        if (std::memcmp(&block[at], "8BIM", 4) != 0) return true; // not understood: kept whole
        const std::uint16_t id = std::uint16_t(block[at + 4] << 8 | block[at + 5]);
        std::size_t name = 1 + std::size_t{block[at + 6]};
        name += name & 1;
        const std::size_t sizeAt = at + 6 + name;
        if (sizeAt + 4 > block.size()) return true;
        std::size_t size = std::size_t{block[sizeAt]} << 24 | std::size_t{block[sizeAt + 1]} << 16 |
                           std::size_t{block[sizeAt + 2]} << 8 | block[sizeAt + 3];
        size += size & 1;
        if (id != iptcResource) return true;
        at = sizeAt + 4 + size;
    }
    return at < block.size();
}

void warnUnheld(const IflMetadata& metadata, bool withIcc, unsigned holds,
                std::string_view formatName, std::vector<std::string>& warnings) {
    const std::string format(formatName);
    if (withIcc && !metadata.icc.empty() && !(holds & Icc))
        warnings.push_back(format + " files hold no ICC profile; it was dropped");
    if (!metadata.exif.empty() && !(holds & Exif))
        warnings.push_back(format + " files hold no EXIF; it was dropped");
    if (!metadata.iptc.empty() && !(holds & Iptc))
        warnings.push_back(format + " files hold no IPTC; it was dropped");
    if (!metadata.xmp.empty() && !(holds & Xmp))
        warnings.push_back(format + " files hold no XMP; it was dropped");
    // The IPTC inside the block goes on its own where the format holds IPTC;
    // only the other resources need naming.
    if (!(holds & Photoshop) && photoshopHasMoreThanIptc(metadata.photoshop))
        warnings.push_back(format +
                           " files hold no Photoshop resource block; its resources other than "
                           "IPTC were dropped");
}

void metadataToAttributes(const IflMetadata& metadata, bool withIcc, OIIO::ImageSpec& spec,
                          std::string_view formatName, std::vector<std::string>& warnings) {
    if (withIcc && !metadata.icc.empty())
        spec.attribute("ICCProfile",
                       OIIO::TypeDesc(OIIO::TypeDesc::UINT8, static_cast<int>(metadata.icc.size())),
                       metadata.icc.data());
    if (!metadata.exif.empty()) {
        Exiv2::Blob blob;
        Exiv2::ExifParser::encode(blob, metadata.exifByteOrder, metadata.exif);
        if (!blob.empty())
            OIIO::decode_exif(OIIO::cspan<std::uint8_t>(blob.data(), blob.size()), spec);
    }
    if (!metadata.iptc.empty()) {
        Exiv2::DataBuf iim = Exiv2::IptcParser::encode(metadata.iptc);
        if (iim.size_ > 0) OIIO::decode_iptc_iim(iim.pData_, static_cast<int>(iim.size_), spec);
    }
    if (!metadata.xmp.empty()) {
        // Its properties for readers that look for them, and the packet
        // itself, which a load takes back whole. A property that OpenImageIO
        // maps to the name of an EXIF tag or IPTC dataset already set (a
        // title, a date in another notation) leaves the block's value alone.
        OIIO::ImageSpec fromXmp;
        OIIO::decode_xmp(OIIO::string_view(metadata.xmp), fromXmp);
        for (const OIIO::ParamValue& p : fromXmp.extra_attribs)
            if (!spec.find_attribute(p.name())) spec.extra_attribs.push_back(p);
        spec.attribute(xmpPacketAttribute, metadata.xmp);
    }

    // The attributes hold the tags and datasets OpenImageIO knows; what a
    // reader of the file gets back is what they encode to again.
    IflMetadata back;
    {
        std::vector<std::string> ignored;
        Exiv2Warnings quiet(ignored);
        metadataFromAttributes(spec, back, ignored);
    }
    const std::string format(formatName);
    bool makerNote = false, thumbnail = false;
    std::string lost;
    auto name = [&](const std::string& key) { lost += (lost.empty() ? "" : ", ") + key; };
    for (const Exiv2::Exifdatum& d : metadata.exif) {
        if (back.exif.findKey(Exiv2::ExifKey(d.key())) != back.exif.end()) continue;
        const std::string group = d.groupName();
        if (Exiv2::ExifTags::isMakerGroup(group) || group == "MakerNote" ||
            d.key() == "Exif.Photo.MakerNote")
            makerNote = true;
        else if (group == "Thumbnail")
            thumbnail = true;
        else if (!isDirectoryPointer(d.key()) && !isLayoutTag(d.key()))
            // Pointers to directories and the layout of the stored picture
            // mean nothing outside the EXIF block.
            name(d.key());
    }
    for (const Exiv2::Iptcdatum& d : metadata.iptc)
        if (back.iptc.findKey(Exiv2::IptcKey(d.key())) == back.iptc.end() &&
            lost.find(d.key()) == std::string::npos)
            name(d.key());
    if (makerNote) warnings.push_back(format + " files hold no EXIF maker note; it was dropped");
    if (thumbnail) warnings.push_back(format + " files hold no EXIF thumbnail; it was dropped");
    if (!lost.empty())
        warnings.push_back(format + " files hold no place for " + lost + "; dropped");
}

void embedMetadata(std::vector<std::uint8_t>& file, const IflMetadata& metadata, bool withIcc,
                   unsigned holds, bool tiff, std::string_view formatName,
                   std::vector<std::string>& warnings) {
    Exiv2Warnings capture(warnings);
    unsigned wanted = 0;
    if (withIcc && !metadata.icc.empty()) wanted |= Icc;
    if (!metadata.exif.empty()) wanted |= Exif;
    if (!metadata.iptc.empty()) wanted |= Iptc;
    if (!metadata.xmp.empty()) wanted |= Xmp;
    if (!metadata.photoshop.empty()) wanted |= Photoshop;
    warnUnheld(metadata, withIcc, holds, formatName, warnings);
    wanted &= holds;
    if (tiff && (wanted & Exif) && Exiv2::ExifThumbC(metadata.exif).mimeType()[0] != '\0')
        warnings.push_back(std::string(formatName) +
                           " files hold no EXIF thumbnail (it would read as a second page); it "
                           "was dropped");
    if (wanted == 0) return;

    // The common case: everything goes in with one rewrite.
    try {
        file = writeKinds(file, metadata, wanted, tiff);
        return;
    } catch (const std::exception&) {
        // Find the kinds at fault below.
    }

    // Each kind is added to the ones that went in; a kind that fails is dropped.
    unsigned accepted = 0;
    std::vector<std::uint8_t> best = file;
    for (unsigned kind : allKinds) {
        if (!(wanted & kind)) continue;
        try {
            best = writeKinds(file, metadata, accepted | kind, tiff);
            accepted |= kind;
        } catch (const std::exception& e) {
            warnings.push_back(std::string(kindName(kind)) +
                               " could not be written and was dropped: " + e.what());
        }
    }
    file = std::move(best);
}

} // namespace ifl

bool iflBitmapHasICCProfile(const IflBitmap* bitmap) {
    const IflMetadata* m = ifl::metadataOf(bitmap);
    return m && !m->icc.empty();
}

IflError iflBitmapCopyICCProfile(const IflBitmap* source, IflBitmap* target) {
    if (!source || !target) return IFL_ERROR_BAD_PARAMETERS;
    if (source == target) return IFL_OK;
    try {
        const IflMetadata* m = ifl::metadataOf(source);
        if (!m || m->icc.empty()) {
            if (IflMetadata* t = ifl::metadataOf(target)) t->icc.clear();
            return IFL_OK;
        }
        ifl::ensureMetadata(target).icc = m->icc;
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

std::vector<std::uint8_t> iflBitmapICCProfile(const IflBitmap* bitmap) {
    const IflMetadata* m = ifl::metadataOf(bitmap);
    return m ? m->icc : std::vector<std::uint8_t>{};
}

bool iflBitmapHasIPTC(const IflBitmap* bitmap) {
    const IflMetadata* m = ifl::metadataOf(bitmap);
    return m && (!m->iptc.empty() || !m->photoshop.empty());
}

IflError iflBitmapGetIPTC(const IflBitmap* bitmap, IflIptc** handle) {
    if (!handle) return IFL_ERROR_BAD_PARAMETERS;
    *handle = nullptr;
    if (!bitmap) return IFL_ERROR_BAD_PARAMETERS;
    try {
        auto copy = std::make_unique<IflIptc>();
        if (const IflMetadata* m = ifl::metadataOf(bitmap)) {
            copy->data = m->iptc;
            copy->photoshop = m->photoshop;
        }
        *handle = copy.release();
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

IflError iflBitmapSetIPTC(IflBitmap* bitmap, const IflIptc* handle) {
    if (!bitmap || !handle) return IFL_ERROR_BAD_PARAMETERS;
    try {
        IflMetadata& m = ifl::ensureMetadata(bitmap);
        m.iptc = handle->data;
        m.photoshop = handle->photoshop;
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

void iflFreeIPTC(IflIptc* handle) {
    std::unique_ptr<IflIptc> owned(handle);
}

bool iflBitmapHasEXIF(const IflBitmap* bitmap) {
    const IflMetadata* m = ifl::metadataOf(bitmap);
    return m && !m->exif.empty();
}

IflError iflBitmapGetEXIF2(const IflBitmap* bitmap, IflExif** handle) {
    if (!handle) return IFL_ERROR_BAD_PARAMETERS;
    *handle = nullptr;
    if (!bitmap) return IFL_ERROR_BAD_PARAMETERS;
    try {
        auto copy = std::make_unique<IflExif>();
        if (const IflMetadata* m = ifl::metadataOf(bitmap)) {
            copy->data = m->exif;
            copy->byteOrder = m->exifByteOrder;
        }
        *handle = copy.release();
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

IflError iflBitmapSetEXIF2(IflBitmap* bitmap, const IflExif* handle) {
    if (!bitmap || !handle) return IFL_ERROR_BAD_PARAMETERS;
    try {
        IflMetadata& m = ifl::ensureMetadata(bitmap);
        m.exif = handle->data;
        m.exifByteOrder = handle->byteOrder;
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

void iflFreeEXIF2(IflExif* handle) {
    std::unique_ptr<IflExif> owned(handle);
}

bool iflBitmapHasXMP(const IflBitmap* bitmap) {
    const IflMetadata* m = ifl::metadataOf(bitmap);
    return m && !m->xmp.empty();
}

IflError iflBitmapGetXMP(const IflBitmap* bitmap, IflXmp** handle) {
    if (!handle) return IFL_ERROR_BAD_PARAMETERS;
    *handle = nullptr;
    if (!bitmap) return IFL_ERROR_BAD_PARAMETERS;
    try {
        auto copy = std::make_unique<IflXmp>();
        if (const IflMetadata* m = ifl::metadataOf(bitmap)) copy->packet = m->xmp;
        *handle = copy.release();
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

IflError iflBitmapSetXMP(IflBitmap* bitmap, const IflXmp* handle) {
    if (!bitmap || !handle) return IFL_ERROR_BAD_PARAMETERS;
    try {
        ifl::ensureMetadata(bitmap).xmp = handle->packet;
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

void iflFreeXMP(IflXmp* handle) {
    std::unique_ptr<IflXmp> owned(handle);
}
