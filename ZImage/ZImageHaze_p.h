// Internals of the haze removal, shared with its tests: the size rules, the
// weight tables of the upsampling and the ordered map of the airlight search.
#pragma once

#include "ZImage/ThreadCount.h"
#include "runtime/nrt_work.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <vector>

class CSparseSingle;
class ZImage;

namespace haze {

// assembleMattingSystem through CSparseSingle::at() and compress(): the
// general way to fill the store, which the direct layout of the arrays must
// reproduce bit for bit.
void assembleMattingSystemByLookup(const ZImage& working, CSparseSingle& matrix);

// Radius of the minimum filter's square window, from the working image: it
// grows with the image so that the window covers a similar share of it.
inline int windowRadius(int width, int height) {
    return (width > height ? width : height) / 100 + 1;
}

// Rows' worth of pixels the airlight candidates hold: one row up to a height
// of 1999, then one more per thousand rows.
inline int candidateRows(int height) {
    return height > 1000 ? height / 1000 : 1;
}

// Team size of a region over `pixels` pixels: threadCount, but no thread gets
// less than a quarter megapixel. Below that, starting and joining the team
// costs more than it saves, and when the other core is busy the barrier waits
// far longer than the work takes. Results never depend on the team size.
inline int regionThreads(std::size_t pixels) {
    constexpr long long minPixelsPerThread = 1LL << 18;
    return nrt_threads_for_work(static_cast<long long>(pixels), minPixelsPerThread,
                                std::max(1, threadCount));
}

// Joint bilateral weights. The range weight is the normal density with
// standard deviation 0.1 at index / 1000, rounded to 6 significant digits,
// for index -2000 to 2000; the spatial weight is the 5 x 5 integer kernel over
// 571, for dx, dy in -2 to 2.
double rangeWeight(int index);
double spatialWeight(int dx, int dy);
// The range table, addressed by an index from -2000 to 2000.
const double* rangeTableCentre();

// Range table index of a colour difference: truncated towards zero after
// scaling by 1000, clamped to the table since HDR pixels exceed 1.0 (a NaN
// difference takes the far end, the least similar).
inline int rangeIndex(float difference) {
    // Branch-free clamp in this order: a NaN fails the first comparison and
    // comes out as 2000.
    const float v = 1000.0f * difference;
    return static_cast<int>(std::max(-2000.0f, std::min(2000.0f, v)));
}

// The joint bilateral upsampling of a working image's map to a full image of
// fullWidth x fullHeight, one full row at a time: rows are independent, so a
// caller may write the map (depthRow) or fuse it with the haze model
// (dehazeRow) and never hold the full-size map; dehazeRow gives bit for bit
// depthRow's value put through applyPixel. The plain path is the formulas
// themselves; the vector paths (AVX-512, AVX2) compute the range weights as
// one exponential and stay within a few 1e-7 of them on photographs (see the
// source). Read-only once built; threads share one.
class RowUpsampler {
public:
    // The widest path the processor has (AVX-512, AVX2, or the portable
    // loop); the tests force each of the others to hold it to the formulas.
    enum class Path { Fastest, Avx2, Plain };
    RowUpsampler(const ZImage& working, const float* map, int fullWidth, int fullHeight,
                 Path path = Path::Fastest);
    // The map of full row y, whose RGBA float pixels are given.
    void depthRow(const float* pixels, int y, float* depth) const;
    // Row y's pixels with the haze removed at `strength`, from the map value
    // that depthRow would give; transparent pixels stay as they are.
    void dehazeRow(float* pixels, int y, const float airlight[3], float strength) const;

private:
    int workingRow(int y) const;
    float pixel(const float* p, int x, int ys) const;
    // Pixels x0 to x1 of a row by the formula (p points at pixel x0).
    template <bool Apply>
    void plain(float* p, int ys, float* depth, const float a[3], float strength, int x0,
               int x1) const;
    // The row by the widest path: the vector kernel where it applies, the
    // formula for the rest.
    template <bool Apply>
    void row(float* p, int y, float* depth, const float a[3], float strength) const;

    int w, h, sw, sh;
    std::size_t stride; // of one padded working row in `planes`
    float fx, fy;
    const double* G;
    double K[3][3];    // [1 + dx][1 + dy]
    float peakK[3][3]; // K times the range density's peak cubed
    int vectorWidth;   // 16 (AVX-512), 8 (AVX2) or 0
    // Red, green, blue, map value and opacity mask (all bits set or none),
    // each sh padded rows of `stride`; padding is transparent.
    std::vector<float> planes;
};

// The haze model on one RGBA float pixel with its map value.
void applyPixel(float* p, float depth, const float airlight[3], float strength);

// The airlight candidates: pixel addresses ordered by dark value. Of equal
// dark values the one inserted last comes first, so the smallest entry that
// is replaced is always the newest of its value, and a walk from the front
// meets newer pixels of one value before older ones.
class TopPixelMap {
public:
    using Entries = std::multimap<float, const float*>;

    // NaN cannot be ordered; it ranks below every number.
    void insert(float key, const float* pixel) {
        if (key != key) key = -std::numeric_limits<float>::infinity();
        // A hint at the first equal key places the new entry right before it.
        entries.emplace_hint(entries.lower_bound(key), key, pixel);
    }
    // Drops the first entry and inserts the new one.
    void replaceSmallest(float key, const float* pixel) {
        entries.erase(entries.begin());
        insert(key, pixel);
    }
    float smallestKey() const { return entries.begin()->first; }
    std::size_t size() const { return entries.size(); }
    bool empty() const { return entries.empty(); }
    Entries::const_iterator begin() const { return entries.begin(); }
    Entries::const_iterator end() const { return entries.end(); }

private:
    Entries entries;
};

} // namespace haze
