#include "primitives/DepthConvert.h"

#include "primitives/internal/RowLoop.h"

namespace prim {

template <typename From, typename To>
void convertDepth(PixelView<const From> source, PixelView<To> target, int width, int height,
                  int threads) {
    if (width <= 0 || height <= 0) return;
    // Equal channel counts make a row one flat run of components, which is
    // the loop shape the compiler vectorises.
    const std::int64_t count = static_cast<std::int64_t>(width) * source.channels;
    detail::forEachRow(height, count, threads, [&](int y) {
        const From* __restrict in = source.row(y);
        To* __restrict out = target.row(y);
        for (std::int64_t i = 0; i < count; ++i)
            out[i] = convertComponent<From, To>(in[i]);
    });
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

} // namespace prim
