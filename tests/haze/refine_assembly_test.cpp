// The sparse system of the refinement: the matting Laplacian against a dense
// window-by-window model in double, its shape, and the direct layout against
// the store's general lookup, on any team size.
#include "ZImage/CSparseSingle.h"
#include "ZImage/ZImageHaze.h"
#include "ZImage/ZImageHaze_p.h"

#include "HazeTestImages.h"
#include "RefineTestSupport.h"

#include <gtest/gtest.h>

#include <Eigen/Dense>

#include <algorithm>
#include <tuple>

namespace {

// L + 0.001 I from the definition: for every 3 x 3 window wholly in the image
// and every pair of its pixels, delta - (1 + u' C^-1 v) / 9, C the window
// covariance plus 0.001 / 9 I.
Eigen::MatrixXd denseMattingSystem(const ZImage& image) {
    const int w = image.Width(), h = image.Height();
    Eigen::MatrixXd L = 0.001 * Eigen::MatrixXd::Identity(w * h, w * h);
    for (int wy = 0; wy + 2 < h; ++wy)
        for (int wx = 0; wx + 2 < w; ++wx) {
            Eigen::Matrix<double, 9, 3> I;
            for (int k = 0; k < 9; ++k)
                for (int c = 0; c < 3; ++c)
                    I(k, c) = hazetest::pixel(image, wx + k % 3, wy + k / 3)[c];
            const Eigen::Matrix<double, 9, 3> D = I.rowwise() - I.colwise().mean();
            const Eigen::Matrix3d C =
                D.transpose() * D / 9.0 + 0.001 / 9.0 * Eigen::Matrix3d::Identity();
            const Eigen::Matrix<double, 9, 9> G =
                Eigen::Matrix<double, 9, 9>::Identity() -
                (Eigen::Matrix<double, 9, 9>::Ones() + D * C.inverse() * D.transpose()) / 9.0;
            for (int k = 0; k < 9; ++k)
                for (int l = 0; l < 9; ++l)
                    L((wy + k / 3) * w + wx + k % 3, (wy + l / 3) * w + wx + l % 3) += G(k, l);
        }
    return L;
}

// Mild texture with colour edges, values inside 0..1.
ZImage texturedImage(int w, int h, unsigned seed) {
    ZImage image = hazetest::randomImage(w, h, seed, 0.2f, 0.4f);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (x > w / 2 || y < h / 3) {
                hazetest::pixel(image, x, y)[0] += 0.5f;
                hazetest::pixel(image, x, y)[2] *= 0.5f;
            }
    return image;
}

// Pictures too narrow or too low for a window are the data term alone.
TEST(MattingSystem, MatchesTheWindowByWindowDefinition) {
    for (const auto& [w, h] :
         {std::pair{11, 8}, std::pair{3, 3}, std::pair{2, 9}, std::pair{9, 2}, std::pair{1, 1}}) {
        const ZImage image = texturedImage(w, h, 1);
        CSparseSingle m;
        assembleMattingSystem(image, m);
        ASSERT_EQ(w * h, m.rowCount());
        const Eigen::MatrixXd expected = denseMattingSystem(image);
        const Eigen::MatrixXd got = Eigen::MatrixXd(refinetest::toEigen(m, true));
        EXPECT_LT((expected - got).cwiseAbs().maxCoeff(), 2e-5 * expected.cwiseAbs().maxCoeff())
            << w << " x " << h;
    }
}

TEST(MattingSystem, UpperTriangleOfAtMostThirteenEntriesARow) {
    const int w = 9, h = 7;
    CSparseSingle m;
    assembleMattingSystem(texturedImage(w, h, 4), m);
    const auto ia = m.ia();
    const auto ja = m.ja();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * w + x;
            // Right neighbours that share a window, then two rows of five.
            const int across = std::min(x, 2) + 1 + std::min(2, w - 1 - x);
            EXPECT_EQ(1 + std::min(2, w - 1 - x) + std::min(2, h - 1 - y) * across,
                      ia[i + 1] - ia[i])
                << x << ", " << y;
            EXPECT_EQ(i + 1, ja[ia[i] - 1]) << "each row starts with its diagonal";
        }
}

// The arrays laid out by the stencil hold, bit for bit, what the store's
// ordered rows make of the same terms, whatever the team size of either.
TEST(MattingSystem, DirectLayoutIsTheLookupsMatrixOnAnyTeamSize) {
    for (const auto& [w, h, seed] :
         {std::tuple{120, 90, 7u}, std::tuple{37, 41, 8u}, std::tuple{4, 50, 9u},
          std::tuple{64, 3, 10u}, std::tuple{2, 33, 11u}}) {
        const ZImage image = hazetest::randomImage(w, h, seed, 0.0f, 1.0f);
        CSparseSingle reference;
        {
            hazetest::ThreadCountScope threads(1);
            haze::assembleMattingSystemByLookup(image, reference);
        }
        for (const int team : {1, 2}) {
            hazetest::ThreadCountScope threads(team);
            CSparseSingle direct;
            assembleMattingSystem(image, direct);
            const auto where = ::testing::Message() << w << " x " << h << ", " << team;
            ASSERT_EQ(reference.nnz(), direct.nnz()) << where;
            EXPECT_TRUE(std::ranges::equal(reference.ia(), direct.ia())) << where;
            EXPECT_TRUE(std::ranges::equal(reference.ja(), direct.ja())) << where;
            EXPECT_TRUE(
                hazetest::sameBits(reference.a().data(), direct.a().data(), reference.a().size()))
                << where;
        }
    }
}

TEST(MattingSystem, RefusesOtherFormats) {
    CSparseSingle m;
    EXPECT_THROW(assembleMattingSystem(ZImage(4, 4, ZImage::RGB, 32), m), ZException);
    EXPECT_THROW(assembleMattingSystem(ZImage(), m), ZException);
}

} // namespace
