// Small RGBA float images for the haze tests, and brute-force references.
#pragma once

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

inline void fill(ZImage& image, const std::function<Rgba(int, int)>& colour) {
    for (int y = 0; y < image.Height(); ++y)
        for (int x = 0; x < image.Width(); ++x) {
            const Rgba c = colour(x, y);
            float* p = pixel(image, x, y);
            p[0] = c.r;
            p[1] = c.g;
            p[2] = c.b;
            p[3] = c.a;
        }
}

inline ZImage makeImage(int width, int height, const std::function<Rgba(int, int)>& colour) {
    ZImage image(width, height, ZImage::RGBA, 32);
    fill(image, colour);
    return image;
}

// Opaque pixels with colour channels uniform in [lo, hi).
inline ZImage randomImage(int width, int height, unsigned seed, float lo = 0.0f, float hi = 1.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(lo, hi);
    return makeImage(width, height, [&](int, int) {
        const float r = value(rng);
        const float g = value(rng);
        const float b = value(rng);
        return Rgba{r, g, b, 1.0f};
    });
}

// The pixels, row by row, without row padding.
inline std::vector<float> pixels(const ZImage& image) {
    std::vector<float> out;
    out.reserve(static_cast<std::size_t>(image.Width()) * image.Height() * 4);
    for (int y = 0; y < image.Height(); ++y) {
        const float* row = pixel(image, 0, y);
        out.insert(out.end(), row, row + 4 * image.Width());
    }
    return out;
}

// Bitwise equality, so that NaNs compare equal to themselves.
inline bool sameBits(const float* a, const float* b, std::size_t count) {
    return std::memcmp(a, b, count * sizeof(float)) == 0;
}

// Minimum over the clipped window, one channel of an interleaved plane.
inline std::vector<float> naiveMinFilter(const std::vector<float>& in, int width, int height,
                                         int channels, int radius) {
    std::vector<float> out(in.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) {
                float m = in[(static_cast<std::size_t>(y) * width + x) * channels + c];
                for (int v = std::max(0, y - radius); v <= std::min(height - 1, y + radius); ++v)
                    for (int u = std::max(0, x - radius); u <= std::min(width - 1, x + radius); ++u)
                        m = std::min(m,
                                     in[(static_cast<std::size_t>(v) * width + u) * channels + c]);
                out[(static_cast<std::size_t>(y) * width + x) * channels + c] = m;
            }
    return out;
}

// Sets the process-wide thread count for one scope.
class ThreadCountScope {
public:
    explicit ThreadCountScope(int count);
    ~ThreadCountScope();
    ThreadCountScope(const ThreadCountScope&) = delete;
    ThreadCountScope& operator=(const ThreadCountScope&) = delete;

private:
    int saved;
};

} // namespace hazetest

#include "ZImage/ThreadCount.h"

inline hazetest::ThreadCountScope::ThreadCountScope(int count) : saved(threadCount) {
    threadCount = count;
}
inline hazetest::ThreadCountScope::~ThreadCountScope() {
    threadCount = saved;
}
