#include "primitives/Resample.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

namespace prim {
namespace {

// The source taps of one target index along one axis.
struct Taps {
    std::vector<int> first;     // per target index: first source index
    std::vector<int> count;     // per target index: number of taps
    std::vector<int> offset;    // per target index: start in `weight`
    std::vector<double> weight; // normalised weights
};

Taps areaTaps(int sourceSize, int targetSize, double factor, double shift) {
    Taps taps;
    taps.first.resize(targetSize);
    taps.count.resize(targetSize);
    taps.offset.resize(targetSize);
    for (int d = 0; d < targetSize; ++d) {
        const double lo = std::max(0.0, (d - shift) / factor);
        const double hi = std::min(static_cast<double>(sourceSize), (d + 1 - shift) / factor);
        taps.offset[d] = static_cast<int>(taps.weight.size());
        taps.first[d] = 0;
        taps.count[d] = 0;
        if (!(hi > lo)) continue;
        const int s0 = std::clamp(static_cast<int>(std::floor(lo)), 0, sourceSize - 1);
        const int s1 = std::clamp(static_cast<int>(std::ceil(hi)) - 1, s0, sourceSize - 1);
        double total = 0.0;
        for (int s = s0; s <= s1; ++s) {
            const double w = std::min(hi, s + 1.0) - std::max(lo, static_cast<double>(s));
            taps.weight.push_back(std::max(w, 0.0));
            total += taps.weight.back();
        }
        for (int k = 0; k <= s1 - s0; ++k)
            taps.weight[taps.offset[d] + k] /= total;
        taps.first[d] = s0;
        taps.count[d] = s1 - s0 + 1;
    }
    return taps;
}

Taps bilinearTaps(int sourceSize, int targetSize, double factor, double shift) {
    Taps taps;
    taps.first.resize(targetSize);
    taps.count.resize(targetSize);
    taps.offset.resize(targetSize);
    for (int d = 0; d < targetSize; ++d) {
        const double centre = (d + 0.5 - shift) / factor - 0.5;
        const double x = std::clamp(centre, 0.0, static_cast<double>(sourceSize - 1));
        const int s0 = std::min(static_cast<int>(x), sourceSize - 1);
        const double frac = x - s0;
        taps.offset[d] = static_cast<int>(taps.weight.size());
        taps.first[d] = s0;
        if (frac > 0.0 && s0 + 1 < sourceSize) {
            taps.count[d] = 2;
            taps.weight.push_back(1.0 - frac);
            taps.weight.push_back(frac);
        } else {
            taps.count[d] = 1;
            taps.weight.push_back(1.0);
        }
    }
    return taps;
}

template <typename T>
T store(double v) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(v);
    } else {
        constexpr double top = std::numeric_limits<T>::max();
        if (!(v > 0.0)) return 0;
        if (v >= top) return static_cast<T>(top);
        return static_cast<T>(std::nearbyint(v));
    }
}

// The target rows from the source rows that a reader gives: every thread
// makes its own with makeReader(), and reader(first, count) gives the
// addresses of rows first to first + count - 1, or null if it cannot.
template <typename T, typename MakeReader>
void resampleRows(int sourceWidth, int sourceHeight, const PixelPlane& target, int channels,
                  double xFactor, double yFactor, double xShift, double yShift, Resampling mode,
                  int threads, MakeReader&& makeReader) {
    const bool area = mode == Resampling::Supersample;
    const Taps xt = area ? areaTaps(sourceWidth, target.width, xFactor, xShift)
                         : bilinearTaps(sourceWidth, target.width, xFactor, xShift);
    const Taps yt = area ? areaTaps(sourceHeight, target.height, yFactor, yShift)
                         : bilinearTaps(sourceHeight, target.height, yFactor, yShift);
    const std::size_t rowValues = static_cast<std::size_t>(sourceWidth) * channels;

#pragma omp parallel num_threads(std::max(1, threads))
    {
        std::vector<double> column(rowValues); // vertical blend of the source rows
        auto reader = makeReader();
        // A few rows at a time rather than a fixed half each: when another
        // thread of the process holds a core, the other team member takes
        // on more rows instead of waiting for it.
#pragma omp for schedule(dynamic, 4)
        for (int y = 0; y < target.height; ++y) {
            if (yt.count[y] == 0) continue;
            const T* const* rows = reader(yt.first[y], yt.count[y]);
            if (!rows) continue;
            std::fill(column.begin(), column.end(), 0.0);
            for (int k = 0; k < yt.count[y]; ++k) {
                const double w = yt.weight[yt.offset[y] + k];
                const T* row = rows[k];
                for (std::size_t i = 0; i < rowValues; ++i)
                    column[i] += w * static_cast<double>(row[i]);
            }
            T* out =
                reinterpret_cast<T*>(target.data + static_cast<std::ptrdiff_t>(y) * target.stride);
            for (int x = 0; x < target.width; ++x) {
                if (xt.count[x] == 0) continue;
                double acc[4] = {0.0, 0.0, 0.0, 0.0};
                for (int k = 0; k < xt.count[x]; ++k) {
                    const double w = xt.weight[xt.offset[x] + k];
                    const double* in =
                        column.data() + static_cast<std::size_t>(xt.first[x] + k) * channels;
                    for (int c = 0; c < channels; ++c)
                        acc[c] += w * in[c];
                }
                for (int c = 0; c < channels; ++c)
                    out[x * channels + c] = store<T>(acc[c]);
            }
        }
    }
}

bool validSizes(int sourceWidth, int sourceHeight, const PixelPlane& target, double xFactor,
                double yFactor) {
    return sourceWidth > 0 && sourceHeight > 0 && target.width > 0 && target.height > 0 &&
           xFactor > 0.0 && yFactor > 0.0;
}

} // namespace

template <typename T>
void resample(const PixelPlane& source, const PixelPlane& target, int channels, double xFactor,
              double yFactor, double xShift, double yShift, Resampling mode, int threads) {
    if (!validSizes(source.width, source.height, target, xFactor, yFactor)) return;
    // Rows are read in place.
    resampleRows<T>(
        source.width, source.height, target, channels, xFactor, yFactor, xShift, yShift, mode,
        threads, [&source] {
            return [&source, rows = std::vector<const T*>()](int first, int count) mutable {
                rows.resize(static_cast<std::size_t>(count));
                for (int k = 0; k < count; ++k)
                    rows[k] = reinterpret_cast<const T*>(source.data + (first + k) * source.stride);
                return rows.data();
            };
        });
}

void resampleConverted(const FloatRowSource& source, int sourceWidth, int sourceHeight,
                       const PixelPlane& target, int channels, double xFactor, double yFactor,
                       double xShift, double yShift, Resampling mode, int threads) {
    if (!validSizes(sourceWidth, sourceHeight, target, xFactor, yFactor)) return;
    const std::size_t pitch = static_cast<std::size_t>(sourceWidth) * channels;
    resampleRows<float>(sourceWidth, sourceHeight, target, channels, xFactor, yFactor, xShift,
                        yShift, mode, threads, [&source, pitch] {
                            return [&source, pitch, buffer = std::vector<float>(),
                                    rows = std::vector<const float*>()](
                                       int first, int count) mutable -> const float* const* {
                                buffer.resize(pitch * static_cast<std::size_t>(count));
                                rows.resize(static_cast<std::size_t>(count));
                                if (!source(first, count, buffer.data(),
                                            static_cast<std::ptrdiff_t>(pitch * sizeof(float))))
                                    return nullptr;
                                for (int k = 0; k < count; ++k)
                                    rows[k] = buffer.data() + pitch * static_cast<std::size_t>(k);
                                return rows.data();
                            };
                        });
}

template void resample<std::uint8_t>(const PixelPlane&, const PixelPlane&, int, double, double,
                                     double, double, Resampling, int);
template void resample<std::uint16_t>(const PixelPlane&, const PixelPlane&, int, double, double,
                                      double, double, Resampling, int);
template void resample<float>(const PixelPlane&, const PixelPlane&, int, double, double, double,
                              double, Resampling, int);

} // namespace prim
