// Elementary steps on interleaved pixel windows of one component type, the
// building blocks of the pixel format copy (ZImage/ZImage_Copy.cpp).
//
// Shared rules:
//   - T is std::uint8_t, std::uint16_t or float; components are R, G, B, A.
//   - Every step takes the window's width and height; a width or height of
//     zero or less does nothing.
//   - Source and target windows must not overlap, except for the steps that
//     say they work in place.
//   - `threads` splits the rows statically; results never depend on it.
#pragma once

#include "primitives/PixelView.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace prim {

// Grey value of a colour. The weights are 0.299, 0.587 and 0.114, taken at
// the depth of the components: as single-precision floats for float and word
// components (a word adds 0.5 and truncates, i.e. rounds half up), and as
// 12-bit fixed point for bytes, whose weights 1225 + 2404 + 467 sum to 4096 so
// that white stays 255.
inline float grayOf(float r, float g, float b) {
    return 0.299f * r + 0.587f * g + 0.114f * b;
}

inline std::uint16_t grayOf(std::uint16_t r, std::uint16_t g, std::uint16_t b) {
    const float sum = 0.299f * static_cast<float>(r) + 0.587f * static_cast<float>(g) +
                      0.114f * static_cast<float>(b);
    return static_cast<std::uint16_t>(static_cast<std::int32_t>(sum + 0.5f));
}

inline std::uint8_t grayOf(std::uint8_t r, std::uint8_t g, std::uint8_t b) {
    return static_cast<std::uint8_t>((1225u * r + 2404u * g + 467u * b + 2048u) >> 12);
}

// Copies `rowBytes` bytes of each of `height` rows.
void copyRows(const void* source, std::ptrdiff_t sourceStride, void* target,
              std::ptrdiff_t targetStride, std::size_t rowBytes, int height, int threads = 1);

// Sets every pixel of the window to `pixel`, which has one value per channel.
template <typename T>
void fillPixels(PixelView<T> target, int width, int height, std::span<const T> pixel,
                int threads = 1);

// RGBA to RGB: the alpha component is left out.
template <typename T>
void dropAlpha(PixelView<const T> rgba, PixelView<T> rgb, int width, int height, int threads = 1);

// RGB into the colour components of an RGBA window; alpha is not touched.
template <typename T>
void placeRgb(PixelView<const T> rgb, PixelView<T> rgba, int width, int height, int threads = 1);

// RGB or RGBA to grey with grayOf; alpha is ignored.
template <typename T>
void colourToGray(PixelView<const T> colour, PixelView<T> gray, int width, int height,
                  int threads = 1);

// Grey into the three colour components of an RGB or RGBA window; alpha is
// not touched.
template <typename T>
void spreadGray(PixelView<const T> gray, PixelView<T> colour, int width, int height,
                int threads = 1);

// Reorders the components of each pixel in place: component i becomes the old
// component order[i]. order has one entry per channel; {2, 1, 0, 3} turns
// R, G, B, A into the B, G, R, A of 32-bit screen images.
template <typename T>
void reorderChannels(PixelView<T> image, int width, int height, std::span<const int> order,
                     int threads = 1);

} // namespace prim
