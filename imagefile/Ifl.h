// IFL, the image file library: decoding and encoding of picture files, and
// the colour profile and photo metadata that travel with them.
//
// Rules shared by every call of this header:
// - Every operation returns an IflError (imagefile/IflErrors.h); 0 is success.
//   No exception leaves IFL. The predicates (iflBitmapHas...) answer a bool.
// - Paths are in the local 8-bit encoding (QString::toLocal8Bit).
// - When a call fails, the IflReport it was given (if any) holds the file it
//   worked on and the codec's or metadata library's own text; warnings list
//   what was dropped on the way (metadata that could not be read or written)
//   even when the call succeeded.
// - Bitmaps are IflBitmap records (imagefile/IflBitmap.h). A record may carry
//   a metadata block (ICC profile, EXIF, IPTC, XMP) that iflFreeBitmap frees
//   with it; handles obtained from a bitmap are independent copies that the
//   caller frees with the matching iflFree... call.
// - Pictures of more than IFL_MAX_PIXELS pixels, or with a zero or negative
//   dimension, are refused before any pixel memory is taken.
#pragma once

#include "imagefile/IflBitmap.h"
#include "imagefile/IflErrors.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Load flags.
inline constexpr std::uint32_t IFL_LOAD_METADATA = 0x400;    // attach profile and metadata
inline constexpr std::uint32_t IFL_LOAD_HEADER_ONLY = 0x800; // fill the header, decode no pixels

// Save flags.
inline constexpr std::uint32_t IFL_SAVE_ICC_PROFILE = 0x8; // write the bitmap's ICC profile
// Store 32-bit float components as 16-bit (half) floats where the format can
// (EXR, TIFF): a half-float source is written back in its own precision.
inline constexpr std::uint32_t IFL_SAVE_HALF_FLOAT = 0x10;
// The bitmap's colour is unassociated, as IFL loads it; store it multiplied by
// alpha (associated) in a TIFF. EXR is always written associated.
inline constexpr std::uint32_t IFL_SAVE_ASSOCIATED_ALPHA = 0x20;

// A compression or quality word that leaves the choice to the format's default.
inline constexpr std::uint16_t IFL_DEFAULT_WORD = 0xFFFF;

// One gigapixel: larger pictures are refused with IFL_ERROR_NO_MEMORY rather
// than exhausting the machine (an RGBA float picture of this size is 16 GiB).
inline constexpr std::int64_t IFL_MAX_PIXELS = std::int64_t{1} << 30;

// Format indices of the formats IFL writes. The compression word of each
// format takes the codes listed beside it.
enum IflFormat : std::int32_t {
    IFL_FORMAT_UNKNOWN = -1,
    IFL_FORMAT_JPEG = 0, // quality word 1..100
    IFL_FORMAT_PNG = 1,  // compression word: zlib level 0..9
    IFL_FORMAT_TIFF = 2, // compression word: 0 none, 1 PackBits, 2 LZW, 4 Deflate; others LZW
    IFL_FORMAT_HDRI = 3, // compression word: accepted; Radiance files are always run-length coded
    IFL_FORMAT_EXR = 4,  // compression word: 0 none, 1 RLE, 2 ZIPS, 3 ZIP, 4 PIZ, 5 PXR24,
                         // 6 B44, 7 B44A, 8 DWAA, 9 DWAB
    IFL_FORMAT_WEBP = 5, // quality word 1..100
    IFL_FORMAT_BMP = 6,
    IFL_FORMAT_TGA = 7,
    IFL_FORMAT_COUNT = 8,
};

struct IflLoadParams {
    std::uint32_t flags = 0;
};

struct IflSaveParams {
    std::uint32_t flags = 0;
    std::int32_t formatIndex = IFL_FORMAT_UNKNOWN;
    std::uint16_t compression = IFL_DEFAULT_WORD;
    std::uint16_t quality = IFL_DEFAULT_WORD;
};

// What a call has to say beyond its code.
struct IflReport {
    std::string path;                  // the file the call worked on
    std::string detail;                // the codec's or metadata library's text of a failure
    std::vector<std::string> warnings; // what was dropped, in the order it happened
};

// The file information record that iflLoadBitmap fills.
struct IflFileInformation {
    std::string formatName;                        // IFL's name ("jpeg", "tiff"...) or the codec's
    std::int32_t formatIndex = IFL_FORMAT_UNKNOWN; // -1 when IFL cannot write the format
    int width = 0;
    int height = 0;
    int channels = 0;             // as stored in the file, before mapping to 1, 3 or 4
    int bitsPerComponent = 0;     // of the decoded bitmap: 8, 16 or 32 (float)
    bool halfFloat = false;       // the file stores 16-bit floats (decoded to 32-bit)
    bool associatedAlpha = false; // the file stores colour multiplied by alpha (decoded
                                  // unassociated)
    IflReport report;
};

// Opaque metadata handles; each is an independent copy.
struct IflIptc;
struct IflExif;
struct IflXmp;

IflError iflGetDefaultLoadParams(IflLoadParams& params);
IflError iflGetDefaultSaveParams(IflSaveParams& params);

// Decodes the first picture of the file into a new record (*bitmap, freed with
// iflFreeBitmap): 1 component for grey, 3 for RGB, 4 for RGBA (grey with alpha
// becomes RGBA); 8 or 16-bit unsigned or 32-bit float as the file stores it.
// With IFL_LOAD_HEADER_ONLY the record has no pixels (data is null).
IflError iflLoadBitmap(const char* path, IflBitmap** bitmap, const IflLoadParams& params,
                       IflFileInformation* information);
// The same for the bytes of a file held in memory (JPEG, PNG, TIFF, EXR, HDR,
// WebP, BMP, Targa); the report's path stays empty.
IflError iflLoadBitmapFromMemory(const std::uint8_t* data, std::size_t size, IflBitmap** bitmap,
                                 const IflLoadParams& params, IflFileInformation* information);

// Writes the bitmap in the format of params.formatIndex. The file appears
// complete or not at all: it is written as a nameless file in the target
// folder (or, where the file system has none, under a hidden temporary name)
// and given the target's name only when everything succeeded.
IflError iflSaveBitmap(const char* path, const IflBitmap* bitmap, const IflSaveParams& params,
                       IflReport* report = nullptr);

// The same save for a picture that is still being made, so that it can be
// encoded while the rest is computed. iflBeginSave checks what iflSaveBitmap
// checks and opens the encoder on the record, whose pixels need not be
// complete yet; iflSaveRows says that the first `rows` rows are complete
// (calls in order, from one thread at a time: what is new is encoded
// there); iflEndSave encodes what is left and writes the file as
// iflSaveBitmap does, and its report holds the warnings of the whole save.
// After a failure the later calls return the same code, and iflEndSave's
// report says why. A save freed (iflFreeSave) without iflEndSave leaves no
// file. The bytes written are those of iflSaveBitmap.
struct IflSave;
IflError iflBeginSave(const char* path, const IflBitmap* bitmap, const IflSaveParams& params,
                      IflSave** save, IflReport* report = nullptr);
IflError iflSaveRows(IflSave* save, int rows);
IflError iflEndSave(IflSave* save, IflReport* report = nullptr);
void iflFreeSave(IflSave* save);

// Removes the temporary files of the saves in progress. Safe in a signal
// handler: a host calls it from its handlers of SIGINT, SIGTERM, SIGHUP and
// SIGXFSZ before it ends, so that an interrupted save leaves nothing behind.
void iflRemoveTemporaryFiles() noexcept;

// Format index of a name or file suffix, in any case; IFL_ERROR_BAD_FORMAT_INDEX
// (and *index = -1) for a name IFL does not write.
IflError iflGetFormatIndexByName(const char* name, std::int32_t* index);
// Whether the format writes bitmaps of that depth (8, 16, 32) and component
// count (1, 3, 4), keeping every component.
bool iflFormatWrites(std::int32_t index, int bitsPerComponent, int components);

// Releases the contents of the record, which is then as if default-made.
void iflFreeFileInformation(IflFileInformation* information);

bool iflBitmapHasICCProfile(const IflBitmap* bitmap);
IflError iflBitmapCopyICCProfile(const IflBitmap* source, IflBitmap* target);
// The profile's bytes, empty when there is none.
std::vector<std::uint8_t> iflBitmapICCProfile(const IflBitmap* bitmap);

bool iflBitmapHasIPTC(const IflBitmap* bitmap);
IflError iflBitmapGetIPTC(const IflBitmap* bitmap, IflIptc** handle);
IflError iflBitmapSetIPTC(IflBitmap* bitmap, const IflIptc* handle);
void iflFreeIPTC(IflIptc* handle);

bool iflBitmapHasEXIF(const IflBitmap* bitmap);
IflError iflBitmapGetEXIF2(const IflBitmap* bitmap, IflExif** handle);
IflError iflBitmapSetEXIF2(IflBitmap* bitmap, const IflExif* handle);
void iflFreeEXIF2(IflExif* handle);

bool iflBitmapHasXMP(const IflBitmap* bitmap);
IflError iflBitmapGetXMP(const IflBitmap* bitmap, IflXmp** handle);
IflError iflBitmapSetXMP(IflBitmap* bitmap, const IflXmp* handle);
void iflFreeXMP(IflXmp* handle);

// Owners for the handles and records above.
struct IflBitmapDeleter {
    void operator()(IflBitmap* bitmap) const { iflFreeBitmap(bitmap); }
};
struct IflIptcDeleter {
    void operator()(IflIptc* handle) const { iflFreeIPTC(handle); }
};
struct IflExifDeleter {
    void operator()(IflExif* handle) const { iflFreeEXIF2(handle); }
};
struct IflXmpDeleter {
    void operator()(IflXmp* handle) const { iflFreeXMP(handle); }
};
struct IflSaveDeleter {
    void operator()(IflSave* save) const { iflFreeSave(save); }
};
using IflBitmapPtr = std::unique_ptr<IflBitmap, IflBitmapDeleter>;
using IflIptcPtr = std::unique_ptr<IflIptc, IflIptcDeleter>;
using IflExifPtr = std::unique_ptr<IflExif, IflExifDeleter>;
using IflXmpPtr = std::unique_ptr<IflXmp, IflXmpDeleter>;
using IflSavePtr = std::unique_ptr<IflSave, IflSaveDeleter>;
