// refineDarkChannel end to end: on a real photograph the refined map solves
// (L + 0.001 I) t = 0.001 d, checked against a double-precision solve; flat and
// narrow pictures; failures leave the map and no block behind; runHazeRemoval
// carries the refined map to full size.
#include "ZImage/CSparseSingle.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "solver/Ordering.h"

#include "HazeTestImages.h"
#include "RefineTestSupport.h"

#include <gtest/gtest.h>

#include <Eigen/SparseCholesky>

#include <array>
#include <memory>
#include <vector>

namespace {

// The bundled photograph, shrunk to w x h (RGBA float).
ZImage photograph(int w, int h) {
    ZImage decoded, rgba, small;
    decoded.Load(QStringLiteral(SKYRINSE_DATA_DIR "/aitzgorri_by_Aitzol_Berasategi.jpg"));
    decoded.CopyTo(rgba, ZImage::RGBA, 32);
    rgba.ResizeTo(small, w, h);
    return small;
}

std::vector<float> darkChannel(const ZImage& image) {
    std::array<float, 3> airlight{};
    const std::unique_ptr<float[]> map = image.estimateDarkChannel(airlight);
    return {map.get(), map.get() + static_cast<std::size_t>(image.Width()) * image.Height()};
}

// Largest error of t relative to the largest value of the double solution.
// The system's condition number is at most about 9 / 0.001, so a float
// solution is within 1e4 epsilons; a wrong entry or pivot is far outside.
double forwardError(const std::vector<float>& t, const Eigen::VectorXd& exact) {
    const Eigen::VectorXd got =
        Eigen::Map<const Eigen::VectorXf>(t.data(), t.size()).cast<double>();
    return (got - exact).cwiseAbs().maxCoeff() / exact.cwiseAbs().maxCoeff();
}
constexpr double kForwardTolerance = 1e4 * 1.2e-7;

TEST(RefineDarkChannel, RealPhotographMatchesADoubleSolve) {
    const ZImage image = photograph(96, 64);
    const std::vector<float> d = darkChannel(image);
    std::vector<float> t = d;
    image.refineDarkChannel(t);

    CSparseSingle m;
    assembleMattingSystem(image, m);
    const Eigen::SimplicialLDLT<Eigen::SparseMatrix<double>> ldlt(refinetest::toEigen(m, true));
    ASSERT_EQ(Eigen::Success, ldlt.info());
    const Eigen::VectorXd b =
        0.001 * Eigen::Map<const Eigen::VectorXf>(d.data(), d.size()).cast<double>();
    EXPECT_LT(forwardError(t, ldlt.solve(b)), kForwardTolerance);
    EXPECT_GT(forwardError(d, ldlt.solve(b)), 100 * kForwardTolerance) << "refinement is a no-op";
}

// The order worked out beforehand from the picture's size alone is the one
// the refinement takes, and it changes nothing in the result.
TEST(RefineDarkChannel, PreparedFromThePictureSizeGivesTheSameMap) {
    const HazeWorkingSize size = hazeWorkingSize(1200, 800);
    const ZImage working = photograph(size.width, size.height);
    const std::vector<float> d = darkChannel(working);
    std::vector<float> unprepared = d;
    working.refineDarkChannel(unprepared);
    // Another structure in between, so that nothing is left from above.
    std::vector<float> other = darkChannel(photograph(size.width + 1, size.height));
    photograph(size.width + 1, size.height).refineDarkChannel(other);

    { const RefinementPreparation preparation(1200, 800); }
    const long long taken = skyrinse::spds::rememberedOrdersTaken();
    std::vector<float> prepared = d;
    working.refineDarkChannel(prepared);
    EXPECT_EQ(taken + 1, skyrinse::spds::rememberedOrdersTaken());
    EXPECT_TRUE(hazetest::sameBits(unprepared.data(), prepared.data(), d.size()));
}

TEST(RefineDarkChannel, FlatPictureKeepsItsMap) {
    const ZImage image = hazetest::makeImage(23, 17, [](int, int) {
        return hazetest::Rgba{0.55f, 0.6f, 0.7f, 1};
    });
    const std::vector<float> d = darkChannel(image);
    std::vector<float> t = d;
    image.refineDarkChannel(t);
    // Constant d is the exact solution: the Laplacian's rows sum to zero.
    const std::vector<double> exact(d.begin(), d.end());
    EXPECT_LT(forwardError(t, Eigen::Map<const Eigen::VectorXd>(exact.data(), exact.size())),
              kForwardTolerance);
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

// Allocations of the store and of the solver fail one after the other: every
// failure throws, leaves the map as it was and leaves no block behind.
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
    EXPECT_THROW(ZImage(4, 4, ZImage::RGB, 32).refineDarkChannel(map), ZException);
    try {
        hazetest::randomImage(4, 5, 2).refineDarkChannel(map);
        FAIL() << "a map of 16 values for 20 pixels must be refused";
    } catch (const ZException& e) {
        EXPECT_STREQ("Invalid Parameter", e.what());
    }
    EXPECT_EQ(std::vector<float>(16, 0.5f), map);
}

TEST(RunHazeRemoval, UpsamplesTheRefinedMap) {
    const ZImage source = photograph(700, 466);
    const HazeWorkingSize size = hazeWorkingSize(700, 466);
    ZImage working;
    source.ResizeTo(working, size.width, size.height);
    std::array<float, 3> airlight{};
    const std::unique_ptr<float[]> coarse = working.estimateDarkChannel(airlight);
    std::vector<float> refined(coarse.get(), coarse.get() + size.width * size.height);
    working.refineDarkChannel(refined);
    const std::unique_ptr<float[]> expected = source.upsampleDarkChannel(refined.data(), working);

    ZImage image;
    image.CopyFrom(source);
    HazeSettings settings;
    settings.strength = 60;
    runHazeRemoval(image, settings);
    ASSERT_TRUE(settings.airDepthMap);
    EXPECT_EQ(airlight, settings.airlight);
    EXPECT_TRUE(hazetest::sameBits(expected.get(), settings.airDepthMap.get(), 700u * 466u));
}

} // namespace
