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

bool hasAttributePrefix(const OIIO::ImageSpec& spec, std::string_view prefix) {
    for (const auto& p : spec.extra_attribs)
        if (OIIO::Strutil::istarts_with(p.name().string(), prefix)) return true;
    return false;
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
        OIIO::encode_exif(spec, blob, OIIO::endian::little);
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
    }
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
using ifl::Xmp;

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
    }
    return "";
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
    if (kinds & Exif) {
        Exiv2::ExifData exif = metadata.exif;
        // In a TIFF the thumbnail's directory would become a second page.
        if (tiff) {
            Exiv2::ExifThumb thumb(exif);
            thumb.erase();
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
    return std::vector<std::uint8_t>(bytes.pData_, bytes.pData_ + bytes.size_);
}

} // namespace

namespace ifl {

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

void metadataToAttributes(const IflMetadata& metadata, bool withIcc, OIIO::ImageSpec& spec) {
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
    if (!metadata.xmp.empty()) OIIO::decode_xmp(OIIO::string_view(metadata.xmp), spec);
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
    for (unsigned kind : {Icc, Exif, Iptc, Xmp})
        if ((wanted & kind) && !(holds & kind))
            warnings.push_back(std::string(formatName) + " files hold no " + kindName(kind) +
                               "; it was dropped");
    wanted &= holds;
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
    for (unsigned kind : {Icc, Exif, Iptc, Xmp}) {
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
    return m && !m->iptc.empty();
}

IflError iflBitmapGetIPTC(const IflBitmap* bitmap, IflIptc** handle) {
    if (!handle) return IFL_ERROR_BAD_PARAMETERS;
    *handle = nullptr;
    if (!bitmap) return IFL_ERROR_BAD_PARAMETERS;
    try {
        auto copy = std::make_unique<IflIptc>();
        if (const IflMetadata* m = ifl::metadataOf(bitmap)) copy->data = m->iptc;
        *handle = copy.release();
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return IFL_ERROR_NO_MEMORY;
    }
}

IflError iflBitmapSetIPTC(IflBitmap* bitmap, const IflIptc* handle) {
    if (!bitmap || !handle) return IFL_ERROR_BAD_PARAMETERS;
    try {
        ifl::ensureMetadata(bitmap).iptc = handle->data;
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
