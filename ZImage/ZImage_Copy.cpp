// ZImage::Copy, CopyTo and ToQImage: moving pixels between the nine formats
// (grey, RGB, RGBA by 8-bit, 16-bit and float components).
//
// Every conversion is a short chain of elementary steps from primitives/
// (copy, fill, depth conversion, drop alpha, place RGB, colour to grey,
// spread grey). The chains form a 9 x 9 table, looked up once per call, so
// that no format test ever runs inside a pixel loop. The rules behind the
// table:
//   - A grey value is always computed at the higher of the two depths: when
//     widening, colours are converted first and weighted after; when
//     narrowing, weighted first and converted after.
//   - Alpha is a component like any other in a depth conversion, and is never
//     multiplied into the colours. Alpha is dropped after a widening and
//     before a narrowing, so the narrow side never carries it needlessly.
//   - A target with alpha and a source without gets full alpha (1.0, 65535 or
//     255): the target's window is filled with (0, 0, 0, full) first and the
//     colours are written over it.
//   - Where a step cannot run straight from source to target, a scratch image
//     holds the intermediate.
//
// The chain runs band by band: a few rows go through every step while they
// are still in the processor's cache, instead of each step streaming the
// whole window through memory. So a scratch image is the window's width by
// one band, and there is one per thread; bands are split statically among
// threadCount threads. Scratch images are allocated before any step runs, so
// a failed allocation ("Not enough memory") leaves the target untouched.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "primitives/DepthConvert.h"
#include "primitives/PixelOps.h"
#include "runtime/nrt_work.h"

#include <QImage>
#include <omp.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Formats

enum class Depth : std::uint8_t { Float, Word, Byte };

struct Format {
    Depth depth;
    int channels; // 4 RGBA, 3 RGB, 1 grey; 0 in a chain means "no scratch image"

    constexpr bool operator==(const Format&) const = default;
};

constexpr int componentBytes(Depth depth) {
    return depth == Depth::Float ? 4 : depth == Depth::Word ? 2 : 1;
}

constexpr bool isKnownType(int type) {
    return type == ZImage::Gray || type == ZImage::RGB || type == ZImage::RGBA;
}

constexpr bool isKnownDepth(int bits) {
    return bits == 8 || bits == 16 || bits == 32;
}

constexpr Depth depthOfBits(int bits) {
    return bits == 32 ? Depth::Float : bits == 16 ? Depth::Word : Depth::Byte;
}

constexpr int channelsOfType(int type) {
    return type == ZImage::RGBA ? 4 : type == ZImage::RGB ? 3 : 1;
}

// Row or column of the table: depth F, W, B, then RGBA, RGB, grey within each.
constexpr int tableIndex(Format f) {
    const int layout = f.channels == 4 ? 0 : f.channels == 3 ? 1 : 2;
    return static_cast<int>(f.depth) * 3 + layout;
}

constexpr Format kNoScratch{Depth::Float, 0};
constexpr Format F4{Depth::Float, 4}, F3{Depth::Float, 3}, F1{Depth::Float, 1};
constexpr Format W4{Depth::Word, 4}, W3{Depth::Word, 3}, W1{Depth::Word, 1};
constexpr Format B4{Depth::Byte, 4}, B3{Depth::Byte, 3}, B1{Depth::Byte, 1};

constexpr std::array<Format, 9> kFormats{F4, F3, F1, W4, W3, W1, B4, B3, B1};

// ---------------------------------------------------------------------------
// Chains

enum class Op : std::uint8_t { None, Copy, Convert, Drop, Place, Gray, Spread, Fill };
enum class Buf : std::uint8_t { Source, Scratch, Target };

struct Step {
    Op op = Op::None;
    Buf from = Buf::Source;
    Buf to = Buf::Target;
};

struct Chain {
    Format scratch = kNoScratch;
    float alpha = 0.0f; // the full-scale alpha of a Fill step, in its buffer's depth
    std::array<Step, 3> steps{};
};

constexpr Buf S = Buf::Source, X = Buf::Scratch, T = Buf::Target;

// One step straight from source to target.
constexpr Chain direct(Op op) {
    return {kNoScratch, 0.0f, {Step{op, S, T}}};
}

// Source to a scratch image, scratch image to target.
constexpr Chain through(Format scratch, Op first, Op second) {
    return {scratch, 0.0f, {Step{first, S, X}, Step{second, X, T}}};
}

// Full alpha into the target, then the colours over it.
constexpr Chain filled(float alpha, Op op) {
    return {kNoScratch, alpha, {Step{Op::Fill, T, T}, Step{op, S, T}}};
}

constexpr Chain filledThrough(float alpha, Format scratch, Op first, Op second) {
    return {scratch, alpha, {Step{Op::Fill, T, T}, Step{first, S, X}, Step{second, X, T}}};
}

constexpr Op Copy = Op::Copy, Conv = Op::Convert, Drop = Op::Drop, Place = Op::Place,
             Gray = Op::Gray, Spread = Op::Spread;

// F RGB to W RGBA assembles the RGBA pixel in float and converts it whole,
// so the target is not touched until the scratch image exists.
constexpr Chain kFloatRgbToWordRgba{
    F4, 1.0f, {Step{Op::Fill, X, X}, Step{Place, S, X}, Step{Conv, X, T}}};

// Rows: source format; columns: target format. Each row has one line per
// target depth (F, W, B), and each line the targets RGBA, RGB, grey.
// clang-format off
constexpr std::array<std::array<Chain, 9>, 9> kChains{{
    // F RGBA
    {direct(Copy),                             direct(Drop),               direct(Gray),
     direct(Conv),                             through(F3, Drop, Conv),    through(F1, Gray, Conv),
     direct(Conv),                             through(F3, Drop, Conv),    through(F1, Gray, Conv)},
    // F RGB
    {filled(1.0f, Place),                      direct(Copy),               direct(Gray),
     kFloatRgbToWordRgba,                      direct(Conv),               through(F1, Gray, Conv),
     filledThrough(255.0f, B3, Conv, Place),   direct(Conv),               through(F1, Gray, Conv)},
    // F grey
    {filled(1.0f, Spread),                     direct(Spread),             direct(Copy),
     filledThrough(65535.0f, W1, Conv, Spread), through(W1, Conv, Spread), direct(Conv),
     filledThrough(255.0f, B1, Conv, Spread),  through(B1, Conv, Spread),  direct(Conv)},
    // W RGBA
    {direct(Conv),                             through(F4, Conv, Drop),    through(F4, Conv, Gray),
     direct(Copy),                             direct(Drop),               direct(Gray),
     direct(Conv),                             through(W3, Drop, Conv),    through(W1, Gray, Conv)},
    // W RGB
    {filledThrough(1.0f, F3, Conv, Place),     direct(Conv),               through(F3, Conv, Gray),
     filled(65535.0f, Place),                  direct(Copy),               direct(Gray),
     filledThrough(255.0f, B3, Conv, Place),   direct(Conv),               through(W1, Gray, Conv)},
    // W grey: alpha is full in both wider RGBA cells too, so that a grey
    // 16-bit photograph is not read as transparent.
    {filledThrough(1.0f, F1, Conv, Spread),    through(F1, Conv, Spread),  direct(Conv),
     filled(65535.0f, Spread),                 direct(Spread),             direct(Copy),
     filledThrough(255.0f, B1, Conv, Spread),  through(B1, Conv, Spread),  direct(Conv)},
    // B RGBA
    {direct(Conv),                             through(F4, Conv, Drop),    through(F4, Conv, Gray),
     direct(Conv),                             through(W4, Conv, Drop),    through(W4, Conv, Gray),
     direct(Copy),                             direct(Drop),               direct(Gray)},
    // B RGB
    {filledThrough(1.0f, F3, Conv, Place),     direct(Conv),               through(F3, Conv, Gray),
     filledThrough(65535.0f, W3, Conv, Place), direct(Conv),               through(W3, Conv, Gray),
     filled(255.0f, Place),                    direct(Copy),               direct(Gray)},
    // B grey
    {filledThrough(1.0f, F1, Conv, Spread),    through(F1, Conv, Spread),  direct(Conv),
     filledThrough(65535.0f, W1, Conv, Spread), through(W1, Conv, Spread), direct(Conv),
     filled(255.0f, Spread),                   direct(Spread),             direct(Copy)},
}};
// clang-format on

// The shape of the table is checked when the library is compiled: each step
// must find the formats it works on, a scratch image must be written before
// it is read, and the last step must write the target. An entry that does not
// join up fails the build; the values it produces are the tests' business.
constexpr bool stepFits(Op op, Format from, Format to, float alpha) {
    switch (op) {
    case Op::Copy:
        return from == to;
    case Op::Convert:
        return from.channels == to.channels && from.depth != to.depth;
    case Op::Drop:
        return from.depth == to.depth && from.channels == 4 && to.channels == 3;
    case Op::Place:
        return from.depth == to.depth && from.channels == 3 && to.channels == 4;
    case Op::Gray:
        return from.depth == to.depth && from.channels >= 3 && to.channels == 1;
    case Op::Spread:
        return from.depth == to.depth && from.channels == 1 && to.channels >= 3;
    case Op::Fill: {
        const float full = to.depth == Depth::Float  ? 1.0f
                           : to.depth == Depth::Word ? 65535.0f
                                                     : 255.0f;
        return from == to && to.channels == 4 && alpha == full;
    }
    case Op::None:
        break;
    }
    return false;
}

constexpr bool chainFits(const Chain& chain, Format source, Format target) {
    bool scratchWritten = false;
    bool targetWritten = false;
    Buf lastWrite = Buf::Source;
    for (const Step& step : chain.steps) {
        if (step.op == Op::None) break;
        auto formatOf = [&](Buf b) { return b == S ? source : b == X ? chain.scratch : target; };
        if (step.to == S || (step.from == X && step.op != Op::Fill && !scratchWritten))
            return false;
        if ((step.from == X || step.to == X) && chain.scratch.channels == 0) return false;
        if (!stepFits(step.op, formatOf(step.from), formatOf(step.to), chain.alpha)) return false;
        scratchWritten = scratchWritten || step.to == X;
        targetWritten = targetWritten || step.to == T;
        lastWrite = step.to;
    }
    return targetWritten && lastWrite == T;
}

constexpr bool tableFits() {
    for (int s = 0; s < 9; ++s)
        for (int t = 0; t < 9; ++t)
            if (tableIndex(kFormats[s]) != s || !chainFits(kChains[s][t], kFormats[s], kFormats[t]))
                return false;
    return true;
}
static_assert(tableFits(), "a conversion chain does not fit the formats it joins");

// ---------------------------------------------------------------------------
// Running a chain

// A scratch image: rows padded to 32 bytes so that every row starts aligned
// for the widest vector loads; freed on every way out of Copy.
class ScratchImage {
public:
    ScratchImage(Format format, int width, int rows) {
        constexpr std::uint64_t kAlign = 32;
        const std::uint64_t stride = (rowBytes(format, width) + kAlign - 1) / kAlign * kAlign;
        // width and rows are below 2^31 and a pixel has at most 16 bytes, so
        // stride x rows fits in 64 bits; what must also fit is the address
        // space and the signed stride of a view.
        Z_CHECK(stride <= static_cast<std::uint64_t>(std::numeric_limits<std::ptrdiff_t>::max()) /
                              static_cast<std::uint64_t>(rows),
                Z_NOT_ENOUGH_MEMORY);
        const std::uint64_t bytes = stride * static_cast<std::uint64_t>(rows);
        Z_CHECK(bytes <= std::numeric_limits<std::size_t>::max(), Z_NOT_ENOUGH_MEMORY);
        m_data.reset(static_cast<std::uint8_t*>(std::aligned_alloc(kAlign, bytes)));
        Z_CHECK(m_data, Z_NOT_ENOUGH_MEMORY);
        m_stride = static_cast<std::ptrdiff_t>(stride);
    }

    static std::uint64_t rowBytes(Format format, int width) {
        return static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(format.channels) *
               static_cast<std::uint64_t>(componentBytes(format.depth));
    }

    std::uint8_t* data() const { return m_data.get(); }
    std::ptrdiff_t stride() const { return m_stride; }

private:
    struct Free {
        void operator()(std::uint8_t* p) const { std::free(p); }
    };
    std::unique_ptr<std::uint8_t, Free> m_data;
    std::ptrdiff_t m_stride = 0;
};

// One of the three pixel windows a chain works on.
struct Window {
    std::uint8_t* data; // top-left pixel of the window
    std::ptrdiff_t stride;
    Format format;

    template <typename C>
    prim::PixelView<C> view() const {
        return {reinterpret_cast<C*>(data), stride, format.channels};
    }
};

// Calls body with a value of the component type of `depth`.
template <typename Body>
void withComponent(Depth depth, Body&& body) {
    switch (depth) {
    case Depth::Float:
        body(float{});
        break;
    case Depth::Word:
        body(std::uint16_t{});
        break;
    case Depth::Byte:
        body(std::uint8_t{});
        break;
    }
}

template <typename From>
void convertTo(const Window& from, const Window& to, int width, int height) {
    withComponent(to.format.depth, [&](auto target) {
        using To = decltype(target);
        if constexpr (!std::is_same_v<From, To>)
            prim::convertDepth<From, To>(from.view<const From>(), to.view<To>(), width, height);
    });
}

void runStep(const Step& step, float alpha, const Window& from, const Window& to, int width,
             int height) {
    if (step.op == Op::Copy) {
        const std::size_t rowBytes = static_cast<std::size_t>(width) * from.format.channels *
                                     componentBytes(from.format.depth);
        prim::copyRows(from.data, from.stride, to.data, to.stride, rowBytes, height);
        return;
    }
    withComponent(from.format.depth, [&](auto component) {
        using C = decltype(component);
        const auto in = from.view<const C>();
        const auto out = to.view<C>();
        switch (step.op) {
        case Op::Convert:
            convertTo<C>(from, to, width, height);
            break;
        case Op::Drop:
            prim::dropAlpha<C>(in, out, width, height);
            break;
        case Op::Place:
            prim::placeRgb<C>(in, out, width, height);
            break;
        case Op::Gray:
            prim::colourToGray<C>(in, out, width, height);
            break;
        case Op::Spread:
            prim::spreadGray<C>(in, out, width, height);
            break;
        case Op::Fill: {
            const std::array<C, 4> pixel{C{0}, C{0}, C{0}, static_cast<C>(alpha)};
            prim::fillPixels<C>(out, width, height, std::span<const C>(pixel));
            break;
        }
        case Op::Copy:
        case Op::None:
            break;
        }
    });
}

std::uint8_t* pixelAddress(const IflBitmap& b, int x, int y) {
    return b.data + static_cast<std::ptrdiff_t>(y) * b.bytesPerLine +
           static_cast<std::ptrdiff_t>(x) * b.bytesPerPixel;
}

// Whether [start, start + extent) lies within [0, size); 64-bit so that no
// sum of two ints can wrap.
bool fitsAfter(int start, int extent, int size) {
    return static_cast<std::int64_t>(start) + extent <= size;
}

} // namespace

void ZImage::Copy(int srcX, int srcY, int width, int height, ZImage& target, int dstX,
                  int dstY) const {
    Z_CHECK(bitmap && bitmap->data, Z_INVALID_BITMAP);
    Z_CHECK(isKnownDepth(bitmap->bitsPerComponent), Z_INVALID_BITMAP);
    Z_CHECK(isKnownType(bitmap->type), Z_INVALID_BITMAP);

    const IflBitmap* const dst = target.bitmap;
    Z_CHECK(dst && dst->data, Z_INVALID_PARAMETER);
    Z_CHECK(isKnownType(dst->type), Z_INVALID_PARAMETER);
    Z_CHECK(isKnownDepth(dst->bitsPerComponent), Z_INVALID_PARAMETER);

    // A window that leaves either image would read or write outside its
    // pixel array, so it is refused rather than clipped.
    Z_CHECK(dstX >= 0, Z_INVALID_PARAMETER);
    Z_CHECK(fitsAfter(dstX, width, dst->width), Z_INVALID_PARAMETER);
    Z_CHECK(dstY >= 0, Z_INVALID_PARAMETER);
    Z_CHECK(fitsAfter(dstY, height, dst->height), Z_INVALID_PARAMETER);
    Z_CHECK(srcX >= 0, Z_INVALID_PARAMETER);
    Z_CHECK(fitsAfter(srcX, width, bitmap->width), Z_INVALID_PARAMETER);
    Z_CHECK(srcY >= 0, Z_INVALID_PARAMETER);
    Z_CHECK(fitsAfter(srcY, height, bitmap->height), Z_INVALID_PARAMETER);
    Z_CHECK(width >= 0, Z_INVALID_PARAMETER);
    Z_CHECK(height >= 0, Z_INVALID_PARAMETER);
    if (width == 0 || height == 0) return;

    const Format sourceFormat{depthOfBits(bitmap->bitsPerComponent), channelsOfType(bitmap->type)};
    const Format targetFormat{depthOfBits(dst->bitsPerComponent), channelsOfType(dst->type)};
    const Chain& chain = kChains[tableIndex(sourceFormat)][tableIndex(targetFormat)];

    const Window source{pixelAddress(*bitmap, srcX, srcY), bitmap->bytesPerLine, sourceFormat};
    const Window output{pixelAddress(*dst, dstX, dstY), dst->bytesPerLine, targetFormat};

    // Rows per band: source, scratch and target rows of a band together fill
    // about half of a typical 1 MB second-level cache.
    constexpr std::uint64_t kBandBytes = 512 * 1024;
    const std::uint64_t bytesPerRow = ScratchImage::rowBytes(sourceFormat, width) +
                                      ScratchImage::rowBytes(chain.scratch, width) +
                                      ScratchImage::rowBytes(targetFormat, width);
    const int bandRows =
        static_cast<int>(std::clamp<std::uint64_t>(kBandBytes / bytesPerRow, 1, height));
    const int bands = (height + bandRows - 1) / bandRows;
    // Small windows are not worth waking a team for: each thread takes at
    // least two bands' worth.
    const std::uint64_t work = bytesPerRow * static_cast<std::uint64_t>(height);
    const int teamSize =
        std::min(bands, nrt_threads_for_work(static_cast<long long>(work),
                                             static_cast<long long>(2 * kBandBytes),
                                             std::max(1, threadCount)));

    std::vector<ScratchImage> scratch;
    if (chain.scratch.channels != 0) {
        scratch.reserve(teamSize);
        for (int t = 0; t < teamSize; ++t)
            scratch.emplace_back(chain.scratch, width, bandRows);
    }

    // Thread `me` of `team` converts its own contiguous run of bands.
    const auto convertBands = [&](int me, int team) {
        const int firstBand = static_cast<int>(std::int64_t{bands} * me / team);
        const int endBand = static_cast<int>(std::int64_t{bands} * (me + 1) / team);
        const Window between =
            scratch.empty() ? Window{nullptr, 0, chain.scratch}
                            : Window{scratch[me].data(), scratch[me].stride(), chain.scratch};
        for (int band = firstBand; band < endBand; ++band) {
            const int y = band * bandRows;
            const int rows = std::min(bandRows, height - y);
            const Window in{source.data + y * source.stride, source.stride, source.format};
            const Window out{output.data + y * output.stride, output.stride, output.format};
            for (const Step& step : chain.steps) {
                if (step.op == Op::None) break;
                auto window = [&](Buf b) -> const Window& {
                    return b == Buf::Source ? in : b == Buf::Scratch ? between : out;
                };
                runStep(step, chain.alpha, window(step.from), window(step.to), width, rows);
            }
        }
    };
    // A copy of a few rows, as the resampling asks for from inside its own
    // region, opens no region of its own.
    if (teamSize <= 1) {
        convertBands(0, 1);
        return;
    }
#pragma omp parallel num_threads(teamSize)
    convertBands(omp_get_thread_num(), omp_get_num_threads());
}

void ZImage::CopyTo(ZImage& target, int colourType, int depth) const {
    Z_CHECK(bitmap, Z_INVALID_BITMAP);
    Z_CHECK(isKnownType(bitmap->type), Z_INVALID_BITMAP);

    if (&target == this) {
        // Converting an image into itself: Create would free the pixels that
        // Copy is about to read, so convert into a fresh image and take it.
        if (bitmap->type == colourType && bitmap->bitsPerComponent == depth) return;
        ZImage converted;
        CopyTo(converted, colourType, depth);
        target = std::move(converted);
        return;
    }
    target.Create(bitmap->width, bitmap->height, colourType, depth, false, nullptr, 0);
    Copy(0, 0, bitmap->width, bitmap->height, target, 0, 0);
}

void ZImage::ToQImage(QImage& image) const {
    const int width = Width();
    const int height = Height();
    image = QImage(width, height, QImage::Format_ARGB32);
    Z_CHECK(!image.isNull() || width == 0 || height == 0, Z_NOT_ENOUGH_MEMORY);

    // The picture's own memory is the target, so the conversion writes the
    // screen image directly; the wrapper owns nothing and frees nothing.
    ZImage screen(width, height, RGBA, 8, false, image.bits(),
                  static_cast<int>(image.bytesPerLine()));
    CopyTo(screen, RGBA, 8);

    // ARGB32 is one 32-bit word per pixel, so on a little-endian machine its
    // bytes lie in the order B, G, R, A.
    static constexpr std::array<int, 4> kScreenOrder = std::endian::native == std::endian::little
                                                           ? std::array<int, 4>{2, 1, 0, 3}
                                                           : std::array<int, 4>{3, 0, 1, 2};
    const IflBitmap& b = *screen.bitmap;
    prim::reorderChannels<std::uint8_t>({b.data, b.bytesPerLine, 4}, width, height, kScreenOrder,
                                        threadCount);
}

void ZImage::ByteRowsToFloat(int y0, int rows, float* out, std::ptrdiff_t stride) const {
    const int channels = bitmap->type == RGBA ? 4 : 3;
    for (int r = 0; r < rows; ++r)
        prim::bytesToFloatRgba(PixelAt(0, y0 + r), channels,
                               reinterpret_cast<float*>(reinterpret_cast<char*>(out) + r * stride),
                               bitmap->width);
}
