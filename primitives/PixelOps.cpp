#include "primitives/PixelOps.h"

#include "primitives/internal/RowLoop.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace prim {
namespace {

// The pixel loops below take the channel count as a template argument so that
// the inner loop has a fixed shape the compiler can unroll and vectorise; this
// picks the instance once per call, outside every pixel loop.
template <typename Body>
void withChannels(int channels, Body&& body) {
    switch (channels) {
    case 1:
        body(std::integral_constant<int, 1>{});
        break;
    case 3:
        body(std::integral_constant<int, 3>{});
        break;
    case 4:
        body(std::integral_constant<int, 4>{});
        break;
    default:
        break;
    }
}

} // namespace

void copyRows(const void* source, std::ptrdiff_t sourceStride, void* target,
              std::ptrdiff_t targetStride, std::size_t rowBytes, int height, int threads) {
    if (rowBytes == 0 || height <= 0) return;
    const auto* in = static_cast<const std::uint8_t*>(source);
    auto* out = static_cast<std::uint8_t*>(target);
    detail::forEachRow(height, static_cast<std::int64_t>(rowBytes), threads, [&](int y) {
        // memmove: copying a rectangle onto itself is harmless.
        std::memmove(out + y * targetStride, in + y * sourceStride, rowBytes);
    });
}

template <typename T>
void fillPixels(PixelView<T> target, int width, int height, std::span<const T> pixel, int threads) {
    if (width <= 0 || height <= 0 || pixel.size() != static_cast<std::size_t>(target.channels))
        return;
    withChannels(target.channels, [&](auto channels) {
        constexpr int C = decltype(channels)::value;
        std::array<T, C> value;
        std::copy_n(pixel.begin(), C, value.begin());
        detail::forEachRow(height, std::int64_t{width} * C, threads, [&](int y) {
            T* out = target.row(y);
            for (int x = 0; x < width; ++x)
                for (int c = 0; c < C; ++c)
                    out[x * C + c] = value[c];
        });
    });
}

template <typename T>
void dropAlpha(PixelView<const T> rgba, PixelView<T> rgb, int width, int height, int threads) {
    if (width <= 0 || height <= 0) return;
    detail::forEachRow(height, std::int64_t{width} * 4, threads, [&](int y) {
        const T* __restrict in = rgba.row(y);
        T* __restrict out = rgb.row(y);
        // Each pixel is moved whole, one load and one store, and its alpha is
        // overwritten by the next pixel's red; only the last pixel of the row
        // goes component by component, so nothing past the row is written.
        for (int x = 0; x + 1 < width; ++x)
            std::memcpy(out + 3 * x, in + 4 * x, 4 * sizeof(T));
        for (int c = 0; c < 3; ++c)
            out[3 * (width - 1) + c] = in[4 * (width - 1) + c];
    });
}

template <typename T>
void placeRgb(PixelView<const T> rgb, PixelView<T> rgba, int width, int height, int threads) {
    if (width <= 0 || height <= 0) return;
    detail::forEachRow(height, std::int64_t{width} * 4, threads, [&](int y) {
        const T* __restrict in = rgb.row(y);
        T* __restrict out = rgba.row(y);
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c)
                out[x * 4 + c] = in[x * 3 + c];
    });
}

template <typename T>
void colourToGray(PixelView<const T> colour, PixelView<T> gray, int width, int height,
                  int threads) {
    if (width <= 0 || height <= 0 || colour.channels < 3) return;
    withChannels(colour.channels, [&](auto channels) {
        constexpr int C = decltype(channels)::value;
        if constexpr (C >= 3) {
            detail::forEachRow(height, std::int64_t{width} * C, threads, [&](int y) {
                const T* __restrict in = colour.row(y);
                T* __restrict out = gray.row(y);
                for (int x = 0; x < width; ++x)
                    out[x] = grayOf(in[x * C], in[x * C + 1], in[x * C + 2]);
            });
        }
    });
}

template <typename T>
void spreadGray(PixelView<const T> gray, PixelView<T> colour, int width, int height, int threads) {
    if (width <= 0 || height <= 0 || colour.channels < 3) return;
    withChannels(colour.channels, [&](auto channels) {
        constexpr int C = decltype(channels)::value;
        if constexpr (C >= 3) {
            detail::forEachRow(height, std::int64_t{width} * C, threads, [&](int y) {
                const T* __restrict in = gray.row(y);
                T* __restrict out = colour.row(y);
                for (int x = 0; x < width; ++x) {
                    const T value = in[x];
                    out[x * C] = value;
                    out[x * C + 1] = value;
                    out[x * C + 2] = value;
                }
            });
        }
    });
}

template <typename T>
void reorderChannels(PixelView<T> image, int width, int height, std::span<const int> order,
                     int threads) {
    if (width <= 0 || height <= 0 || order.size() != static_cast<std::size_t>(image.channels))
        return;
    for (const int from : order)
        if (from < 0 || from >= image.channels) return;
    withChannels(image.channels, [&](auto channels) {
        constexpr int C = decltype(channels)::value;
        std::array<int, C> from;
        std::copy_n(order.begin(), C, from.begin());
        detail::forEachRow(height, std::int64_t{width} * C, threads, [&](int y) {
            T* pixel = image.row(y);
            for (int x = 0; x < width; ++x, pixel += C) {
                std::array<T, C> old;
                std::copy_n(pixel, C, old.begin());
                for (int c = 0; c < C; ++c)
                    pixel[c] = old[from[c]];
            }
        });
    });
}

#define PRIM_PIXEL_OPS(T)                                                                          \
    template void fillPixels<T>(PixelView<T>, int, int, std::span<const T>, int);                  \
    template void dropAlpha<T>(PixelView<const T>, PixelView<T>, int, int, int);                   \
    template void placeRgb<T>(PixelView<const T>, PixelView<T>, int, int, int);                    \
    template void colourToGray<T>(PixelView<const T>, PixelView<T>, int, int, int);                \
    template void spreadGray<T>(PixelView<const T>, PixelView<T>, int, int, int);                  \
    template void reorderChannels<T>(PixelView<T>, int, int, std::span<const int>, int);

PRIM_PIXEL_OPS(std::uint8_t)
PRIM_PIXEL_OPS(std::uint16_t)
PRIM_PIXEL_OPS(float)

#undef PRIM_PIXEL_OPS

} // namespace prim
