// Small RGBA float images for the haze tests, and a brute-force minimum filter.
#pragma once

#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

namespace hazetest {

struct Rgba {
    float r, g, b, a;
};

inline float* pixel(const ZImage& image, int x, int y) {
    return reinterpret_cast<float*>(image.PixelAt(x, y));
}

inline ZImage makeImage(int width, int height, const std::function<Rgba(int, int)>& colour) {
    ZImage image(width, height, ZImage::RGBA, 32);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const Rgba c = colour(x, y);
            std::memcpy(pixel(image, x, y), &c, sizeof c);
        }
    return image;
}

// Opaque pixels with colour channels uniform in [lo, hi).
inline ZImage randomImage(int width, int height, unsigned seed, float lo = 0.0f, float hi = 1.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(lo, hi);
    return makeImage(width, height, [&](int, int) {
        const float r = value(rng), g = value(rng), b = value(rng);
        return Rgba{r, g, b, 1.0f};
    });
}

// The pixels, row by row, without row padding.
inline std::vector<float> pixels(const ZImage& image) {
    std::vector<float> out;
    for (int y = 0; y < image.Height(); ++y)
        out.insert(out.end(), pixel(image, 0, y), pixel(image, 0, y) + 4 * image.Width());
    return out;
}

// Bitwise equality, so that NaNs compare equal to themselves.
inline bool sameBits(const float* a, const float* b, std::size_t count) {
    return std::memcmp(a, b, count * sizeof(float)) == 0;
}

// Minimum over the clipped window, each channel of an interleaved plane.
inline std::vector<float> naiveMinFilter(const std::vector<float>& in, int width, int height,
                                         int channels, int radius) {
    std::vector<float> out(in.size());
    auto at = [&](int x, int y, int c) {
        return (static_cast<std::size_t>(y) * width + x) * channels + c;
    };
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) {
                float m = in[at(x, y, c)];
                for (int v = std::max(0, y - radius); v <= std::min(height - 1, y + radius); ++v)
                    for (int u = std::max(0, x - radius); u <= std::min(width - 1, x + radius); ++u)
                        m = std::min(m, in[at(u, v, c)]);
                out[at(x, y, c)] = m;
            }
    return out;
}

// Sets the process-wide thread count for one scope.
class ThreadCountScope {
public:
    explicit ThreadCountScope(int count) : saved(threadCount) { threadCount = count; }
    ~ThreadCountScope() { threadCount = saved; }
    ThreadCountScope(const ThreadCountScope&) = delete;
    ThreadCountScope& operator=(const ThreadCountScope&) = delete;

private:
    int saved;
};

} // namespace hazetest
