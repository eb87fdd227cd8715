// Conversion of pixel components between the three depths of the image model:
// 8-bit and 16-bit unsigned integers (0 to full scale) and single-precision
// float, whose normal range is 0.0 to 1.0.
//
// The rules, per component:
//   float -> word  v x 65535.0f, then 0 at or below 0, 65535 at or above 65535,
//                  else rounded to nearest with ties to even.
//   float -> byte  v x 255.0f with the same saturation at 0 and 255.
//                  A NaN becomes 0 in both, so no float reaches an integer
//                  conversion out of range.
//   word -> float  float(v) / 65535.0f, a true division: the product with the
//                  rounded reciprocal differs in the last bit for 512 of
//                  the 65536 words.
//   byte -> float  v x (1.0f / 255.0f) + 0.0f.
//   byte -> word   v x 257, the byte in both halves, so 255 gives 65535.
//   word -> byte   the fast integer form below. It is v / 257 rounded to
//                  nearest except for 128 values just below a half, which go
//                  up (128 gives 1); it is never more than 1 off, and
//                  byte -> word -> byte still gives back every byte. The exact
//                  form would cost a division per component.
//
// The single-component functions are the definition; convertDepth applies
// them to every component of a window, alpha included, and is what the pixel
// format copy uses.
#pragma once

#include "primitives/PixelView.h"

#include <cstdint>

namespace prim {

namespace detail {

// Rounds a float in [0, 2^23) to the nearest integer, ties to even, through
// the current rounding mode of the addition. Unlike nearbyint it needs no
// library call, so loops of it vectorise on any x86-64.
inline float roundHalfEven(float x) {
    constexpr float kShift = 8388608.0f; // 2^23: from here on, floats are integers
    return (x + kShift) - kShift;
}

// Scales, saturates and rounds a float onto 0..fullScale. Written as two
// selects so that NaN (every comparison false) lands on 0.
inline std::uint32_t scaleToInteger(float v, float fullScale) {
    float x = v * fullScale;
    x = x > 0.0f ? x : 0.0f;
    x = x < fullScale ? x : fullScale;
    return static_cast<std::uint32_t>(static_cast<std::int32_t>(roundHalfEven(x)));
}

} // namespace detail

inline std::uint16_t floatToWord(float v) {
    return static_cast<std::uint16_t>(detail::scaleToInteger(v, 65535.0f));
}

inline std::uint8_t floatToByte(float v) {
    return static_cast<std::uint8_t>(detail::scaleToInteger(v, 255.0f));
}

inline float wordToFloat(std::uint16_t v) {
    return static_cast<float>(v) / 65535.0f;
}

inline float byteToFloat(std::uint8_t v) {
    return static_cast<float>(v) * (1.0f / 255.0f) + 0.0f;
}

inline std::uint16_t byteToWord(std::uint8_t v) {
    return static_cast<std::uint16_t>(v * 257u);
}

inline std::uint8_t wordToByte(std::uint16_t v) {
    std::uint32_t t = static_cast<std::uint32_t>(v) - 32768u;
    t = t - (t >> 8);
    t = t >> 8;
    return static_cast<std::uint8_t>(t - 128u);
}

// Component conversion by type: From and To are std::uint8_t, std::uint16_t
// or float, and differ.
template <typename From, typename To>
To convertComponent(From v);

template <>
inline std::uint16_t convertComponent<float, std::uint16_t>(float v) {
    return floatToWord(v);
}
template <>
inline std::uint8_t convertComponent<float, std::uint8_t>(float v) {
    return floatToByte(v);
}
template <>
inline float convertComponent<std::uint16_t, float>(std::uint16_t v) {
    return wordToFloat(v);
}
template <>
inline float convertComponent<std::uint8_t, float>(std::uint8_t v) {
    return byteToFloat(v);
}
template <>
inline std::uint16_t convertComponent<std::uint8_t, std::uint16_t>(std::uint8_t v) {
    return byteToWord(v);
}
template <>
inline std::uint8_t convertComponent<std::uint16_t, std::uint8_t>(std::uint16_t v) {
    return wordToByte(v);
}

// Converts every component of a width x height window; source and target
// have the same channel count and must not overlap. `threads` splits rows.
template <typename From, typename To>
void convertDepth(PixelView<const From> source, PixelView<To> target, int width, int height,
                  int threads = 1);

// One row of 8-bit RGB or RGBA pixels (`channels` 3 or 4) as RGBA floats:
// byte -> float of every component, alpha 1.0 where the source has none.
// What convertDepth and the placing of RGB into RGBA give, in one pass and
// without a scratch row.
void bytesToFloatRgba(const std::uint8_t* in, int channels, float* out, int width);

} // namespace prim
