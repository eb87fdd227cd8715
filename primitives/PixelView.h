// A typed window on an interleaved pixel array, as the pixel steps see it.
//
// `data` points at the first component of the top-left pixel of the window;
// rows are `stride` bytes apart, which need not be a multiple of the component
// size's pixel (bitmaps adopted from outside may have odd strides), so rows are
// reached through byte arithmetic. `channels` is the number of components per
// pixel (1, 3 or 4); the window's width and height are given to each step.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace prim {

template <typename T>
struct PixelView {
    T* data;
    std::ptrdiff_t stride;
    int channels;

    T* row(int y) const {
        using Byte = std::conditional_t<std::is_const_v<T>, const std::uint8_t, std::uint8_t>;
        return reinterpret_cast<T*>(reinterpret_cast<Byte*>(data) +
                                    static_cast<std::ptrdiff_t>(y) * stride);
    }

    // The same window seen read-only.
    operator PixelView<const T>() const { return {data, stride, channels}; }
};

} // namespace prim
