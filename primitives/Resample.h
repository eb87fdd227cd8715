// Two-dimensional resampling of interleaved pixel arrays.
//
// The geometry is that of square pixels: a source pixel covers [x, x + 1) and
// maps to the target by  x_target = factor * x_source + shift. Supersampling
// weights every source pixel by the area it shares with the target pixel
// (a box filter, which conserves the mean); bilinear interpolates between the
// four source pixels round the centre of the target pixel, repeating the edge.
// All channels are treated alike, alpha included. Integer results are rounded
// to nearest and saturated.
#pragma once

#include <cstddef>
#include <cstdint>

namespace prim {

enum class Resampling { Bilinear, Supersample };

struct PixelPlane {
    std::uint8_t* data;
    std::ptrdiff_t stride; // bytes per line
    int width;
    int height;
};

// T is std::uint8_t, std::uint16_t or float; channels is 1 to 4. `threads`
// splits the target rows statically; the result does not depend on it.
template <typename T>
void resample(const PixelPlane& source, const PixelPlane& target, int channels, double xFactor,
              double yFactor, double xShift, double yShift, Resampling mode, int threads = 1);

} // namespace prim
