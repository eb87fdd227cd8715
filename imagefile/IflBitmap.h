// The bitmap record that IFL exchanges with its callers.
//
// Record and pixels are allocated with the C allocator and released together by
// iflFreeBitmap, which frees the record, its pixel data, its palette and its
// text, and the metadata block that IFL may hang on link0. A caller that lends its own pixels to a
// record sets data to null before handing the record to iflFreeBitmap.
#pragma once

#include <cstddef>
#include <cstdint>

struct IflBitmap {
    std::uint16_t type;               // colour type code: 2 grey, 16 RGB, 32 RGBA
    std::uint16_t origin;             // always 0
    std::int32_t width;               // pixels
    std::int32_t height;              // pixels
    std::int32_t bytesPerLine;        // stride of the pixel array
    std::uint16_t linePadding;        // 4, or 2 for adopted memory with an odd stride
    std::uint16_t bitsPerComponent;   // 8, 16 or 32 (float)
    std::uint16_t componentsPerPixel; // 1, 3 or 4
    std::uint16_t bytesPerPixel;      // (bits / 8) x components
    std::uint16_t xResolution;        // 0
    std::uint16_t yResolution;        // 0
    std::uint16_t transparentIndex;   // 65535: no transparent colour
    std::uint32_t coloursUsed;        // 256 for type codes 2 and 4, else 0
    std::uint8_t* palette;            // null, or 1024 bytes for type code 4
    std::uint8_t* data;               // the pixel array
    void* link0;                      // IFL's metadata block, or null; cleared by ZImage::CopyFrom
    void* link1;                      // cleared by ZImage::CopyFrom
    std::int32_t value0;              // kept by ZImage::CopyFrom
    std::int32_t value1;              // kept by ZImage::CopyFrom
    char* text;                       // null, or a zero-terminated text
};

// Frees the record and everything it points to. Null is accepted.
void iflFreeBitmap(IflBitmap* bitmap);

// C-allocator helpers for records and pixels; the location names the caller
// for diagnostics and is otherwise unused.
void* iflAlloc(std::size_t bytes, const char* location);
void* iflAllocZeroed(std::size_t bytes, const char* location);
