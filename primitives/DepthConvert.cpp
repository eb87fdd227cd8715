#include "primitives/DepthConvert.h"

#include "primitives/internal/RowLoop.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace prim {
namespace {

// One row of components; the plain loop vectorises for every pair except the
// two below.
template <typename From, typename To>
void convertRow(const From* __restrict in, To* __restrict out, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i)
        out[i] = convertComponent<From, To>(in[i]);
}

#if defined(__SSE2__)
// Float to integer does not vectorise by itself: the compiler keeps the two
// saturating selects as branches unless it may ignore floating-point traps,
// and then runs some fifteen times slower than the other conversions. These kernels do
// what detail::scaleToInteger does, four components at a time, with the same
// results: maxps returns its second operand, 0, for a NaN, and the addition of
// 2^23 rounds in the same mode as the scalar code.
inline __m128i scaleToInteger4(__m128 v, __m128 fullScale) {
    const __m128 shift = _mm_set1_ps(8388608.0f);
    __m128 x = _mm_mul_ps(v, fullScale);
    x = _mm_max_ps(x, _mm_setzero_ps());
    x = _mm_min_ps(x, fullScale);
    x = _mm_sub_ps(_mm_add_ps(x, shift), shift);
    return _mm_cvttps_epi32(x);
}

template <>
void convertRow<float, std::uint8_t>(const float* __restrict in, std::uint8_t* __restrict out,
                                     std::int64_t count) {
    const __m128 full = _mm_set1_ps(255.0f);
    std::int64_t i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m128i a = scaleToInteger4(_mm_loadu_ps(in + i), full);
        const __m128i b = scaleToInteger4(_mm_loadu_ps(in + i + 4), full);
        const __m128i c = scaleToInteger4(_mm_loadu_ps(in + i + 8), full);
        const __m128i d = scaleToInteger4(_mm_loadu_ps(in + i + 12), full);
        // 0..255 passes both signed packs unchanged.
        const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), bytes);
    }
    for (; i < count; ++i)
        out[i] = floatToByte(in[i]);
}

template <>
void convertRow<float, std::uint16_t>(const float* __restrict in, std::uint16_t* __restrict out,
                                      std::int64_t count) {
    const __m128 full = _mm_set1_ps(65535.0f);
    const __m128i bias = _mm_set1_epi32(32768);
    const __m128i flip = _mm_set1_epi16(static_cast<short>(0x8000));
    std::int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
        // SSE2 packs only with signed saturation: shift 0..65535 into the
        // int16 range, pack, and shift back by flipping the top bit.
        const __m128i a = _mm_sub_epi32(scaleToInteger4(_mm_loadu_ps(in + i), full), bias);
        const __m128i b = _mm_sub_epi32(scaleToInteger4(_mm_loadu_ps(in + i + 4), full), bias);
        const __m128i words = _mm_xor_si128(_mm_packs_epi32(a, b), flip);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), words);
    }
    for (; i < count; ++i)
        out[i] = floatToWord(in[i]);
}
#endif

} // namespace

template <typename From, typename To>
void convertDepth(PixelView<const From> source, PixelView<To> target, int width, int height,
                  int threads) {
    if (width <= 0 || height <= 0) return;
    // Equal channel counts make a row one flat run of components, which is
    // the loop shape the compiler vectorises.
    const std::int64_t count = static_cast<std::int64_t>(width) * source.channels;
    detail::forEachRow(height, count, threads,
                       [&](int y) { convertRow<From, To>(source.row(y), target.row(y), count); });
}

#define PRIM_CONVERT_DEPTH(From, To)                                                               \
    template void convertDepth<From, To>(PixelView<const From>, PixelView<To>, int, int, int);

PRIM_CONVERT_DEPTH(float, std::uint16_t)
PRIM_CONVERT_DEPTH(float, std::uint8_t)
PRIM_CONVERT_DEPTH(std::uint16_t, float)
PRIM_CONVERT_DEPTH(std::uint8_t, float)
PRIM_CONVERT_DEPTH(std::uint8_t, std::uint16_t)
PRIM_CONVERT_DEPTH(std::uint16_t, std::uint8_t)

#undef PRIM_CONVERT_DEPTH

void bytesToFloatRgba(const std::uint8_t* __restrict in, int channels, float* __restrict out,
                      int width) {
    if (channels == 4) {
        convertRow<std::uint8_t, float>(in, out, std::int64_t{width} * 4);
        return;
    }
    for (int x = 0; x < width; ++x, in += 3, out += 4) {
        out[0] = byteToFloat(in[0]);
        out[1] = byteToFloat(in[1]);
        out[2] = byteToFloat(in[2]);
        out[3] = 1.0f;
    }
}

} // namespace prim
