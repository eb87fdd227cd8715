// The table of formats IFL writes: names, encoders and what each one holds.
#include "imagefile/internal/IflFormats.h"
#include "imagefile/Ifl.h"

#include <OpenImageIO/strutil.h>

#include <array>

namespace {

using namespace std::string_view_literals;

constexpr std::array jpegNames{"jpeg"sv, "jpg"sv, "jpe"sv, "jfif"sv};
constexpr std::array pngNames{"png"sv};
constexpr std::array tiffNames{"tiff"sv, "tif"sv};
constexpr std::array hdriNames{"hdri"sv, "hdr"sv, "rgbe"sv};
constexpr std::array exrNames{"exr"sv, "openexr"sv};
constexpr std::array webpNames{"webp"sv};
constexpr std::array bmpNames{"bmp"sv};
constexpr std::array tgaNames{"tga"sv, "targa"sv};

constexpr unsigned allKinds = 31;
// Exiv2 writes a PNG's IPTC, but without the Photoshop resources around it.
constexpr unsigned pngKinds = 15;
// Exiv2 writes no IPTC into WebP, and its profile chunk makes files that
// decoders refuse.
constexpr unsigned webpKinds = 2 | 8;

constexpr unsigned d8 = ifl::depthBit(8), d16 = ifl::depthBit(16), d32 = ifl::depthBit(32);

// Depths are those the file keeps without loss: JPEG, WebP, BMP and Targa hold
// 8 bits, Radiance and EXR hold floats (an unsigned word in a half-float EXR
// would lose precision), PNG holds integers.
constexpr std::array<ifl::FormatInfo, IFL_FORMAT_COUNT> formats{{
    {IFL_FORMAT_JPEG, "jpeg", "jpeg", jpegNames, d8, false, true, true, allKinds},
    {IFL_FORMAT_PNG, "png", "png", pngNames, d8 | d16, true, true, true, pngKinds},
    {IFL_FORMAT_TIFF, "tiff", "tiff", tiffNames, d8 | d16 | d32, true, true, true, allKinds},
    {IFL_FORMAT_HDRI, "hdri", "hdr", hdriNames, d32, false, false, false, 0},
    {IFL_FORMAT_EXR, "exr", "openexr", exrNames, d32, true, true, false, 0},
    {IFL_FORMAT_WEBP, "webp", "webp", webpNames, d8, true, false, true, webpKinds},
    {IFL_FORMAT_BMP, "bmp", "bmp", bmpNames, d8, true, true, false, 0},
    {IFL_FORMAT_TGA, "tga", "targa", tgaNames, d8, true, true, false, 0},
}};

} // namespace

namespace ifl {

const FormatInfo* formatByIndex(std::int32_t index) {
    if (index < 0 || index >= IFL_FORMAT_COUNT) return nullptr;
    return &formats[static_cast<std::size_t>(index)];
}

const FormatInfo* formatByName(std::string_view name) {
    for (const FormatInfo& f : formats)
        for (std::string_view n : f.suffixes)
            if (OIIO::Strutil::iequals(n, name)) return &f;
    return nullptr;
}

const FormatInfo* formatByCodec(std::string_view codec) {
    for (const FormatInfo& f : formats)
        if (f.codec == codec) return &f;
    return nullptr;
}

} // namespace ifl

IflError iflGetFormatIndexByName(const char* name, std::int32_t* index) {
    if (!index) return IFL_ERROR_BAD_PARAMETERS;
    *index = IFL_FORMAT_UNKNOWN;
    if (!name) return IFL_ERROR_BAD_PARAMETERS;
    const ifl::FormatInfo* format = ifl::formatByName(name);
    if (!format) return IFL_ERROR_BAD_FORMAT_INDEX;
    *index = format->index;
    return IFL_OK;
}

bool iflFormatWrites(std::int32_t index, int bitsPerComponent, int components) {
    const ifl::FormatInfo* format = ifl::formatByIndex(index);
    if (!format || !(format->depths & ifl::depthBit(bitsPerComponent))) return false;
    switch (components) {
    case 1:
        return format->grey;
    case 3:
        return true;
    case 4:
        return format->alpha;
    default:
        return false;
    }
}
