// The haze removal stages on ZImage, and the run that chains them.
//
// estimateDarkChannel works on the small working image: a clipped square
// minimum filter (primitives/MinFilter), a bounded ordered map of the
// brightest dark values fed in one serial pass, the airlight as the most
// luminous of those pixels, and the dark channel normalised by the airlight.
// upsampleDarkChannel carries that map to the full image by a joint bilateral
// filter over the 3 x 3 working neighbourhood; applyHazeRemoval inverts the
// haze model with the user's strength. Both full-size passes are table
// look-ups only, with no allocation per pixel.
//
// Every buffer belongs to an object (vectors, unique_ptr, ZImage), so an
// exception from any stage leaves nothing behind. Exceptions never cross an
// OpenMP region: all allocation happens before the regions start.
#include "ZImage/ZImageHaze.h"

#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze_p.h"
#include "primitives/MinFilter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
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

const double* rangeTableCentre() {
    static const std::array<double, 2 * rangeHalfWidth + 1> table = makeRangeTable();
    return table.data() + rangeHalfWidth;
}

constexpr int spatialKernel[5][5] = {{2, 7, 12, 7, 2},
                                     {7, 31, 52, 31, 7},
                                     {12, 52, 127, 52, 12},
                                     {7, 31, 52, 31, 7},
                                     {2, 7, 12, 7, 2}};

// The 3 x 3 centre of K, the only part the upsampling reaches, as [1 + dx][1 + dy].
struct SpatialCentre {
    double w[3][3];
};

SpatialCentre spatialCentre() {
    SpatialCentre k{};
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy)
            k.w[dx + 1][dy + 1] = spatialWeight(dx, dy);
    return k;
}

// The filtered pixel's dark value: its smallest colour channel.
inline float darkValue(const float* f) {
    return std::min(f[0], std::min(f[1], f[2]));
}

inline const float* floatRow(const ZImage& image, int y) {
    return reinterpret_cast<const float*>(image.PixelAt(0, y));
}

// The opaque working pixels round (xs, ys), clipped to the working image.
struct Neighbourhood {
    int count = 0;
    float colour[9][3];
    double spatial[9];
    float value[9];

    void gather(const ZImage& working, const float* map, const SpatialCentre& k, int xs, int ys,
                int dy0, int dy1) {
        const int sw = working.Width();
        const int dx0 = std::max(-1, -xs);
        const int dx1 = std::min(2, sw - xs);
        count = 0;
        for (int dy = dy0; dy < dy1; ++dy) {
            const float* row = floatRow(working, ys + dy);
            const float* m = map + static_cast<std::size_t>(ys + dy) * sw;
            for (int dx = dx0; dx < dx1; ++dx) {
                const float* q = row + 4 * (xs + dx);
                if (q[3] == 0.0f) continue;
                std::copy(q, q + 3, colour[count]);
                spatial[count] = k.w[1 + dx][1 + dy];
                value[count] = m[xs + dx];
                ++count;
            }
        }
    }
};

} // namespace

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

std::unique_ptr<float[]> ZImage::upsampleDarkChannel(const float* map,
                                                     const ZImage& working) const {
    Z_CHECK(BitmapType() == RGBA, Z_INVALID_BITMAP);
    Z_CHECK(BitsPerComponent() == 32, Z_INVALID_BITMAP);
    Z_CHECK(working.BitmapType() == RGBA, Z_INVALID_BITMAP);
    Z_CHECK(working.BitsPerComponent() == 32, Z_INVALID_BITMAP);
    Z_CHECK(map, Z_INVALID_PARAMETER);
    const int w = Width();
    const int h = Height();
    const int sw = working.Width();
    const int sh = working.Height();
    Z_CHECK(sw > 0 && sh > 0, Z_INVALID_BITMAP);
    const int threads = haze::regionThreads(static_cast<std::size_t>(w) * h);

    const float fx = static_cast<float>(sw) / static_cast<float>(w);
    const float fy = static_cast<float>(sh) / static_cast<float>(h);
    const double* const G = haze::rangeTableCentre();
    const haze::SpatialCentre K = haze::spatialCentre();

    auto result = std::make_unique_for_overwrite<float[]>(static_cast<std::size_t>(w) * h);
    float* const out = result.get();
#pragma omp parallel for schedule(static) num_threads(threads)
    for (int y = 0; y < h; ++y) {
        const float* p = haze::floatRow(*this, y);
        float* o = out + static_cast<std::size_t>(y) * w;
        // The minimum only guards against float rounding for pictures
        // millions of pixels wide; below that, y * fy < sh always.
        const int ys = std::min(static_cast<int>(static_cast<float>(y) * fy), sh - 1);
        const int dy0 = std::max(-1, -ys);
        const int dy1 = std::min(2, sh - ys);
        // Runs of full pixels share one working neighbourhood; its opaque
        // members are gathered once per run, in the order dy outer, dx inner,
        // which is also the order of the sums.
        haze::Neighbourhood near;
        int nearXs = -1;
        for (int x = 0; x < w; ++x, p += 4) {
            if (p[3] == 0.0f) {
                o[x] = 0.0f;
                continue;
            }
            const int xs = std::min(static_cast<int>(static_cast<float>(x) * fx), sw - 1);
            if (xs != nearXs) {
                near.gather(working, map, K, xs, ys, dy0, dy1);
                nearXs = xs;
            }
            float weightSum = 0.0f;
            float valueSum = 0.0f;
            for (int i = 0; i < near.count; ++i) {
                const float* q = near.colour[i];
                const int i0 = haze::rangeIndex(p[0] - q[0]);
                const int i1 = haze::rangeIndex(p[1] - q[1]);
                const int i2 = haze::rangeIndex(p[2] - q[2]);
                const float wt = static_cast<float>(G[i0] * near.spatial[i] * G[i1] * G[i2]);
                weightSum += wt;
                valueSum += wt * near.value[i];
            }
            o[x] = weightSum == 0.0f ? 0.0f : valueSum / weightSum;
        }
    }
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
        for (int x = 0; x < w; ++x, p += 4) {
            if (p[3] == 0.0f) continue;
            float t = static_cast<float>(1.0 - m[x] * strength);
            // A floor on the transmission keeps dense haze from blowing up
            // noise; there is no ceiling, so a negative map brightens.
            if (t < 0.1) t = 0.1f;
            for (int c = 0; c < 3; ++c) {
                float j = (p[c] - a[c]) / t + a[c];
                // Values above 1.0 stay for the conversion to the output format.
                if (j < 0.0f) j = 0.0f;
                p[c] = j;
            }
        }
    }
}

void runHazeRemoval(ZImage& image, HazeSettings& settings) {
    if (settings.strength == 0) return;
    if (!settings.airDepthMap) {
        const HazeWorkingSize size = hazeWorkingSize(image.Width(), image.Height());
        ZImage working;
        image.ResizeTo(working, size.width, size.height, 0, 0.0, 0.0, 0.0, 0.0);
        std::unique_ptr<float[]> map = working.estimateDarkChannel(settings.airlight);
        // The window blocks of the estimate give way to the edges of the
        // picture before the map is carried to full size.
        working.refineDarkChannel(
            std::span<float>(map.get(), static_cast<std::size_t>(size.width) * size.height));
        settings.airDepthMap = image.upsampleDarkChannel(map.get(), working);
    }
    const float s = static_cast<float>(settings.strength / 100.0);
    image.applyHazeRemoval(settings.airDepthMap.get(), settings.airlight, s);
}
