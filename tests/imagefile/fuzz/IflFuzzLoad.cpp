#include "IflFuzzLoad.h"

#include "imagefile/Ifl.h"

#include <OpenImageIO/imageio.h>

#include <mutex>

namespace iflfuzz {

int loadInput(const std::uint8_t* data, std::size_t size) {
    static std::once_flag once;
    std::call_once(once, [] {
        // One thread, so that a find reproduces; no codec pools left running.
        OIIO::attribute("threads", 1);
        OIIO::attribute("exr_threads", 1);
    });
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    params.flags |= IFL_LOAD_HEADER_ONLY;
    IflBitmap* header = nullptr;
    IflFileInformation info;
    const IflError headerCode = iflLoadBitmapFromMemory(data, size, &header, params, &info);
    const IflBitmapPtr ownedHeader(header);
    if (headerCode != IFL_OK) return headerCode;
    // Pictures the pipeline could take but that would only measure the
    // allocator are left at their header.
    if (std::int64_t{header->width} * header->height > (std::int64_t{1} << 22)) return IFL_OK;

    params.flags = IFL_LOAD_METADATA;
    IflBitmap* bitmap = nullptr;
    const IflError code = iflLoadBitmapFromMemory(data, size, &bitmap, params, &info);
    const IflBitmapPtr owned(bitmap);
    if (code != IFL_OK) return code;
    // Touch every byte a caller may read, so that a short buffer shows.
    unsigned sum = 0;
    const std::size_t line = std::size_t{bitmap->bytesPerPixel} * bitmap->width;
    for (int y = 0; y < bitmap->height; ++y)
        for (std::size_t x = 0; x < line; ++x)
            sum += bitmap->data[static_cast<std::size_t>(y) * bitmap->bytesPerLine + x];
    for (const std::uint8_t byte : iflBitmapICCProfile(bitmap))
        sum += byte;
    return sum == 0xFFFFFFFFu ? IFL_ERROR_BAD_BITMAP : IFL_OK;
}

} // namespace iflfuzz
