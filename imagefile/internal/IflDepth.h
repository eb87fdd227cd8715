// The component types of IFL bitmaps: 8 and 16-bit unsigned integers, or
// 32-bit floats, by the record's bits per component.
#pragma once

#include <OpenImageIO/typedesc.h>

#include <cstdint>

namespace ifl {

inline OIIO::TypeDesc typeOfDepth(int bits) {
    return bits == 8    ? OIIO::TypeDesc::UINT8
           : bits == 16 ? OIIO::TypeDesc::UINT16
                        : OIIO::TypeDesc::FLOAT;
}

// Calls `f` with a value of the component type of `bits`, so that one generic
// lambda serves every depth: withComponentType(bits, [&](auto zero) {
// work<decltype(zero)>(...); }).
template <typename F>
decltype(auto) withComponentType(int bits, F&& f) {
    if (bits == 8) return f(std::uint8_t{});
    if (bits == 16) return f(std::uint16_t{});
    return f(float{});
}

} // namespace ifl
