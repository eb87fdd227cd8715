// refineDarkChannel end to end: on a real photograph the refined map solves
// (L + 0.001 I) t = 0.001 d; a flat picture keeps its map; pictures too
// narrow for a window give their map back; a failure anywhere leaves the map
// as it was and no block of the solver behind; and runHazeRemoval carries
// the refined map, not the coarse one, to full size.
#include "ZImage/CSparseSingle.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"

#include "HazeTestImages.h"
#include "RefineTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <numeric>
#include <vector>

using hazetest::Rgba;

namespace {

// The bundled photograph, shrunk to w x h (RGBA float).
ZImage photograph(int w, int h) {
    ZImage decoded;
    decoded.Load(QStringLiteral(SKYRINSE_DATA_DIR "/aitzgorri_by_Aitzol_Berasategi.jpg"));
    ZImage rgba;
    decoded.CopyTo(rgba, ZImage::RGBA, 32);
    ZImage small;
    rgba.ResizeTo(small, w, h);
    return small;
}

std::vector<float> darkChannel(const ZImage& image) {
    std::array<float, 3> airlight{};
    const std::unique_ptr<float[]> map = image.estimateDarkChannel(airlight);
    return {map.get(), map.get() + static_cast<std::size_t>(image.Width()) * image.Height()};
}

// The system of a picture and map in double precision, from the matrix as
// assembled: products, the residual, and its solution by conjugate gradients
// (the matrix is positive definite: L is positive semi-definite).
class MattingSystem {
public:
    MattingSystem(const ZImage& image, const std::vector<float>& d) : b(d.size()) {
        assembleMattingSystem(image, m);
        for (std::size_t i = 0; i < d.size(); ++i)
            b[i] = static_cast<float>(d[i] * 0.001);
    }

    template <class V>
    std::vector<double> times(const V& x) const {
        std::vector<double> y(x.size(), 0.0);
        const auto ia = m.ia();
        const auto ja = m.ja();
        const auto a = m.a();
        for (int i = 0; i < m.rowCount(); ++i)
            for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k) {
                const int j = ja[k] - 1;
                y[i] += a[k] * static_cast<double>(x[j]);
                if (j != i) y[j] += a[k] * static_cast<double>(x[i]);
            }
        return y;
    }

    template <class V>
    double relativeResidual(const V& x) const {
        std::vector<double> r = times(x);
        for (std::size_t i = 0; i < r.size(); ++i)
            r[i] -= b[i];
        return refinetest::norm2(r) / refinetest::norm2(b);
    }

    std::vector<double> exactSolution() const {
        std::vector<double> x(b.size(), 0.0), r = b, p = b;
        double rr = dot(r, r);
        const double stop = 1e-26 * rr;
        for (int it = 0; it < 20000 && rr > stop; ++it) {
            const std::vector<double> ap = times(p);
            const double alpha = rr / dot(p, ap);
            for (std::size_t i = 0; i < x.size(); ++i) {
                x[i] += alpha * p[i];
                r[i] -= alpha * ap[i];
            }
            const double next = dot(r, r);
            for (std::size_t i = 0; i < x.size(); ++i)
                p[i] = r[i] + next / rr * p[i];
            rr = next;
        }
        return x;
    }

private:
    static double dot(const std::vector<double>& x, const std::vector<double>& y) {
        double s = 0.0;
        for (std::size_t i = 0; i < x.size(); ++i)
            s += x[i] * y[i];
        return s;
    }

    CSparseSingle m;
    std::vector<double> b;
};

// Largest relative error of a float solution against the exact one. The
// system's condition number is at most about 9 / 0.001 (the Laplacian's
// eigenvalues lie in [0, 9], the data term adds 0.001), so a float solution
// is within 1e4 epsilons; a wrong entry or pivot is far outside that.
constexpr double kForwardTolerance = 1e4 * 1.2e-7;

double forwardError(const std::vector<float>& t, const std::vector<double>& exact) {
    double e = 0.0, size = 0.0;
    for (std::size_t i = 0; i < t.size(); ++i) {
        e = std::max(e, std::abs(t[i] - exact[i]));
        size = std::max(size, std::abs(exact[i]));
    }
    return e / size;
}

// Sum of absolute differences of horizontal and vertical neighbours.
double totalVariation(const std::vector<float>& map, int w, int h) {
    double tv = 0.0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float v = map[static_cast<std::size_t>(y) * w + x];
            if (x + 1 < w) tv += std::abs(map[static_cast<std::size_t>(y) * w + x + 1] - v);
            if (y + 1 < h) tv += std::abs(map[static_cast<std::size_t>(y + 1) * w + x] - v);
        }
    return tv;
}

double sum(const std::vector<float>& v) {
    return std::accumulate(v.begin(), v.end(), 0.0);
}

TEST(RefineDarkChannel, RealPhotographSolvesTheMattingSystem) {
    const ZImage image = photograph(96, 64);
    const std::vector<float> d = darkChannel(image);
    std::vector<float> t = d;
    image.refineDarkChannel(t);

    const MattingSystem system(image, d);
    const std::vector<double> exact = system.exactSolution();
    ASSERT_LT(system.relativeResidual(exact), 1e-10);
    EXPECT_LT(forwardError(t, exact), kForwardTolerance);
    // L has zero row sums, so the refinement moves values without changing
    // their total; and it follows edges instead of window blocks, so the
    // map gets smoother.
    EXPECT_NEAR(sum(d), sum(t), 1e-4 * sum(d));
    EXPECT_LT(totalVariation(t, 96, 64), 0.8 * totalVariation(d, 96, 64));
}

TEST(RefineDarkChannel, FlatPictureKeepsItsMap) {
    const ZImage image = hazetest::makeImage(23, 17, [](int, int) {
        return Rgba{0.55f, 0.6f, 0.7f, 1.0f};
    });
    const std::vector<float> d = darkChannel(image);
    std::vector<float> t = d;
    image.refineDarkChannel(t);
    // Constant d is the exact solution: the Laplacian's rows sum to zero.
    EXPECT_LT(forwardError(t, std::vector<double>(d.begin(), d.end())), kForwardTolerance);
}

TEST(RefineDarkChannel, PicturesWithoutAWindowGiveTheirMapBack) {
    for (const auto& [w, h] : {std::pair{2, 30}, std::pair{40, 1}, std::pair{1, 1}}) {
        const ZImage image = hazetest::randomImage(w, h, 8);
        std::vector<float> d(static_cast<std::size_t>(w) * h);
        for (std::size_t i = 0; i < d.size(); ++i)
            d[i] = 0.1f + 0.02f * static_cast<float>(i % 37);
        std::vector<float> t = d;
        image.refineDarkChannel(t);
        for (std::size_t i = 0; i < d.size(); ++i)
            ASSERT_NEAR(d[i], t[i], 1e-6f * d[i]) << w << " x " << h << " at " << i;
    }
}

TEST(RefineDarkChannel, SameMapWhateverTheTeamSize) {
    const ZImage image = photograph(120, 80);
    const std::vector<float> d = darkChannel(image);
    std::vector<float> one = d, two = d;
    {
        hazetest::ThreadCountScope threads(1);
        image.refineDarkChannel(one);
    }
    {
        hazetest::ThreadCountScope threads(2);
        image.refineDarkChannel(two);
    }
    // The matrices are the same bit for bit; what the solver does with a
    // second thread may round differently, within the solve's accuracy.
    const std::vector<double> exact = MattingSystem(image, d).exactSolution();
    EXPECT_LT(forwardError(one, exact), kForwardTolerance);
    EXPECT_LT(forwardError(two, exact), kForwardTolerance);
}

// Allocations of the store and of the solver fail one after the other: every
// failure throws, leaves the map bit for bit as it was and leaves no block of
// the runtime's allocator behind; the sweep ends in a refinement that works.
TEST(RefineDarkChannel, FailuresLeaveTheMapAndNoBlocks) {
    const ZImage image = photograph(24, 16);
    const std::vector<float> d = darkChannel(image);
    std::vector<float> expected = d;
    image.refineDarkChannel(expected);

    refinetest::CountingHeap heap;
    int failures = 0;
    bool refined = false;
    for (long long k = 1; k < 5000 && !refined; ++k) {
        std::vector<float> t = d;
        heap.failAt(k);
        try {
            image.refineDarkChannel(t);
            refined = true;
            EXPECT_TRUE(hazetest::sameBits(expected.data(), t.data(), t.size()));
        } catch (const ZException&) {
            ++failures;
            ASSERT_TRUE(hazetest::sameBits(d.data(), t.data(), t.size())) << "allocation " << k;
        }
        heap.failAt(0);
        ASSERT_EQ(0, heap.live()) << "blocks left after failing allocation " << k;
    }
    EXPECT_TRUE(refined);
    EXPECT_GT(failures, 3);
}

TEST(RefineDarkChannel, RefusesOtherFormatsAndMapsOfAnotherSize) {
    std::vector<float> map(16, 0.5f);
    try {
        ZImage(4, 4, ZImage::RGB, 32).refineDarkChannel(map);
        FAIL() << "an RGB picture must be refused";
    } catch (const ZException& e) {
        EXPECT_STREQ("Invalid Bitmap", e.what());
        EXPECT_TRUE(e.location()->contains(QStringLiteral("ZImageHaze")));
    }
    EXPECT_THROW(ZImage(4, 4, ZImage::RGBA, 16).refineDarkChannel(map), ZException);
    const ZImage image = hazetest::randomImage(4, 5, 2);
    try {
        image.refineDarkChannel(map);
        FAIL() << "a map of 16 values for 20 pixels must be refused";
    } catch (const ZException& e) {
        EXPECT_STREQ("Invalid Parameter", e.what());
    }
    EXPECT_EQ(std::vector<float>(16, 0.5f), map);
}

// runHazeRemoval: estimate, refine, upsample, in that order.
TEST(RunHazeRemoval, UpsamplesTheRefinedMap) {
    const ZImage source = photograph(700, 466);
    const HazeWorkingSize size = hazeWorkingSize(700, 466);
    ZImage working;
    source.ResizeTo(working, size.width, size.height);
    std::array<float, 3> airlight{};
    const std::unique_ptr<float[]> coarse = working.estimateDarkChannel(airlight);
    const std::size_t n = static_cast<std::size_t>(size.width) * size.height;
    std::vector<float> refined(coarse.get(), coarse.get() + n);
    working.refineDarkChannel(refined);
    const std::unique_ptr<float[]> expected = source.upsampleDarkChannel(refined.data(), working);
    const std::unique_ptr<float[]> unrefined = source.upsampleDarkChannel(coarse.get(), working);

    ZImage image;
    image.CopyFrom(source);
    HazeSettings settings;
    settings.strength = 60;
    runHazeRemoval(image, settings);
    ASSERT_TRUE(settings.airDepthMap);
    EXPECT_EQ(airlight, settings.airlight);
    const std::size_t full = 700u * 466u;
    EXPECT_TRUE(hazetest::sameBits(expected.get(), settings.airDepthMap.get(), full));
    EXPECT_FALSE(hazetest::sameBits(unrefined.get(), settings.airDepthMap.get(), full));
}

} // namespace
