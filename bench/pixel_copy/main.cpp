// bench_pixel_copy: ZImage::CopyTo on a 6000 x 4000 picture for the four
// conversions on the road of a photograph through the haze code (8-bit and
// 16-bit RGB into float RGBA and back), in GB/s of bytes read plus bytes
// written, next to memcpy of the target's bytes measured in the same run.
//
// Usage: bench_pixel_copy [--threads N] [--repeat N] [--width W --height H]
// Without --threads it measures one thread and then two.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int width = 6000;
    int height = 4000;
    int repeat = 3;
    std::vector<int> threads{1, 2};
};

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const int value = std::max(1, std::atoi(argv[i + 1]));
        if (key == "--threads")
            o.threads = {value};
        else if (key == "--repeat")
            o.repeat = value;
        else if (key == "--width")
            o.width = value;
        else if (key == "--height")
            o.height = value;
    }
    return o;
}

// Best wall time of `repeat` runs, in seconds.
template <typename Run>
double bestOf(int repeat, Run&& run) {
    double best = 1e30;
    for (int i = 0; i < repeat; ++i) {
        const auto start = Clock::now();
        run();
        best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
    }
    return best;
}

std::size_t pixelBytes(const ZImage& image) {
    return static_cast<std::size_t>(image.BytesPerPixel()) * image.Width() * image.Height();
}

// A picture with every component in its normal range, varied enough that no
// branch or cache trick sees a constant.
ZImage makeSource(int width, int height, int type, int bits) {
    ZImage image(width, height, type, bits, false);
    std::uint32_t state = 12345;
    for (int y = 0; y < height; ++y) {
        std::uint8_t* row = image.PixelAt(0, y);
        const int components = image.BytesPerPixel() * width / (bits / 8);
        for (int i = 0; i < components; ++i) {
            state = state * 1664525u + 1013904223u;
            const std::uint32_t r = state >> 8;
            if (bits == 32) {
                const float v = static_cast<float>(r & 0xFFFF) / 65535.0f;
                std::memcpy(row + 4 * i, &v, 4);
            } else if (bits == 16) {
                const auto v = static_cast<std::uint16_t>(r);
                std::memcpy(row + 2 * i, &v, 2);
            } else {
                row[i] = static_cast<std::uint8_t>(r);
            }
        }
    }
    return image;
}

struct Case {
    const char* name;
    int fromType, fromBits, toType, toBits;
};

} // namespace

int main(int argc, char** argv) {
    const Options o = parse(argc, argv);
    const Case cases[] = {
        {"B RGB  -> F RGBA", ZImage::RGB, 8, ZImage::RGBA, 32},
        {"F RGBA -> B RGB ", ZImage::RGBA, 32, ZImage::RGB, 8},
        {"W RGB  -> F RGBA", ZImage::RGB, 16, ZImage::RGBA, 32},
        {"F RGBA -> W RGB ", ZImage::RGBA, 32, ZImage::RGB, 16},
    };
    std::printf("pixel format copy, %d x %d pixels, best of %d\n", o.width, o.height, o.repeat);
    std::printf("GB/s count bytes read + bytes written; memcpy copies the target's bytes\n\n");
    std::printf("%-18s %7s %9s %9s %10s %8s\n", "conversion", "threads", "ms", "GB/s",
                "memcpy GB/s", "ratio");

    for (const Case& c : cases) {
        const ZImage source = makeSource(o.width, o.height, c.fromType, c.fromBits);
        ZImage target;
        source.CopyTo(target, c.toType, c.toBits); // allocate and touch the target once
        const std::size_t traffic = pixelBytes(source) + pixelBytes(target);

        std::vector<std::uint8_t> from(pixelBytes(target), 1), to(pixelBytes(target), 0);
        for (const int threads : o.threads) {
            threadCount = threads;
            const double copy =
                bestOf(o.repeat, [&] { source.CopyTo(target, c.toType, c.toBits); });
            const double reference =
                bestOf(o.repeat, [&] { std::memcpy(to.data(), from.data(), from.size()); });
            const double rate = traffic / copy / 1e9;
            const double memcpyRate = 2.0 * from.size() / reference / 1e9;
            std::printf("%-18s %7d %9.1f %9.2f %10.2f %8.2f\n", c.name, threads, copy * 1e3, rate,
                        memcpyRate, rate / memcpyRate);
        }
    }
    return 0;
}
