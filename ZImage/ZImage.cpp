#include "ZImage/ZImage.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr std::size_t kPaletteBytes = 1024;

// Pixel bytes of a record; 64-bit so that large pictures cannot wrap.
std::size_t pixelBytes(const IflBitmap& b) {
    return static_cast<std::size_t>(b.bytesPerLine) * static_cast<std::size_t>(b.height);
}

} // namespace

ZImage::ZImage(int width, int height, int typeCode, int bits, bool clear, void* externalData,
               int externalStride) {
    Create(width, height, typeCode, bits, clear, externalData, externalStride);
}

ZImage::~ZImage() {
    Release();
}

ZImage::ZImage(ZImage&& other) noexcept
    : bitmap(std::exchange(other.bitmap, nullptr)), ownsData(std::exchange(other.ownsData, 1)) {}

ZImage& ZImage::operator=(ZImage&& other) noexcept {
    if (this != &other) {
        Release();
        bitmap = std::exchange(other.bitmap, nullptr);
        ownsData = std::exchange(other.ownsData, 1);
    }
    return *this;
}

int ZImage::ComponentsOfType(int typeCode) {
    if (typeCode & 0x7) return 1;
    if (typeCode & 0x1050) return 3;
    if (typeCode & 0x27A0) return 4;
    return 0;
}

void ZImage::Release() {
    if (!bitmap) return;
    if (!ownsData) bitmap->data = nullptr;
    iflFreeBitmap(bitmap);
    bitmap = nullptr;
}

void ZImage::Free() {
    Release();
}

void ZImage::Create(int width, int height, int typeCode, int bits, bool clear, void* externalData,
                    int externalStride) {
    if (bitmap && !externalData && bitmap->width == width && bitmap->height == height &&
        bitmap->type == typeCode && bitmap->bitsPerComponent == bits) {
        if (clear && bitmap->data) std::memset(bitmap->data, 0, pixelBytes(*bitmap));
        return;
    }
    Release();

    const int components = ComponentsOfType(typeCode);
    Z_CHECK(components != 0, Z_INVALID_PARAMETER);
    Z_CHECK(width >= 0 && height >= 0 && bits > 0 && bits <= 32, Z_INVALID_PARAMETER);
    const int bytesPerPixel = (bits >> 3) * components;

    bitmap = static_cast<IflBitmap*>(iflAllocZeroed(sizeof(IflBitmap), "ZImage::Create"));
    Z_CHECK(bitmap, Z_NOT_ENOUGH_MEMORY);

    std::int64_t stride = 0;
    if (externalData) {
        bitmap->linePadding = (externalStride % 4 != 0) ? 2 : 4;
        bitmap->data = static_cast<std::uint8_t*>(externalData);
        stride = externalStride;
        ownsData = 0;
    } else {
        stride = (static_cast<std::int64_t>(bytesPerPixel) * width + 3) / 4 * 4;
        // A stride beyond 32 bits or a buffer beyond the address space cannot
        // be allocated, whatever the machine.
        Z_CHECK(stride <= std::numeric_limits<std::int32_t>::max() &&
                    static_cast<std::uint64_t>(stride) * static_cast<std::uint64_t>(height) <
                        static_cast<std::uint64_t>(std::numeric_limits<std::ptrdiff_t>::max()),
                Z_NOT_ENOUGH_MEMORY);
        const std::size_t bytes =
            static_cast<std::size_t>(stride) * static_cast<std::size_t>(height);
        bitmap->data = static_cast<std::uint8_t*>(iflAlloc(bytes, "ZImage::Create"));
        Z_CHECK(bitmap->data, Z_NOT_ENOUGH_MEMORY);
        bitmap->linePadding = 4;
        ownsData = 1;
    }

    bitmap->type = static_cast<std::uint16_t>(typeCode);
    bitmap->origin = 0;
    bitmap->width = width;
    bitmap->height = height;
    bitmap->bytesPerLine = static_cast<std::int32_t>(stride);
    bitmap->bitsPerComponent = static_cast<std::uint16_t>(bits);
    bitmap->componentsPerPixel = static_cast<std::uint16_t>(components);
    bitmap->bytesPerPixel = static_cast<std::uint16_t>(bytesPerPixel);
    bitmap->xResolution = 0;
    bitmap->yResolution = 0;
    bitmap->transparentIndex = 65535;
    bitmap->coloursUsed = (typeCode == 2 || typeCode == 4) ? 256 : 0;
    if (typeCode == 4)
        bitmap->palette =
            static_cast<std::uint8_t*>(iflAllocZeroed(kPaletteBytes, "ZImage::Create"));

    if (clear) std::memset(bitmap->data, 0, pixelBytes(*bitmap));
}

void ZImage::CopyFrom(const ZImage& other) {
    if (&other == this) return;
    Release();
    if (!other.bitmap) return;
    const IflBitmap& src = *other.bitmap;

    bitmap = static_cast<IflBitmap*>(iflAllocZeroed(sizeof(IflBitmap), "ZImage::CopyFrom"));
    Z_CHECK(bitmap, Z_NOT_ENOUGH_MEMORY);
    *bitmap = src;
    bitmap->data = nullptr;
    bitmap->palette = nullptr;
    bitmap->text = nullptr;
    bitmap->link0 = nullptr;
    bitmap->link1 = nullptr;
    ownsData = 1;

    const std::size_t bytes = pixelBytes(src);
    bitmap->data = static_cast<std::uint8_t*>(iflAlloc(bytes, "ZImage::CopyFrom"));
    Z_CHECK(bitmap->data, Z_NOT_ENOUGH_MEMORY);
    if (src.data) std::memcpy(bitmap->data, src.data, bytes);

    if (src.palette) {
        bitmap->palette = static_cast<std::uint8_t*>(iflAlloc(kPaletteBytes, "ZImage::CopyFrom"));
        Z_CHECK(bitmap->palette, Z_NOT_ENOUGH_MEMORY);
        std::memcpy(bitmap->palette, src.palette, kPaletteBytes);
    }
    if (src.text) {
        const std::size_t length = std::strlen(src.text) + 1;
        bitmap->text = static_cast<char*>(iflAlloc(length, "ZImage::CopyFrom"));
        Z_CHECK(bitmap->text, Z_NOT_ENOUGH_MEMORY);
        std::memcpy(bitmap->text, src.text, length);
    }
}
