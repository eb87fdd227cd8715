// The metadata block that an IFL bitmap record can carry, and the moves of
// metadata between files, records and encoder attributes.
//
// The block hangs on IflBitmap::link0 and is owned by the record: iflFreeBitmap
// frees it, and ZImage::CopyFrom clears the pointer, so a copy never shares it.
// EXIF, IPTC and XMP are kept as Exiv2 holds them, so that maker notes, GPS
// and unknown tags travel as whole blocks; the ICC profile, the XMP packet and
// the Photoshop resource block are kept as bytes and written back unchanged.
#pragma once

#include "imagefile/IflBitmap.h"

// Exiv2 0.27 still hands out std::auto_ptr in its headers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <exiv2/exiv2.hpp>
#pragma GCC diagnostic pop

#include <OpenImageIO/imageio.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct IflMetadata {
    std::vector<std::uint8_t> icc;
    Exiv2::ExifData exif;
    Exiv2::ByteOrder exifByteOrder = Exiv2::littleEndian;
    Exiv2::IptcData iptc;
    std::string xmp; // the packet as found in the file
    // The Photoshop image resources (a JPEG's APP13 segments without their
    // "Photoshop 3.0" names, a TIFF's tag 34377): IPTC lives in one of them,
    // and the others (print resolution, captions, paths...) would be lost if
    // the block were rebuilt from the IPTC alone.
    std::vector<std::uint8_t> photoshop;

    bool empty() const {
        return icc.empty() && exif.empty() && iptc.empty() && xmp.empty() && photoshop.empty();
    }
};

// IPTC travels with the Photoshop block that holds it in JPEG and TIFF files.
struct IflIptc {
    Exiv2::IptcData data;
    std::vector<std::uint8_t> photoshop;
};

struct IflExif {
    Exiv2::ExifData data;
    Exiv2::ByteOrder byteOrder = Exiv2::littleEndian;
};

struct IflXmp {
    std::string packet;
};

namespace ifl {

// The block of a record, or null.
IflMetadata* metadataOf(const IflBitmap* bitmap);
// The block of a record, made empty if there was none.
IflMetadata& ensureMetadata(IflBitmap* bitmap);
// Frees the block of a record and clears the link.
void freeMetadata(IflBitmap* bitmap);

// While one of these lives on a thread, Exiv2's warnings on that thread are
// appended to `sink` instead of going to standard error.
class Exiv2Warnings {
public:
    explicit Exiv2Warnings(std::vector<std::string>& sink);
    ~Exiv2Warnings();
    Exiv2Warnings(const Exiv2Warnings&) = delete;
    Exiv2Warnings& operator=(const Exiv2Warnings&) = delete;

private:
    std::vector<std::string>* previous;
};

// Reads profile and metadata of a file; `open` gives Exiv2's view of it and
// throws for a format Exiv2 does not read. For those (EXR, HDR...) what the
// decoder found is taken from `spec`. Never fails: what cannot be read is
// named in `warnings` and left out.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void readMetadata(const std::function<Exiv2::Image::AutoPtr()>& open, const OIIO::ImageSpec& spec,
                  IflMetadata& out, std::vector<std::string>& warnings);
#pragma GCC diagnostic pop

// Puts the metadata into encoder attributes, for formats Exiv2 cannot write;
// the EXIF tags that the attributes cannot hold are named in `warnings`.
void metadataToAttributes(const IflMetadata& metadata, bool withIcc, OIIO::ImageSpec& spec,
                          std::string_view formatName, std::vector<std::string>& warnings);

// Whether an EXIF tag describes how the picture is stored (its size, samples,
// strips...), which the output's own header says afresh.
bool isLayoutTag(const std::string& key);
// Those of them that only a TIFF's main directory holds, dropped from the
// EXIF block of every other format.
bool isStorageTag(const std::string& key);

// The kinds of metadata, as bits of a mask.
enum MetadataKind : unsigned { Icc = 1, Exif = 2, Iptc = 4, Xmp = 8, Photoshop = 16 };

// Whether a Photoshop block holds resources other than IPTC, which only JPEG
// and TIFF files can carry.
bool photoshopHasMoreThanIptc(const std::vector<std::uint8_t>& block);

// Names in `warnings` each kind of `metadata` that a format holding `holds`
// cannot carry.
void warnUnheld(const IflMetadata& metadata, bool withIcc, unsigned holds,
                std::string_view formatName, std::vector<std::string>& warnings);

// Writes the metadata into an encoded JPEG, PNG, TIFF or WebP file held in
// memory, the kinds in `holds` only (the others are named in `warnings`).
// A JPEG gets the Photoshop block as the source's bytes, a TIFF as its tag,
// each with its IPTC resource replaced only if the record's IPTC differs.
// All kinds are tried at once; if that fails, each kind alone, and the ones
// that still fail are dropped and named in `warnings`.
void embedMetadata(std::vector<std::uint8_t>& file, const IflMetadata& metadata, bool withIcc,
                   unsigned holds, bool tiff, std::string_view formatName,
                   std::vector<std::string>& warnings);

} // namespace ifl
