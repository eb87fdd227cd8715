// The full-size passes of the haze removal, row by row: the joint bilateral
// upsampling of the refined map and the inversion of the haze model.
//
// The working image and its map are first laid out as padded planes (red,
// green, blue, map value, opacity), one padded row per working row, so that
// the neighbours of N consecutive full pixels (16 with AVX-512, 8 with AVX2)
// are one unaligned load per plane and a lane permutation: that many
// consecutive full pixels reach at most as many consecutive working columns
// when the picture is shrunk, which is the case of every photograph larger
// than the working copy. The widest path the processor has is chosen at run
// time. Columns outside the working image are padding marked transparent, so
// the clipping of the 3 x 3 neighbourhood costs no test.
//
// The plain loop (pixel, applyPixel) is the formula itself: the range weight
// of each colour channel read from the table, their product in double rounded
// to float. Looking the table up was what bound the vector path: 27 reads a
// pixel, each a gathered element at about one a cycle, which no table layout
// made cheaper (float tables, scalar loads: all within a few per cent). The
// vector path therefore evaluates the product of the three densities as one
// exponential, 2^(-(i0^2 + i1^2 + i2^2) log2(e) / 20000) times the spatial
// weight and the cube of the density's peak, on the same truncated and
// clamped indices. The table's values are the density rounded to six
// significant digits, so a weight differs from the formula's by at most
// 1.5e-5 of itself; the map value, a weighted mean, moves by that share of
// the spread of its neighbours' values at most (a few 1e-7 on photographs),
// and the tests hold every path to the formula within a bound. Sums stay in
// float in the order rows then columns, and the haze model is applied as in
// applyPixel, so the fused pass gives exactly the map pass followed by the
// apply pass.
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze_p.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

#if defined(__x86_64__) && defined(__GNUC__)
#define HAZE_HAVE_VECTOR_PATH 1
#endif

namespace haze {
namespace {

// Padding left of column 0, and right of the last column: one for the
// neighbourhood, and enough for a sixteen-wide load that starts at any column.
constexpr int padLeft = 1;
constexpr int padRight = 16;

// The widest vector path of this processor, in floats: 16, 8 or 0.
int widestPath() {
#ifdef HAZE_HAVE_VECTOR_PATH
    static const int width = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq")
                                 ? 16
                             : __builtin_cpu_supports("avx2") ? 8
                                                              : 0;
    return width;
#else
    return 0;
#endif
}

} // namespace

RowUpsampler::RowUpsampler(const ZImage& working, const float* map, int fullWidth, int fullHeight,
                           Path path)
    : w(fullWidth), h(fullHeight), sw(working.Width()), sh(working.Height()),
      stride(static_cast<std::size_t>(sw) + padLeft + padRight),
      fx(static_cast<float>(sw) / static_cast<float>(fullWidth)),
      fy(static_cast<float>(sh) / static_cast<float>(fullHeight)), G(rangeTableCentre()),
      vectorWidth(path == Path::Plain  ? 0
                  : path == Path::Avx2 ? std::min(8, widestPath())
                                       : widestPath()) {
    // The density's peak, 1 / (0.1 sqrt(2 pi)), cubed: the vector path's
    // weight is this times the spatial weight times one exponential.
    const double peak = 10.0 / std::sqrt(2.0 * std::numbers::pi);
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy) {
            K[dx + 1][dy + 1] = spatialWeight(dx, dy);
            peakK[dx + 1][dy + 1] = static_cast<float>(spatialWeight(dx, dy) * peak * peak * peak);
        }
    const std::size_t plane = stride * static_cast<std::size_t>(sh);
    planes.assign(5 * plane, 0.0f); // padding: colour 0, transparent
    for (int y = 0; y < sh; ++y) {
        const float* q = reinterpret_cast<const float*>(working.PixelAt(0, y));
        const float* m = map + static_cast<std::size_t>(y) * sw;
        const std::size_t row = static_cast<std::size_t>(y) * stride + padLeft;
        for (int x = 0; x < sw; ++x, q += 4) {
            planes[row + x] = q[0];
            planes[plane + row + x] = q[1];
            planes[2 * plane + row + x] = q[2];
            planes[3 * plane + row + x] = m[x];
            // All bits set for an opaque pixel, the mask of the vector path.
            const std::uint32_t opaque = q[3] == 0.0f ? 0u : ~0u;
            std::memcpy(&planes[4 * plane + row + x], &opaque, sizeof opaque);
        }
    }
}

int RowUpsampler::workingRow(int y) const {
    // The minimum only guards against float rounding for pictures millions
    // of pixels high; below that, y * fy < sh always.
    return std::min(static_cast<int>(static_cast<float>(y) * fy), sh - 1);
}

float RowUpsampler::pixel(const float* p, int x, int ys) const {
    if (p[3] == 0.0f) return 0.0f;
    const int xs = std::min(static_cast<int>(static_cast<float>(x) * fx), sw - 1);
    const std::size_t plane = stride * static_cast<std::size_t>(sh);
    const int dy0 = std::max(-1, -ys);
    const int dy1 = std::min(2, sh - ys);
    float weightSum = 0.0f;
    float valueSum = 0.0f;
    for (int dy = dy0; dy < dy1; ++dy) {
        const std::size_t row = static_cast<std::size_t>(ys + dy) * stride + padLeft;
        for (int dx = -1; dx <= 1; ++dx) {
            const std::size_t at = row + static_cast<std::size_t>(xs + dx);
            std::uint32_t opaque;
            std::memcpy(&opaque, &planes[4 * plane + at], sizeof opaque);
            if (!opaque) continue;
            const int i0 = rangeIndex(p[0] - planes[at]);
            const int i1 = rangeIndex(p[1] - planes[plane + at]);
            const int i2 = rangeIndex(p[2] - planes[2 * plane + at]);
            const float wt = static_cast<float>(G[i0] * K[1 + dx][1 + dy] * G[i1] * G[i2]);
            weightSum += wt;
            valueSum += wt * planes[3 * plane + at];
        }
    }
    return weightSum == 0.0f ? 0.0f : valueSum / weightSum;
}

void applyPixel(float* p, float depth, const float a[3], float strength) {
    if (p[3] == 0.0f) return;
    float t = static_cast<float>(1.0 - depth * strength);
    // A floor on the transmission keeps dense haze from blowing up noise;
    // there is no ceiling, so a negative map brightens.
    if (t < 0.1) t = 0.1f;
    for (int c = 0; c < 3; ++c) {
        float j = (p[c] - a[c]) / t + a[c];
        // Values above 1.0 stay for the conversion to the output format.
        if (j < 0.0f) j = 0.0f;
        p[c] = j;
    }
}

#ifdef HAZE_HAVE_VECTOR_PATH
namespace {

// What the vector kernel reads of the upsampler for one full row.
struct RowGeometry {
    const float* planes; // at column 0 of working row 0
    std::size_t stride;  // of a padded working row
    std::size_t plane;   // floats in one plane
    int w, sw, sh, ys;
    float fx;
    const float (*peakK)[3];
};

} // namespace

// The kernel once per instruction set, each compiled for its own. GCC's
// vector types are passed between its inlined functions only, so its notes
// on their calling convention (given at the end of the file) do not apply.
#pragma GCC diagnostic ignored "-Wpsabi"
#pragma GCC push_options
#pragma GCC target("avx2,fma")
namespace avx2 {
constexpr int N = 8;
#include "ZImage/ZImageHaze_UpsampleKernel.inc"
} // namespace avx2
#pragma GCC pop_options
#pragma GCC push_options
#pragma GCC target("avx2,fma,avx512f,avx512dq")
// GCC 12's AVX-512 headers leave the pass-through operand of the unmasked
// forms undefined on purpose, and then warn about it.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
namespace avx512 {
constexpr int N = 16;
#include "ZImage/ZImageHaze_UpsampleKernel.inc"
} // namespace avx512
#pragma GCC pop_options
#endif

template <bool Apply>
void RowUpsampler::plain(float* p, int ys, float* depth, const float a[3], float strength, int x0,
                         int x1) const {
    for (int x = x0; x < x1; ++x, p += 4) {
        const float d = pixel(p, x, ys);
        if constexpr (Apply)
            applyPixel(p, d, a, strength);
        else
            depth[x] = d;
    }
}

template <bool Apply>
void RowUpsampler::row(float* p, int y, float* depth, const float a[3], float strength) const {
    const int ys = workingRow(y);
    int x = 0;
#ifdef HAZE_HAVE_VECTOR_PATH
    if (vectorWidth > 0) {
        const RowGeometry geometry{planes.data() + padLeft,
                                   stride,
                                   stride * static_cast<std::size_t>(sh),
                                   w,
                                   sw,
                                   sh,
                                   ys,
                                   fx,
                                   peakK};
        while (x < w) {
            if (vectorWidth == 16) x = avx512::blocks<Apply>(geometry, p, depth, a, strength, x);
            x = avx2::blocks<Apply>(geometry, p, depth, a, strength, x);
            // What neither kernel took: an enlarged stretch, or the row's end.
            const int end = std::min(w, x + vectorWidth);
            plain<Apply>(p + 4 * static_cast<std::size_t>(x), ys, depth, a, strength, x, end);
            x = end;
        }
        return;
    }
#endif
    plain<Apply>(p, ys, depth, a, strength, x, w);
}

void RowUpsampler::depthRow(const float* pixels, int y, float* depth) const {
    // Read only: nothing is applied.
    row<false>(const_cast<float*>(pixels), y, depth, nullptr, 0.0f);
}

void RowUpsampler::dehazeRow(float* pixels, int y, const float airlight[3], float strength) const {
    row<true>(pixels, y, nullptr, airlight, strength);
}

} // namespace haze
