// The haze removal stages on ZImage, and the run that chains them.
//
// estimateDarkChannel works on the small working image: a clipped square
// minimum filter (primitives/MinFilter), a bounded ordered map of the
// brightest dark values fed in one serial pass, the airlight as the most
// luminous of those pixels, and the dark channel normalised by the airlight.
// upsampleDarkChannel carries that map to the full image by a joint bilateral
// filter over the 3 x 3 working neighbourhood; applyHazeRemoval inverts the
// haze model with the user's strength. Neither full-size pass allocates per
// pixel.
//
// Every buffer belongs to an object (vectors, unique_ptr, ZImage), so an
// exception from any stage leaves nothing behind. Exceptions never cross an
// OpenMP region: all allocation happens before the regions start.
#include "ZImage/ZImageHaze.h"

#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze_p.h"
#include "primitives/DepthConvert.h"
#include "primitives/MinFilter.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <mutex>
#include <numbers>
#include <omp.h>
#include <optional>
#include <vector>

namespace haze {
namespace {

constexpr int rangeHalfWidth = 2000;

// G[i] for i in -2000..2000, stored from index 0. Rounding to 6 significant
// digits goes through the decimal text so that it is exact and identical on
// every platform, whatever the last bits of exp().
std::array<double, 2 * rangeHalfWidth + 1> makeRangeTable() {
    std::array<double, 2 * rangeHalfWidth + 1> table{};
    const double sigma = 0.1;
    const double norm = 1.0 / (sigma * std::sqrt(2.0 * std::numbers::pi));
    for (int i = -rangeHalfWidth; i <= rangeHalfWidth; ++i) {
        const double x = i / 1000.0;
        const double density = norm * std::exp(-(x * x) / (2.0 * sigma * sigma));
        char text[32];
        std::snprintf(text, sizeof text, "%.5e", density);
        table[i + rangeHalfWidth] = std::strtod(text, nullptr);
    }
    return table;
}

constexpr int spatialKernel[5][5] = {{2, 7, 12, 7, 2},
                                     {7, 31, 52, 31, 7},
                                     {12, 52, 127, 52, 12},
                                     {7, 31, 52, 31, 7},
                                     {2, 7, 12, 7, 2}};

// The filtered pixel's dark value: its smallest colour channel.
inline float darkValue(const float* f) {
    return std::min(f[0], std::min(f[1], f[2]));
}

inline const float* floatRow(const ZImage& image, int y) {
    return reinterpret_cast<const float*>(image.PixelAt(0, y));
}

} // namespace

const double* rangeTableCentre() {
    static const std::array<double, 2 * rangeHalfWidth + 1> table = makeRangeTable();
    return table.data() + rangeHalfWidth;
}

double rangeWeight(int index) {
    index = std::clamp(index, -rangeHalfWidth, rangeHalfWidth);
    return rangeTableCentre()[index];
}

double spatialWeight(int dx, int dy) {
    return spatialKernel[2 + dx][2 + dy] / 571.0;
}

} // namespace haze

HazeWorkingSize hazeWorkingSize(int width, int height) {
    Z_CHECK(width > 0 && height > 0, Z_INVALID_PARAMETER);
    // 64 bits: in 32 the product wraps for panoramas wider than 21474 pixels.
    const std::int64_t area = static_cast<std::int64_t>(width) * 100000;
    const double side = std::sqrt(static_cast<double>(area) / height);
    const int w = std::max(1, static_cast<int>(side));
    const std::int64_t h = static_cast<std::int64_t>(height) * w / width;
    return {w, static_cast<int>(std::max<std::int64_t>(1, h))};
}

std::unique_ptr<float[]> ZImage::estimateDarkChannel(std::span<float, 3> airlight) const {
    Z_CHECK(BitmapType() == RGBA, Z_INVALID_BITMAP);
    Z_CHECK(BitsPerComponent() == 32, Z_INVALID_BITMAP);
    const int w = Width();
    const int h = Height();
    Z_CHECK(w > 0 && h > 0, Z_INVALID_BITMAP);
    const std::size_t pixels = static_cast<std::size_t>(w) * h;
    const int threads = haze::regionThreads(pixels);

    // Per-channel window minimum; alpha is filtered along and never read.
    std::vector<float> filtered(pixels * 4);
    const std::ptrdiff_t pitch = static_cast<std::ptrdiff_t>(w) * 4;
    const prim::FloatPlane source{reinterpret_cast<float*>(bitmap->data),
                                  bitmap->bytesPerLine / static_cast<std::ptrdiff_t>(sizeof(float)),
                                  w, h};
    const prim::FloatPlane target{filtered.data(), pitch, w, h};
    prim::minFilter(source, target, 4, haze::windowRadius(w, h), threads);

    // Airlight candidates: the keepRows x w pixels of largest dark value,
    // kept in one serial pass. Seed with the first rows, then let a pixel in
    // only if it beats the smallest candidate; the test keeps almost every
    // pixel out, so this is close to a plain scan.
    const int keepRows = haze::candidateRows(h);
    haze::TopPixelMap top;
    for (int y = 0; y < keepRows; ++y) {
        const float* row = haze::floatRow(*this, y);
        const float* frow = filtered.data() + y * pitch;
        for (int x = 0; x < w; ++x)
            top.insert(haze::darkValue(frow + 4 * x), row + 4 * x);
    }
    float smallest = top.smallestKey();
    for (int y = keepRows; y < h; ++y) {
        const float* row = haze::floatRow(*this, y);
        const float* frow = filtered.data() + y * pitch;
        for (int x = 0; x < w; ++x) {
            const float dark = haze::darkValue(frow + 4 * x);
            if (dark > smallest) {
                top.replaceSmallest(dark, row + 4 * x);
                smallest = top.smallestKey();
            }
        }
    }

    // The most luminous candidate, a real pixel of the unfiltered image; of
    // equal luminances the first met in map order wins.
    float best = -1.0f;
    const float* winner = nullptr;
    for (const auto& [dark, pixel] : top) {
        const float luminance =
            static_cast<float>(0.3 * pixel[0] + 0.59 * pixel[1] + 0.11 * pixel[2]);
        if (best < luminance) {
            best = luminance;
            winner = pixel;
        }
    }
    // Only luminances that are NaN or below -1 (never in a photograph) leave
    // no winner; the first candidate then stands in.
    if (!winner) winner = top.begin()->second;
    std::copy(winner, winner + 3, airlight.begin());

    // Normalised dark channel. A zero airlight channel gives infinities or
    // NaNs here; later stages accept them (a black picture has no haze).
    auto map = std::make_unique_for_overwrite<float[]>(pixels);
    const float a0 = airlight[0];
    const float a1 = airlight[1];
    const float a2 = airlight[2];
    float* const out = map.get();
    const float* const fdata = filtered.data();
#pragma omp parallel for schedule(static) num_threads(threads)
    for (int y = 0; y < h; ++y) {
        const float* f = fdata + y * pitch;
        float* d = out + static_cast<std::size_t>(y) * w;
        for (int x = 0; x < w; ++x, f += 4)
            d[x] = std::min({f[0] / a0, f[1] / a1, f[2] / a2});
    }
    return map;
}

namespace {

void checkUpsamplingInputs(const ZImage& full, const ZImage& working, const float* map) {
    Z_CHECK(full.BitmapType() == ZImage::RGBA, Z_INVALID_BITMAP);
    Z_CHECK(full.BitsPerComponent() == 32, Z_INVALID_BITMAP);
    Z_CHECK(working.BitmapType() == ZImage::RGBA, Z_INVALID_BITMAP);
    Z_CHECK(working.BitsPerComponent() == 32, Z_INVALID_BITMAP);
    Z_CHECK(map, Z_INVALID_PARAMETER);
    Z_CHECK(working.Width() > 0 && working.Height() > 0, Z_INVALID_BITMAP);
}

} // namespace

std::unique_ptr<float[]> ZImage::upsampleDarkChannel(const float* map,
                                                     const ZImage& working) const {
    checkUpsamplingInputs(*this, working, map);
    const int w = Width();
    const int h = Height();
    const int threads = haze::regionThreads(static_cast<std::size_t>(w) * h);
    const haze::RowUpsampler upsampler(working, map, w, h);
    auto result = std::make_unique_for_overwrite<float[]>(static_cast<std::size_t>(w) * h);
    float* const out = result.get();
#pragma omp parallel for schedule(static) num_threads(threads)
    for (int y = 0; y < h; ++y)
        upsampler.depthRow(haze::floatRow(*this, y), y, out + static_cast<std::size_t>(y) * w);
    return result;
}

void ZImage::applyHazeRemoval(const float* airDepthMap, std::span<const float, 3> airlight,
                              float strength) {
    Z_CHECK(BitmapType() == RGBA, Z_INVALID_BITMAP);
    Z_CHECK(BitsPerComponent() == 32, Z_INVALID_BITMAP);
    Z_CHECK(airDepthMap, Z_INVALID_PARAMETER);
    const int w = Width();
    const int h = Height();
    const int threads = haze::regionThreads(static_cast<std::size_t>(w) * h);
    const float a[3] = {airlight[0], airlight[1], airlight[2]};

#pragma omp parallel for schedule(static) num_threads(threads)
    for (int y = 0; y < h; ++y) {
        float* p = reinterpret_cast<float*>(PixelAt(0, y));
        const float* m = airDepthMap + static_cast<std::size_t>(y) * w;
        for (int x = 0; x < w; ++x, p += 4)
            haze::applyPixel(p, m[x], a, strength);
    }
}

void ZImage::upsampleAndApplyHazeRemoval(const float* map, const ZImage& working,
                                         std::span<const float, 3> airlight, float strength) {
    checkUpsamplingInputs(*this, working, map);
    const int w = Width();
    const int h = Height();
    const int threads = haze::regionThreads(static_cast<std::size_t>(w) * h);
    const haze::RowUpsampler upsampler(working, map, w, h);
    const float a[3] = {airlight[0], airlight[1], airlight[2]};
#pragma omp parallel for schedule(static) num_threads(threads)
    for (int y = 0; y < h; ++y)
        upsampler.dehazeRow(reinterpret_cast<float*>(PixelAt(0, y)), y, a, strength);
}

void runHazeRemoval(ZImage& image, HazeSettings& settings, DepthMap depthMap) {
    if (settings.strength == 0) return;
    const float s = static_cast<float>(settings.strength / 100.0);
    if (!settings.airDepthMap) {
        const HazeWorkingSize size = hazeWorkingSize(image.Width(), image.Height());
        ZImage working;
        image.ResizeTo(working, size.width, size.height, 0, 0.0, 0.0, 0.0, 0.0);
        std::unique_ptr<float[]> map = working.estimateDarkChannel(settings.airlight);
        // The window blocks of the estimate give way to the edges of the
        // picture before the map is carried to full size.
        working.refineDarkChannel(
            std::span<float>(map.get(), static_cast<std::size_t>(size.width) * size.height));
        if (depthMap == DepthMap::Discard) {
            // Nobody asks for the map again: it is made row by row and used
            // at once, never written at full size.
            image.upsampleAndApplyHazeRemoval(map.get(), working, settings.airlight, s);
            return;
        }
        settings.airDepthMap = image.upsampleDarkChannel(map.get(), working);
    }
    image.applyHazeRemoval(settings.airDepthMap.get(), settings.airlight, s);
}

namespace {

// The way back of the common case, to 8-bit RGB or RGBA, in one pass instead
// of ZImage::Copy's chains with their scratch images and with the same
// values: a float goes through floatToByte, alpha dropped first when the
// target has none (the way in is ZImage::ByteRowsToFloat). Writes over the
// band when the target has no alpha: its colours are packed to the front of
// each row, which the band no longer needs.
void bandToBytes(ZImage& band, int rows, ZImage& target, int y0) {
    const int w = target.Width();
    int channels = 4;
    if (target.BitmapType() == ZImage::RGB) {
        channels = 3;
        for (int r = 0; r < rows; ++r) {
            float* p = reinterpret_cast<float*>(band.PixelAt(0, r));
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < 3; ++c)
                    p[3 * x + c] = p[4 * x + c];
        }
    }
    prim::convertDepth<float, std::uint8_t>(
        {reinterpret_cast<const float*>(band.PixelAt(0, 0)), band.BytesPerLine(), channels},
        {target.PixelAt(0, y0), target.BytesPerLine(), channels}, w, rows);
}

} // namespace

void runHazeRemovalInto(const ZImage& source, HazeSettings& settings, ZImage& target,
                        int colourType, int depth, const std::function<void(int rows)>& rowsReady) {
    const int w = source.Width();
    const int h = source.Height();
    Z_CHECK(w > 0 && h > 0, Z_INVALID_BITMAP);
    Z_CHECK(ZImage::ComponentsOfType(source.BitmapType()) > 0, Z_INVALID_BITMAP);
    const float s = static_cast<float>(settings.strength / 100.0);

    // The map at working size, as runHazeRemoval makes it; the working copy
    // is resampled from rows converted on the way.
    ZImage working;
    std::unique_ptr<float[]> map;
    std::optional<haze::RowUpsampler> upsampler;
    if (settings.strength != 0 && !settings.airDepthMap) {
        const HazeWorkingSize size = hazeWorkingSize(w, h);
        source.ResizeAsFloatTo(working, size.width, size.height);
        map = working.estimateDarkChannel(settings.airlight);
        working.refineDarkChannel(
            std::span<float>(map.get(), static_cast<std::size_t>(size.width) * size.height));
        upsampler.emplace(working, map.get(), w, h);
    }
    target.Create(w, h, colourType, depth, false);

    // Bands of rows go from the source's format to RGBA float, lose their
    // haze and go on to the target's format while they are in the cache.
    // Threads take bands in order, each with its own band buffer. Whoever
    // finds the caller's rowsReady free hands it the complete rows at the
    // front and goes back to bands: an encoder fed from there keeps pace on
    // the cores that the bands leave to it, and only its last rows wait for
    // the bands to end.
    constexpr int bandRows = 8;
    const int bands = (h + bandRows - 1) / bandRows;
    const int threads = haze::regionThreads(static_cast<std::size_t>(w) * h);
    const float a[3] = {settings.airlight[0], settings.airlight[1], settings.airlight[2]};
    const float* cached = settings.airDepthMap.get();
    std::vector<ZImage> buffers(static_cast<std::size_t>(threads));
    for (ZImage& buffer : buffers)
        buffer.Create(w, bandRows, ZImage::RGBA, 32, false);
    const bool bytesIn = source.IsByteColour();
    const bool bytesOut = target.IsByteColour();
    const auto complete = std::make_unique<std::atomic<bool>[]>(static_cast<std::size_t>(bands));
    std::atomic<int> nextBand{0};
    std::mutex reporting;
    int reported = 0; // bands told to rowsReady, under `reporting`
    auto report = [&] {
        int front = reported;
        while (front < bands &&
               complete[static_cast<std::size_t>(front)].load(std::memory_order_acquire))
            ++front;
        if (front == reported) return;
        reported = front;
        rowsReady(std::min(h, front * bandRows));
    };
    std::exception_ptr failure;
#pragma omp parallel num_threads(threads)
    {
        ZImage& buffer = buffers[static_cast<std::size_t>(omp_get_thread_num())];
        for (;;) {
            if (rowsReady && reporting.try_lock()) {
                const std::lock_guard<std::mutex> held(reporting, std::adopt_lock);
                report();
            }
            const int band = nextBand.fetch_add(1, std::memory_order_relaxed);
            if (band >= bands) break;
            try {
                const int y0 = band * bandRows;
                const int rows = std::min(bandRows, h - y0);
                if (bytesIn)
                    source.ByteRowsToFloat(y0, rows, reinterpret_cast<float*>(buffer.PixelAt(0, 0)),
                                           buffer.BytesPerLine());
                else
                    source.Copy(0, y0, w, rows, buffer, 0, 0);
                if (settings.strength != 0)
                    for (int r = 0; r < rows; ++r) {
                        float* p = reinterpret_cast<float*>(buffer.PixelAt(0, r));
                        if (upsampler) {
                            upsampler->dehazeRow(p, y0 + r, a, s);
                        } else {
                            const float* m = cached + static_cast<std::size_t>(y0 + r) * w;
                            for (int x = 0; x < w; ++x)
                                haze::applyPixel(p + 4 * x, m[x], a, s);
                        }
                    }
                if (bytesOut)
                    bandToBytes(buffer, rows, target, y0);
                else
                    buffer.Copy(0, 0, w, rows, target, 0, y0);
            } catch (...) {
#pragma omp critical(hazeBandFailure)
                if (!failure) failure = std::current_exception();
            }
            complete[static_cast<std::size_t>(band)].store(true, std::memory_order_release);
        }
    }
    if (failure) std::rethrow_exception(failure);
    if (rowsReady) report();
}
