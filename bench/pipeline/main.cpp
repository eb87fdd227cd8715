// bench_pipeline: time of each haze removal stage on a 24-megapixel RGBA float
// picture, with 1 and 2 threads, set against the memory bandwidth measured in
// the same run. The two full-size passes (upsample, apply) should be limited
// by memory or by their table look-ups, not by anything the picture's size
// adds; the working-size stages (estimate) should not depend on it at all.
//
//   bench_pipeline [megapixels]      default 24
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"

#include <omp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double processCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

// CPU seconds of the process during the last bestSeconds call's best run: on
// a shared machine the wall time includes waiting for the cores, the CPU time
// does not.
double lastCpuSeconds = 0.0;

template <typename F>
double bestSeconds(int repeats, F&& body) {
    double best = 1e30;
    for (int r = 0; r < repeats; ++r) {
        const double cpu = processCpuSeconds();
        const auto start = Clock::now();
        body();
        const double wall = std::chrono::duration<double>(Clock::now() - start).count();
        if (wall < best) {
            best = wall;
            lastCpuSeconds = processCpuSeconds() - cpu;
        }
    }
    return best;
}

// Bytes per second of a stream triad a = b + s c over arrays far larger than
// the caches, with `threads` threads; counts 3 arrays moved (the write
// allocation of a is not counted, as in STREAM).
double triadBandwidth(int threads) {
    const std::size_t n = std::size_t{1} << 25; // 128 MiB per array
    std::vector<float> a(n), b(n, 1.0f), c(n, 2.0f);
    const float s = 0.5f;
    const double seconds = bestSeconds(4, [&] {
#pragma omp parallel for schedule(static) num_threads(threads)
        for (std::size_t i = 0; i < n; ++i)
            a[i] = b[i] + s * c[i];
    });
    volatile float sink = a[n / 2];
    (void)sink;
    return 3.0 * n * sizeof(float) / seconds;
}

double memcpyBandwidth() {
    const std::size_t bytes = std::size_t{1} << 28;
    std::vector<char> from(bytes, 1), to(bytes);
    const double seconds = bestSeconds(3, [&] { std::memcpy(to.data(), from.data(), bytes); });
    return 2.0 * bytes / seconds;
}

// A hazy landscape: a pale sky, a haze that thins towards the bottom, and
// texture so that the dark channel and the bilateral weights see real work.
void paint(ZImage& image) {
    const int w = image.Width(), h = image.Height();
#pragma omp parallel for schedule(static)
    for (int y = 0; y < h; ++y) {
        float* p = reinterpret_cast<float*>(image.PixelAt(0, y));
        const float haze = 1.0f - static_cast<float>(y) / h;
        for (int x = 0; x < w; ++x, p += 4) {
            const float tex = 0.5f + 0.5f * std::sin(0.05f * x) * std::cos(0.07f * y);
            const float t = y < h / 5 ? 0.0f : 1.0f - 0.8f * haze;
            p[0] = 0.2f * tex * t + 0.85f * (1 - t);
            p[1] = 0.5f * tex * t + 0.88f * (1 - t);
            p[2] = 0.1f * tex * t + 0.92f * (1 - t);
            p[3] = 1.0f;
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    const double megapixels = argc > 1 ? std::atof(argv[1]) : 24.0;
    const int w = static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 * 1.5)));
    const int h = static_cast<int>(std::lround(megapixels * 1e6 / w));
    const double pixels = static_cast<double>(w) * h;

    std::printf("haze pipeline on %d x %d RGBA float (%.1f MP, %.0f MiB)\n", w, h, pixels / 1e6,
                pixels * 16 / (1 << 20));
    const double copyBw = memcpyBandwidth();
    std::printf("memcpy bandwidth            %7.2f GB/s (read + write)\n", copyBw / 1e9);

    ZImage source(w, h, ZImage::RGBA, 32, false);
    paint(source);
    const HazeWorkingSize size = hazeWorkingSize(w, h);
    std::printf("working image %d x %d\n\n", size.width, size.height);

    // Bytes each full-size stage moves per pixel: resize reads the picture;
    // upsample reads it and writes the map (plus the map's write allocation);
    // apply reads picture and map and writes the picture back.
    const double resizeBytes = 16, upsampleBytes = 16 + 4 + 4, applyBytes = 16 + 4 + 16;

    double seconds[2][4] = {};
    for (int threads = 1; threads <= 2; ++threads) {
        threadCount = threads;
        const double triad = triadBandwidth(threads);
        std::printf("threads %d: triad bandwidth %7.2f GB/s\n", threads, triad / 1e9);

        ZImage working;
        const double tResize = bestSeconds(
            2, [&] { source.ResizeTo(working, size.width, size.height, 0, 0.0, 0.0, 0.0, 0.0); });
        const double cResize = lastCpuSeconds;
        std::array<float, 3> airlight{};
        std::unique_ptr<float[]> dark;
        const double tEstimate =
            bestSeconds(5, [&] { dark = working.estimateDarkChannel(airlight); });
        const double cEstimate = lastCpuSeconds;
        std::unique_ptr<float[]> depth;
        const double tUpsample =
            bestSeconds(1, [&] { depth = source.upsampleDarkChannel(dark.get(), working); });
        const double cUpsample = lastCpuSeconds;
        ZImage image;
        image.CopyFrom(source);
        const double tApply =
            bestSeconds(1, [&] { image.applyHazeRemoval(depth.get(), airlight, 0.6f); });
        const double cApply = lastCpuSeconds;

        ZImage fusedImage;
        fusedImage.CopyFrom(source);
        const double tFused = bestSeconds(3, [&] {
            fusedImage.upsampleAndApplyHazeRemoval(dark.get(), working, airlight, 0.6f);
        });
        std::printf("  fused %8.1f ms (cpu %7.1f ms)\n", tFused * 1e3, lastCpuSeconds * 1e3);
        const double t[4] = {tResize, tEstimate, tUpsample, tApply};
        std::copy(t, t + 4, seconds[threads - 1]);
        auto line = [&](const char* name, double s, double cpu, double bytesPerPixel) {
            const double rate = bytesPerPixel * pixels / s;
            std::printf("  %-9s %8.1f ms (cpu %7.1f ms)  %6.1f ns/px  %2.0f B/px  %6.2f GB/s  "
                        "%5.1f %% of triad\n",
                        name, s * 1e3, cpu * 1e3, s * 1e9 / pixels, bytesPerPixel, rate / 1e9,
                        100.0 * rate / triad);
        };
        line("resize", tResize, cResize, resizeBytes);
        std::printf("  %-9s %8.2f ms (cpu %7.2f ms)  %6.1f ns per working pixel\n", "estimate",
                    tEstimate * 1e3, cEstimate * 1e3,
                    tEstimate * 1e9 / (static_cast<double>(size.width) * size.height));
        line("upsample", tUpsample, cUpsample, upsampleBytes);
        line("apply", tApply, cApply, applyBytes);
        std::printf("  first run %.0f ms, change of strength %.0f ms\n\n",
                    (tResize + tEstimate + tUpsample + tApply) * 1e3, tApply * 1e3);
    }
    threadCount = 1;

    std::printf("speed-up with 2 threads:");
    const char* names[4] = {"resize", "estimate", "upsample", "apply"};
    for (int s = 0; s < 4; ++s)
        std::printf("  %s %.2fx", names[s], seconds[0][s] / seconds[1][s]);
    std::printf("\n");
    return 0;
}
