// ZImage::ResizeTo: resampled copy, nine variants (1, 3, 4 channels by
// 8, 16, 32 bits) of one template in primitives/Resample.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "primitives/Resample.h"

#include <cstdint>
#include <exception>
#include <mutex>

namespace {

template <typename T>
void resampleAs(const IflBitmap& src, IflBitmap& dst, int channels, double xFactor, double yFactor,
                double xShift, double yShift, prim::Resampling mode) {
    const prim::PixelPlane source{src.data, src.bytesPerLine, src.width, src.height};
    const prim::PixelPlane target{dst.data, dst.bytesPerLine, dst.width, dst.height};
    prim::resample<T>(source, target, channels, xFactor, yFactor, xShift, yShift, mode,
                      threadCount);
}

} // namespace

void ZImage::ResizeTo(ZImage& target, int newWidth, int newHeight, int interpolation,
                      double xFactor, double yFactor, double xShift, double yShift) const {
    Z_CHECK(bitmap, QString());
    if (newWidth == bitmap->width && newHeight == bitmap->height) {
        target.CopyFrom(*this);
        return;
    }
    target.Create(newWidth, newHeight, bitmap->type, bitmap->bitsPerComponent, true, nullptr, 0);

    if (xFactor == 0.0) xFactor = static_cast<double>(newWidth) / bitmap->width;
    if (yFactor == 0.0) yFactor = static_cast<double>(newHeight) / bitmap->height;
    const double shiftX = -xShift * xFactor;
    const double shiftY = -yShift * yFactor;
    if (interpolation == 0)
        interpolation = (xFactor <= 1.0 && yFactor <= 1.0) ? Supersample : Bilinear;
    const prim::Resampling mode =
        interpolation == Supersample ? prim::Resampling::Supersample : prim::Resampling::Bilinear;

    int channels = 0;
    switch (bitmap->type) {
    case Gray:
        channels = 1;
        break;
    case RGB:
        channels = 3;
        break;
    case RGBA:
        channels = 4;
        break;
    default:
        return; // other classes: the target stays black
    }
    IflBitmap& dst = *target.bitmap;
    switch (bitmap->bitsPerComponent) {
    case 8:
        resampleAs<std::uint8_t>(*bitmap, dst, channels, xFactor, yFactor, shiftX, shiftY, mode);
        break;
    case 16:
        resampleAs<std::uint16_t>(*bitmap, dst, channels, xFactor, yFactor, shiftX, shiftY, mode);
        break;
    case 32:
        resampleAs<float>(*bitmap, dst, channels, xFactor, yFactor, shiftX, shiftY, mode);
        break;
    default:
        break;
    }
}

void ZImage::ResizeAsFloatTo(ZImage& target, int newWidth, int newHeight) const {
    Z_CHECK(bitmap, Z_INVALID_BITMAP);
    const int w = bitmap->width;
    const int h = bitmap->height;
    if (newWidth == w && newHeight == h) {
        CopyTo(target, RGBA, 32);
        return;
    }
    Z_CHECK(ComponentsOfType(bitmap->type) > 0, Z_INVALID_BITMAP);
    target.Create(newWidth, newHeight, RGBA, 32, true, nullptr, 0);
    // The factors, shifts and mode of ResizeTo with interpolation 0.
    const double xFactor = static_cast<double>(newWidth) / w;
    const double yFactor = static_cast<double>(newHeight) / h;
    const prim::Resampling mode = (xFactor <= 1.0 && yFactor <= 1.0) ? prim::Resampling::Supersample
                                                                     : prim::Resampling::Bilinear;
    // A conversion that fails (no memory for its scratch rows) stops nothing
    // inside the parallel region; the first failure is thrown after it.
    std::exception_ptr failure;
    std::mutex failureLock;
    // 8-bit colour, a photograph's usual form, is converted row by row
    // straight into the rows the resampling reads.
    const bool bytes = IsByteColour();
    const prim::FloatRowSource rows = [&](int first, int count, float* out, std::ptrdiff_t stride) {
        if (bytes) {
            ByteRowsToFloat(first, count, out, stride);
            return true;
        }
        try {
            ZImage band(w, count, RGBA, 32, false, out, static_cast<int>(stride));
            Copy(0, first, w, count, band, 0, 0);
            return true;
        } catch (...) {
            const std::lock_guard<std::mutex> lock(failureLock);
            if (!failure) failure = std::current_exception();
            return false;
        }
    };
    IflBitmap& dst = *target.bitmap;
    const prim::PixelPlane plane{dst.data, dst.bytesPerLine, dst.width, dst.height};
    prim::resampleConverted(rows, w, h, plane, 4, xFactor, yFactor, 0.0, 0.0, mode, threadCount);
    if (failure) std::rethrow_exception(failure);
}
