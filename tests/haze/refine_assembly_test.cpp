// The sparse system of the refinement: the matting Laplacian against a dense
// window-by-window model in double, its shape, and independence of the team size.
#include "ZImage/CSparseSingle.h"
#include "ZImage/ZImageHaze.h"

#include "HazeTestImages.h"
#include "RefineTestSupport.h"

#include <gtest/gtest.h>

#include <Eigen/Dense>

#include <algorithm>

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

TEST(MattingSystem, MatchesTheWindowByWindowDefinition) {
    const ZImage image = texturedImage(11, 8, 1);
    CSparseSingle m;
    assembleMattingSystem(image, m);
    ASSERT_EQ(88, m.rowCount());
    const Eigen::MatrixXd expected = denseMattingSystem(image);
    const Eigen::MatrixXd got = Eigen::MatrixXd(refinetest::toEigen(m, true));
    EXPECT_LT((expected - got).cwiseAbs().maxCoeff(), 2e-5 * expected.cwiseAbs().maxCoeff());
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

TEST(MattingSystem, NarrowImagesAreTheBareDiagonal) {
    for (const auto& [w, h] : {std::pair{2, 9}, std::pair{9, 2}, std::pair{1, 1}}) {
        CSparseSingle m;
        assembleMattingSystem(texturedImage(w, h, 6), m);
        ASSERT_EQ(w * h, m.nnz());
        for (int i = 0; i < w * h; ++i) {
            EXPECT_EQ(i + 1, m.ja()[i]);
            EXPECT_EQ(0.001f, m.a()[i]);
        }
    }
}

TEST(MattingSystem, SameMatrixWhateverTheTeamSize) {
    const ZImage image = texturedImage(120, 90, 7);
    CSparseSingle one, two;
    {
        hazetest::ThreadCountScope threads(1);
        assembleMattingSystem(image, one);
    }
    {
        hazetest::ThreadCountScope threads(2);
        assembleMattingSystem(image, two);
    }
    ASSERT_EQ(one.nnz(), two.nnz());
    EXPECT_TRUE(std::ranges::equal(one.ja(), two.ja()));
    EXPECT_TRUE(hazetest::sameBits(one.a().data(), two.a().data(), one.a().size()))
        << "entries must sum their windows in one order";
}

TEST(MattingSystem, RefusesOtherFormats) {
    CSparseSingle m;
    EXPECT_THROW(assembleMattingSystem(ZImage(4, 4, ZImage::RGB, 32), m), ZException);
    EXPECT_THROW(assembleMattingSystem(ZImage(), m), ZException);
}

} // namespace
