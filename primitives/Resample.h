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
#include <functional>

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

// Float rows of a source that is not held as floats: writes rows first to
// first + count - 1, `channels` floats a pixel, into `rows` (`stride` bytes
// apart); false if it could not (the target row is then left as it was).
// Called from every thread at once, for overlapping ranges.
using FloatRowSource =
    std::function<bool(int first, int count, float* rows, std::ptrdiff_t stride)>;

// resample<float> of the rows that `source` gives, with the same results as
// on the whole float image: each target row converts the rows it reads (a
// row shared by two target rows is converted twice), and no more than that
// is ever held.
void resampleConverted(const FloatRowSource& source, int sourceWidth, int sourceHeight,
                       const PixelPlane& target, int channels, double xFactor, double yFactor,
                       double xShift, double yShift, Resampling mode, int threads = 1);

} // namespace prim
