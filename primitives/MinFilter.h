// Minimum filter over a square window, for interleaved float pixels.
//
// Each channel is filtered on its own: the output at (x, y) is the smallest
// value of that channel over the pixels (x + i, y + j), |i|, |j| <= radius,
// that lie inside the plane. The window is clipped at the border rather than
// padded, so the result is exactly the minimum of real pixels and has the
// input's size.
//
// The cost per pixel and channel does not depend on the radius: the filter is
// separable and each one-dimensional pass uses the block prefix/suffix scheme
// of van Herk and Gil-Werman (three comparisons per sample). Minima are exact,
// so the result equals a brute-force scan bit for bit (for values that are
// not NaN).
#pragma once

#include <cstddef>

namespace prim {

struct FloatPlane {
    float* data;
    std::ptrdiff_t stride; // floats per line, at least width x channels
    int width;
    int height;
};

// `channels` is 1 to 4, radius >= 0. `source` and `target` have the same size
// and must not overlap. `threads` splits rows (horizontal pass) and column
// strips (vertical pass) statically; the result does not depend on it.
// Throws std::invalid_argument for sizes that do not fit, std::bad_alloc when
// the scratch lines cannot be allocated.
void minFilter(const FloatPlane& source, const FloatPlane& target, int channels, int radius,
               int threads = 1);

} // namespace prim
