#include "primitives/MinFilter.h"

#include <omp.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

namespace prim {
namespace {

// Floats of one column strip of the vertical pass: wide enough that the
// element loops vectorise and each row contributes whole cache lines, narrow
// enough that a strip of a tall image stays in the second-level cache.
constexpr int stripFloats = 64;

inline float smaller(float a, float b) {
    return b < a ? b : a;
}

// One line of n elements, each `ew` floats wide, `inStep` / `outStep` floats
// apart. The line is padded by r elements of +infinity on each side, which
// leaves the minimum of a clipped window unchanged. With k = 2r + 1 and the
// padded line cut into blocks of k, g holds running minima from each block's
// start and h running minima to each block's end; the window starting at padded
// index i spans at most two blocks, so its minimum is min(h[i], g[i + k - 1]).
// `p` and `g` are scratch of (n + 2r) x ew floats; p is reused for h.
void minLine(const float* in, std::ptrdiff_t inStep, float* out, std::ptrdiff_t outStep, int n,
             int ew, int r, float* p, float* g) {
    const int k = 2 * r + 1;
    const int padded = n + 2 * r;
    const float inf = std::numeric_limits<float>::infinity();

    std::fill(p, p + static_cast<std::ptrdiff_t>(r) * ew, inf);
    for (int s = 0; s < n; ++s)
        std::memcpy(p + static_cast<std::ptrdiff_t>(s + r) * ew, in + s * inStep,
                    sizeof(float) * ew);
    std::fill(p + static_cast<std::ptrdiff_t>(n + r) * ew,
              p + static_cast<std::ptrdiff_t>(padded) * ew, inf);

    for (int b0 = 0; b0 < padded; b0 += k) {
        const int b1 = std::min(b0 + k, padded);
        float* gj = g + static_cast<std::ptrdiff_t>(b0) * ew;
        const float* pj = p + static_cast<std::ptrdiff_t>(b0) * ew;
        std::memcpy(gj, pj, sizeof(float) * ew);
        for (int j = b0 + 1; j < b1; ++j) {
            gj += ew;
            pj += ew;
            for (int c = 0; c < ew; ++c)
                gj[c] = smaller(gj[c - ew], pj[c]);
        }
        // Suffix minima in place: p[j] is read before h[j] overwrites it.
        float* hj = p + static_cast<std::ptrdiff_t>(b1 - 1) * ew;
        for (int j = b1 - 2; j >= b0; --j) {
            hj -= ew;
            for (int c = 0; c < ew; ++c)
                hj[c] = smaller(hj[c], hj[c + ew]);
        }
    }

    const float* h = p;
    for (int i = 0; i < n; ++i) {
        const float* hi = h + static_cast<std::ptrdiff_t>(i) * ew;
        const float* gi = g + static_cast<std::ptrdiff_t>(i + k - 1) * ew;
        float* o = out + i * outStep;
        for (int c = 0; c < ew; ++c)
            o[c] = smaller(hi[c], gi[c]);
    }
}

} // namespace

void minFilter(const FloatPlane& source, const FloatPlane& target, int channels, int radius,
               int threads) {
    if (channels < 1 || channels > 4 || radius < 0)
        throw std::invalid_argument("minFilter: channels must be 1 to 4 and radius >= 0");
    if (source.width != target.width || source.height != target.height || source.width < 0 ||
        source.height < 0)
        throw std::invalid_argument("minFilter: source and target differ in size");
    const int width = source.width;
    const int height = source.height;
    if (width == 0 || height == 0) return;
    const std::ptrdiff_t rowFloats = static_cast<std::ptrdiff_t>(width) * channels;
    if (source.stride < rowFloats || target.stride < rowFloats)
        throw std::invalid_argument("minFilter: stride shorter than a row");
    threads = std::max(1, threads);

    // A radius beyond the line length reaches no further pixel; capping it
    // keeps the padded lines (and their index arithmetic) small.
    const int rx = std::min(radius, width - 1);
    const int ry = std::min(radius, height - 1);

    // Horizontal pass, source rows into target rows. Scratch is allocated
    // before the parallel region so that an allocation failure is thrown on
    // the calling thread rather than terminating inside a worker.
    {
        const std::size_t lineFloats = static_cast<std::size_t>(width + 2 * rx) * channels;
        std::vector<float> scratch(2 * lineFloats * threads);
#pragma omp parallel for schedule(static) num_threads(threads)
        for (int y = 0; y < height; ++y) {
            float* p = scratch.data() + 2 * lineFloats * omp_get_thread_num();
            minLine(source.data + y * source.stride, channels, target.data + y * target.stride,
                    channels, width, channels, rx, p, p + lineFloats);
        }
    }

    // Vertical pass in place on the target, by column strips; minLine copies
    // a strip into its padded scratch before writing any output.
    {
        const int strips = static_cast<int>((rowFloats + stripFloats - 1) / stripFloats);
        const std::size_t lineFloats = static_cast<std::size_t>(height + 2 * ry) * stripFloats;
        std::vector<float> scratch(2 * lineFloats * threads);
#pragma omp parallel for schedule(static) num_threads(threads)
        for (int s = 0; s < strips; ++s) {
            float* p = scratch.data() + 2 * lineFloats * omp_get_thread_num();
            const std::ptrdiff_t first = static_cast<std::ptrdiff_t>(s) * stripFloats;
            const int ew =
                static_cast<int>(std::min<std::ptrdiff_t>(stripFloats, rowFloats - first));
            minLine(target.data + first, target.stride, target.data + first, target.stride, height,
                    ew, ry, p, p + lineFloats);
        }
    }
}

} // namespace prim
