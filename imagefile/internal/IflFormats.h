// The formats IFL writes, and what each of them holds.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace ifl {

struct FormatInfo {
    std::int32_t index;
    std::string_view name;                      // IFL's name, as callers pass it
    std::string_view codec;                     // the encoder's name in OpenImageIO
    std::span<const std::string_view> suffixes; // other names that mean this format
    unsigned depths;                            // bit 0: 8, bit 1: 16, bit 2: 32 (float)
    bool alpha;                                 // holds a fourth component
    bool grey;                                  // holds a single component
    bool exiv2;                                 // Exiv2 writes its metadata
    unsigned metadataKinds;                     // what Exiv2 writes there (ifl::MetadataKind bits)
};

// The entry of a format index, or null.
const FormatInfo* formatByIndex(std::int32_t index);
// The entry of a name or suffix in any case, or null.
const FormatInfo* formatByName(std::string_view name);
// The entry of an OpenImageIO codec name, or null.
const FormatInfo* formatByCodec(std::string_view codec);

constexpr unsigned depthBit(int bits) {
    return bits == 8 ? 1u : bits == 16 ? 2u : bits == 32 ? 4u : 0u;
}

} // namespace ifl
