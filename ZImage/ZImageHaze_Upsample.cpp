// The full-size passes of the haze removal, row by row: the joint bilateral
// upsampling of the refined map and the inversion of the haze model.
//
// The working image and its map are first laid out as padded planes (red,
// green, blue, map value, opacity), one padded row per working row, so that
// the neighbours of sixteen (AVX-512) or eight (AVX2) consecutive full
// pixels are one unaligned load per plane and a lane permutation: that many
// consecutive full pixels reach at most as many consecutive working columns
// when the picture is shrunk, which is the case of every photograph larger
// than the working copy. The widest path the processor has is chosen at run
// time. Columns outside the
// working image are padding marked transparent, so the clipping of the 3 x 3
// neighbourhood costs no test.
//
// The vector path does per lane exactly the operations of the scalar one, in
// the same order: the weight is the product of the double table values,
// rounded to float, and the sums are float additions in the order rows then
// columns (no fused multiply-add: the code is built without FMA). Results are
// therefore the same bit for bit on either path, and the tests compare both
// with the formulas written out pixel by pixel.
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze_p.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define HAZE_HAVE_AVX2_PATH 1
#endif

namespace haze {
namespace {

// Padding left of column 0, and right of the last column: one for the
// neighbourhood, and enough for an eight-wide load that starts at any column.
constexpr int padLeft = 1;
constexpr int padRight = 16;

// The widest vector path of this processor, in floats: 16, 8 or 0.
int widestPath() {
#ifdef HAZE_HAVE_AVX2_PATH
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
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy)
            K[dx + 1][dy + 1] = spatialWeight(dx, dy);
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

#ifdef HAZE_HAVE_AVX2_PATH
namespace {

// Eight RGBA pixels to four planes. The lanes hold the pixels in the order
// 0 2 4 6 1 3 5 7, which the inverse below undoes.
__attribute__((target("avx2"))) inline void deinterleave(const float* p, __m256& r, __m256& g,
                                                         __m256& b, __m256& a) {
    const __m256 v0 = _mm256_loadu_ps(p);
    const __m256 v1 = _mm256_loadu_ps(p + 8);
    const __m256 v2 = _mm256_loadu_ps(p + 16);
    const __m256 v3 = _mm256_loadu_ps(p + 24);
    const __m256 t0 = _mm256_unpacklo_ps(v0, v1);
    const __m256 t1 = _mm256_unpackhi_ps(v0, v1);
    const __m256 t2 = _mm256_unpacklo_ps(v2, v3);
    const __m256 t3 = _mm256_unpackhi_ps(v2, v3);
    r = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
    g = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
    b = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
    a = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
}

__attribute__((target("avx2"))) inline void interleave(float* p, __m256 r, __m256 g, __m256 b,
                                                       __m256 a) {
    const __m256 u0 = _mm256_unpacklo_ps(r, g);
    const __m256 u1 = _mm256_unpacklo_ps(b, a);
    const __m256 u2 = _mm256_unpackhi_ps(r, g);
    const __m256 u3 = _mm256_unpackhi_ps(b, a);
    _mm256_storeu_ps(p, _mm256_shuffle_ps(u0, u1, _MM_SHUFFLE(1, 0, 1, 0)));
    _mm256_storeu_ps(p + 8, _mm256_shuffle_ps(u0, u1, _MM_SHUFFLE(3, 2, 3, 2)));
    _mm256_storeu_ps(p + 16, _mm256_shuffle_ps(u2, u3, _MM_SHUFFLE(1, 0, 1, 0)));
    _mm256_storeu_ps(p + 24, _mm256_shuffle_ps(u2, u3, _MM_SHUFFLE(3, 2, 3, 2)));
}

// rangeIndex on eight lanes: the same clamp (a NaN takes the top end, as
// minps returns its second operand on an unordered pair) and truncation.
__attribute__((target("avx2"))) inline __m256i rangeIndex8(__m256 difference) {
    const __m256 v = _mm256_mul_ps(_mm256_set1_ps(1000.0f), difference);
    const __m256 top = _mm256_min_ps(v, _mm256_set1_ps(2000.0f));
    return _mm256_cvttps_epi32(_mm256_max_ps(top, _mm256_set1_ps(-2000.0f)));
}

// Four table values. The masked form, with every lane enabled, because the
// plain one leaves GCC 12 warning about its undefined pass-through operand.
__attribute__((target("avx2"))) inline __m256d gather4(const double* G, __m128i index) {
    const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
    return _mm256_mask_i32gather_pd(_mm256_setzero_pd(), G, index, all, 8);
}

// float(G[i0] * k * G[i1] * G[i2]) on eight lanes, in double as the scalar form.
__attribute__((target("avx2"))) inline __m256 weight8(const double* G, __m256i i0, __m256i i1,
                                                      __m256i i2, __m256d k) {
    const __m256d lo =
        _mm256_mul_pd(_mm256_mul_pd(_mm256_mul_pd(gather4(G, _mm256_castsi256_si128(i0)), k),
                                    gather4(G, _mm256_castsi256_si128(i1))),
                      gather4(G, _mm256_castsi256_si128(i2)));
    const __m256d hi =
        _mm256_mul_pd(_mm256_mul_pd(_mm256_mul_pd(gather4(G, _mm256_extracti128_si256(i0, 1)), k),
                                    gather4(G, _mm256_extracti128_si256(i1, 1))),
                      gather4(G, _mm256_extracti128_si256(i2, 1)));
    return _mm256_set_m128(_mm256_cvtpd_ps(hi), _mm256_cvtpd_ps(lo));
}

} // namespace

template <bool Apply>
__attribute__((target("avx2"))) void RowUpsampler::rowVector(float* p, int y, float* depth,
                                                             const float a[3], float strength,
                                                             int x0) const {
    const int ys = workingRow(y);
    const int dy0 = std::max(-1, -ys);
    const int dy1 = std::min(2, sh - ys);
    const std::size_t plane = stride * static_cast<std::size_t>(sh);
    // Lane l holds pixel order[l] of the block (see deinterleave).
    const __m256i order = _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7);
    const __m256i unorder = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    const __m256 fxv = _mm256_set1_ps(fx);
    const __m256i lastColumn = _mm256_set1_epi32(sw - 1);
    const __m256 zero = _mm256_setzero_ps();
    int x = x0;
    for (; x + 8 <= w; x += 8, p += 32) {
        const int first = std::min(static_cast<int>(static_cast<float>(x) * fx), sw - 1);
        const int last = std::min(static_cast<int>(static_cast<float>(x + 7) * fx), sw - 1);
        if (last - first > 7) { // enlarging: more than eight working columns
            for (int i = 0; i < 8; ++i) {
                const float d = pixel(p + 4 * i, x + i, ys);
                if constexpr (Apply)
                    applyPixel(p + 4 * i, d, a, strength);
                else
                    depth[x + i] = d;
            }
            continue;
        }
        const __m256i xv = _mm256_add_epi32(_mm256_set1_epi32(x), order);
        const __m256i xs = _mm256_min_epi32(
            _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(xv), fxv)), lastColumn);
        const __m256i lane = _mm256_sub_epi32(xs, _mm256_set1_epi32(first));
        __m256 r, g, b, alpha;
        deinterleave(p, r, g, b, alpha);
        __m256 weightSum = zero;
        __m256 valueSum = zero;
        for (int dy = dy0; dy < dy1; ++dy) {
            const float* row =
                planes.data() + static_cast<std::size_t>(ys + dy) * stride + padLeft + first;
            for (int dx = -1; dx <= 1; ++dx) {
                const float* at = row + dx;
                const __m256 opaque =
                    _mm256_permutevar8x32_ps(_mm256_loadu_ps(at + 4 * plane), lane);
                if (_mm256_testz_si256(_mm256_castps_si256(opaque), _mm256_castps_si256(opaque)))
                    continue; // no lane has this neighbour
                const __m256 qr = _mm256_permutevar8x32_ps(_mm256_loadu_ps(at), lane);
                const __m256 qg = _mm256_permutevar8x32_ps(_mm256_loadu_ps(at + plane), lane);
                const __m256 qb = _mm256_permutevar8x32_ps(_mm256_loadu_ps(at + 2 * plane), lane);
                const __m256 qv = _mm256_permutevar8x32_ps(_mm256_loadu_ps(at + 3 * plane), lane);
                const __m256 wt =
                    weight8(G, rangeIndex8(_mm256_sub_ps(r, qr)), rangeIndex8(_mm256_sub_ps(g, qg)),
                            rangeIndex8(_mm256_sub_ps(b, qb)), _mm256_set1_pd(K[1 + dx][1 + dy]));
                weightSum = _mm256_blendv_ps(weightSum, _mm256_add_ps(weightSum, wt), opaque);
                valueSum = _mm256_blendv_ps(valueSum,
                                            _mm256_add_ps(valueSum, _mm256_mul_ps(wt, qv)), opaque);
            }
        }
        // No weight, or a transparent full pixel: 0.
        __m256 d = _mm256_div_ps(valueSum, weightSum);
        d = _mm256_blendv_ps(d, zero, _mm256_cmp_ps(weightSum, zero, _CMP_EQ_OQ));
        const __m256 transparent = _mm256_cmp_ps(alpha, zero, _CMP_EQ_OQ);
        d = _mm256_blendv_ps(d, zero, transparent);
        if constexpr (Apply) {
            // t = float(1.0 - float(d * s)), the difference in double.
            const __m256 ds = _mm256_mul_ps(d, _mm256_set1_ps(strength));
            const __m256d one = _mm256_set1_pd(1.0);
            const __m256 t0 = _mm256_set_m128(
                _mm256_cvtpd_ps(_mm256_sub_pd(one, _mm256_cvtps_pd(_mm256_extractf128_ps(ds, 1)))),
                _mm256_cvtpd_ps(_mm256_sub_pd(one, _mm256_cvtps_pd(_mm256_castps256_ps128(ds)))));
            // t < 0.1 in double holds for exactly the floats below 0.1f.
            const __m256 floor = _mm256_set1_ps(0.1f);
            const __m256 t = _mm256_blendv_ps(t0, floor, _mm256_cmp_ps(t0, floor, _CMP_LT_OQ));
            __m256 out[3] = {r, g, b};
            for (int c = 0; c < 3; ++c) {
                const __m256 ac = _mm256_set1_ps(a[c]);
                const __m256 j = _mm256_add_ps(_mm256_div_ps(_mm256_sub_ps(out[c], ac), t), ac);
                const __m256 clamped =
                    _mm256_blendv_ps(j, zero, _mm256_cmp_ps(j, zero, _CMP_LT_OQ));
                out[c] = _mm256_blendv_ps(clamped, out[c], transparent);
            }
            interleave(p, out[0], out[1], out[2], alpha);
        } else {
            _mm256_storeu_ps(depth + x, _mm256_permutevar8x32_ps(d, unorder));
        }
    }
    for (; x < w; ++x, p += 4) {
        const float d = pixel(p, x, ys);
        if constexpr (Apply)
            applyPixel(p, d, a, strength);
        else
            depth[x] = d;
    }
}

#define HAZE_AVX512 __attribute__((target("avx2,avx512f,avx512dq")))
// GCC 12's AVX-512 headers leave the pass-through operand of the unmasked
// forms undefined on purpose, and then warn about it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace {

// Sixteen RGBA pixels (v0 to v3, four each) to four planes in pixel order.
HAZE_AVX512 inline __m512 channel16(__m512 v0, __m512 v1, __m512 v2, __m512 v3, int c) {
    const __m512i index = _mm512_setr_epi32(c, c + 4, c + 8, c + 12, c + 16, c + 20, c + 24, c + 28,
                                            0, 0, 0, 0, 0, 0, 0, 0);
    const __m512 low = _mm512_permutex2var_ps(v0, index, v1);
    const __m512 high = _mm512_permutex2var_ps(v2, index, v3);
    return _mm512_insertf32x8(low, _mm512_castps512_ps256(high), 1);
}

HAZE_AVX512 inline void interleave16(float* p, __m512 r, __m512 g, __m512 b, __m512 a) {
    // Pairs (r, g) and (b, a) of pixels 0-7 and 8-15, then the quadruples.
    const __m512i pairsLow =
        _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
    const __m512i pairsHigh =
        _mm512_setr_epi32(8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
    const __m512i quadsLow =
        _mm512_setr_epi32(0, 1, 16, 17, 2, 3, 18, 19, 4, 5, 20, 21, 6, 7, 22, 23);
    const __m512i quadsHigh =
        _mm512_setr_epi32(8, 9, 24, 25, 10, 11, 26, 27, 12, 13, 28, 29, 14, 15, 30, 31);
    const __m512 rgLow = _mm512_permutex2var_ps(r, pairsLow, g);
    const __m512 baLow = _mm512_permutex2var_ps(b, pairsLow, a);
    const __m512 rgHigh = _mm512_permutex2var_ps(r, pairsHigh, g);
    const __m512 baHigh = _mm512_permutex2var_ps(b, pairsHigh, a);
    _mm512_storeu_ps(p, _mm512_permutex2var_ps(rgLow, quadsLow, baLow));
    _mm512_storeu_ps(p + 16, _mm512_permutex2var_ps(rgLow, quadsHigh, baLow));
    _mm512_storeu_ps(p + 32, _mm512_permutex2var_ps(rgHigh, quadsLow, baHigh));
    _mm512_storeu_ps(p + 48, _mm512_permutex2var_ps(rgHigh, quadsHigh, baHigh));
}

HAZE_AVX512 inline __m512i rangeIndex16(__m512 difference) {
    const __m512 v = _mm512_mul_ps(_mm512_set1_ps(1000.0f), difference);
    const __m512 top = _mm512_min_ps(v, _mm512_set1_ps(2000.0f));
    return _mm512_cvttps_epi32(_mm512_max_ps(top, _mm512_set1_ps(-2000.0f)));
}

HAZE_AVX512 inline __m256 weightHalf(const double* G, __m256i i0, __m256i i1, __m256i i2,
                                     __m512d k) {
    const __m512d w = _mm512_mul_pd(_mm512_mul_pd(_mm512_mul_pd(_mm512_i32gather_pd(i0, G, 8), k),
                                                  _mm512_i32gather_pd(i1, G, 8)),
                                    _mm512_i32gather_pd(i2, G, 8));
    return _mm512_cvtpd_ps(w);
}

// float(G[i0] * k * G[i1] * G[i2]) on sixteen lanes, in double.
HAZE_AVX512 inline __m512 weight16(const double* G, __m512i i0, __m512i i1, __m512i i2, double k) {
    const __m512d kk = _mm512_set1_pd(k);
    const __m256 low = weightHalf(G, _mm512_castsi512_si256(i0), _mm512_castsi512_si256(i1),
                                  _mm512_castsi512_si256(i2), kk);
    const __m256 high =
        weightHalf(G, _mm512_extracti64x4_epi64(i0, 1), _mm512_extracti64x4_epi64(i1, 1),
                   _mm512_extracti64x4_epi64(i2, 1), kk);
    return _mm512_insertf32x8(_mm512_castps256_ps512(low), high, 1);
}

// float(1.0 - v) with the difference in double, on sixteen lanes.
HAZE_AVX512 inline __m512 oneMinus16(__m512 v) {
    const __m512d one = _mm512_set1_pd(1.0);
    const __m256 low =
        _mm512_cvtpd_ps(_mm512_sub_pd(one, _mm512_cvtps_pd(_mm512_castps512_ps256(v))));
    const __m256 high =
        _mm512_cvtpd_ps(_mm512_sub_pd(one, _mm512_cvtps_pd(_mm512_extractf32x8_ps(v, 1))));
    return _mm512_insertf32x8(_mm512_castps256_ps512(low), high, 1);
}

} // namespace

template <bool Apply>
HAZE_AVX512 void RowUpsampler::rowVector16(float* p, int y, float* depth, const float a[3],
                                           float strength) const {
    const int ys = workingRow(y);
    const int dy0 = std::max(-1, -ys);
    const int dy1 = std::min(2, sh - ys);
    const std::size_t plane = stride * static_cast<std::size_t>(sh);
    const __m512i iota = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m512 fxv = _mm512_set1_ps(fx);
    const __m512i lastColumn = _mm512_set1_epi32(sw - 1);
    const __m512 zero = _mm512_setzero_ps();
    int x = 0;
    for (; x + 16 <= w; x += 16, p += 64) {
        const int first = std::min(static_cast<int>(static_cast<float>(x) * fx), sw - 1);
        const int last = std::min(static_cast<int>(static_cast<float>(x + 15) * fx), sw - 1);
        if (last - first > 15) { // enlarging: more than sixteen working columns
            for (int i = 0; i < 16; ++i) {
                const float d = pixel(p + 4 * i, x + i, ys);
                if constexpr (Apply)
                    applyPixel(p + 4 * i, d, a, strength);
                else
                    depth[x + i] = d;
            }
            continue;
        }
        const __m512i xv = _mm512_add_epi32(_mm512_set1_epi32(x), iota);
        const __m512i xs = _mm512_min_epi32(
            _mm512_cvttps_epi32(_mm512_mul_ps(_mm512_cvtepi32_ps(xv), fxv)), lastColumn);
        const __m512i lane = _mm512_sub_epi32(xs, _mm512_set1_epi32(first));
        const __m512 v0 = _mm512_loadu_ps(p);
        const __m512 v1 = _mm512_loadu_ps(p + 16);
        const __m512 v2 = _mm512_loadu_ps(p + 32);
        const __m512 v3 = _mm512_loadu_ps(p + 48);
        const __m512 r = channel16(v0, v1, v2, v3, 0);
        const __m512 g = channel16(v0, v1, v2, v3, 1);
        const __m512 b = channel16(v0, v1, v2, v3, 2);
        const __m512 alpha = channel16(v0, v1, v2, v3, 3);
        __m512 weightSum = zero;
        __m512 valueSum = zero;
        for (int dy = dy0; dy < dy1; ++dy) {
            const float* row =
                planes.data() + static_cast<std::size_t>(ys + dy) * stride + padLeft + first;
            for (int dx = -1; dx <= 1; ++dx) {
                const float* at = row + dx;
                const __m512i opaque = _mm512_permutexvar_epi32(
                    lane, _mm512_castps_si512(_mm512_loadu_ps(at + 4 * plane)));
                const __mmask16 k = _mm512_test_epi32_mask(opaque, opaque);
                if (!k) continue; // no lane has this neighbour
                const __m512 qr = _mm512_permutexvar_ps(lane, _mm512_loadu_ps(at));
                const __m512 qg = _mm512_permutexvar_ps(lane, _mm512_loadu_ps(at + plane));
                const __m512 qb = _mm512_permutexvar_ps(lane, _mm512_loadu_ps(at + 2 * plane));
                const __m512 qv = _mm512_permutexvar_ps(lane, _mm512_loadu_ps(at + 3 * plane));
                const __m512 wt = weight16(G, rangeIndex16(_mm512_sub_ps(r, qr)),
                                           rangeIndex16(_mm512_sub_ps(g, qg)),
                                           rangeIndex16(_mm512_sub_ps(b, qb)), K[1 + dx][1 + dy]);
                weightSum = _mm512_mask_add_ps(weightSum, k, weightSum, wt);
                valueSum = _mm512_mask_add_ps(valueSum, k, valueSum, _mm512_mul_ps(wt, qv));
            }
        }
        // No weight, or a transparent full pixel: 0.
        const __mmask16 none = _mm512_cmp_ps_mask(weightSum, zero, _CMP_EQ_OQ);
        const __mmask16 transparent = _mm512_cmp_ps_mask(alpha, zero, _CMP_EQ_OQ);
        __m512 d = _mm512_div_ps(valueSum, weightSum);
        d = _mm512_mask_mov_ps(d, static_cast<__mmask16>(none | transparent), zero);
        if constexpr (Apply) {
            const __m512 t0 = oneMinus16(_mm512_mul_ps(d, _mm512_set1_ps(strength)));
            const __m512 floor = _mm512_set1_ps(0.1f);
            const __m512 t =
                _mm512_mask_mov_ps(t0, _mm512_cmp_ps_mask(t0, floor, _CMP_LT_OQ), floor);
            __m512 out[3] = {r, g, b};
            for (int c = 0; c < 3; ++c) {
                const __m512 ac = _mm512_set1_ps(a[c]);
                __m512 j = _mm512_add_ps(_mm512_div_ps(_mm512_sub_ps(out[c], ac), t), ac);
                j = _mm512_mask_mov_ps(j, _mm512_cmp_ps_mask(j, zero, _CMP_LT_OQ), zero);
                out[c] = _mm512_mask_mov_ps(j, transparent, out[c]);
            }
            interleave16(p, out[0], out[1], out[2], alpha);
        } else {
            _mm512_storeu_ps(depth + x, d);
        }
    }
    // The rest of the row, fewer than sixteen pixels, on the eight-wide path.
    if (x < w) {
        if constexpr (Apply)
            rowVector<true>(p, y, nullptr, a, strength, x);
        else
            rowVector<false>(p, y, depth, nullptr, 0.0f, x);
    }
}
#pragma GCC diagnostic pop
#endif

void RowUpsampler::depthRow(const float* pixels, int y, float* depth) const {
#ifdef HAZE_HAVE_AVX2_PATH
    if (vectorWidth == 16) {
        rowVector16<false>(const_cast<float*>(pixels), y, depth, nullptr, 0.0f);
        return;
    }
    if (vectorWidth == 8) {
        rowVector<false>(const_cast<float*>(pixels), y, depth, nullptr, 0.0f);
        return;
    }
#endif
    const int ys = workingRow(y);
    for (int x = 0; x < w; ++x, pixels += 4)
        depth[x] = pixel(pixels, x, ys);
}

void RowUpsampler::dehazeRow(float* pixels, int y, const float airlight[3], float strength) const {
#ifdef HAZE_HAVE_AVX2_PATH
    if (vectorWidth == 16) {
        rowVector16<true>(pixels, y, nullptr, airlight, strength);
        return;
    }
    if (vectorWidth == 8) {
        rowVector<true>(pixels, y, nullptr, airlight, strength);
        return;
    }
#endif
    const int ys = workingRow(y);
    for (int x = 0; x < w; ++x, pixels += 4)
        applyPixel(pixels, pixel(pixels, x, ys), airlight, strength);
}

} // namespace haze
