// The sparse system of the refinement: the matting Laplacian of the working
// image against a dense model built the plain way (window by window, double
// precision), its shape (upper triangle, at most 13 entries a row, corner and
// border pixels), independence of the team size, and the refusals of images
// of another format.
#include "ZImage/CSparseSingle.h"
#include "ZImage/ZImageHaze.h"

#include "HazeTestImages.h"
#include "RefineTestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

namespace {

// L + 0.001 I in full, from the definition: for every 3 x 3 window wholly in
// the image and every pair of its pixels, delta - (1 + u' C^-1 v) / 9 with
// C the window covariance plus 0.001 / 9 I.
refinetest::Dense denseMattingSystem(const ZImage& image) {
    const int w = image.Width();
    const int h = image.Height();
    refinetest::Dense L(w * h);
    for (int i = 0; i < w * h; ++i)
        L(i, i) = 0.001;
    for (int wy = 0; wy + 2 < h; ++wy)
        for (int wx = 0; wx + 2 < w; ++wx) {
            std::array<std::array<double, 3>, 9> I{};
            std::array<int, 9> index{};
            for (int k = 0; k < 9; ++k) {
                const float* p = hazetest::pixel(image, wx + k % 3, wy + k / 3);
                for (int c = 0; c < 3; ++c)
                    I[k][c] = p[c];
                index[k] = (wy + k / 3) * w + wx + k % 3;
            }
            double mu[3] = {};
            for (const auto& px : I)
                for (int c = 0; c < 3; ++c)
                    mu[c] += px[c] / 9.0;
            double C[3][3] = {};
            for (const auto& px : I)
                for (int a = 0; a < 3; ++a)
                    for (int b = 0; b < 3; ++b)
                        C[a][b] += (px[a] - mu[a]) * (px[b] - mu[b]) / 9.0;
            for (int a = 0; a < 3; ++a)
                C[a][a] += 0.001 / 9.0;
            // Inverse by Gauss-Jordan, independent of the code under test.
            double M[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
            for (int col = 0; col < 3; ++col) {
                const double pivot = C[col][col];
                for (int c = 0; c < 3; ++c) {
                    C[col][c] /= pivot;
                    M[col][c] /= pivot;
                }
                for (int r = 0; r < 3; ++r) {
                    if (r == col) continue;
                    const double f = C[r][col];
                    for (int c = 0; c < 3; ++c) {
                        C[r][c] -= f * C[col][c];
                        M[r][c] -= f * M[col][c];
                    }
                }
            }
            for (int k = 0; k < 9; ++k)
                for (int l = 0; l < 9; ++l) {
                    double quad = 0.0;
                    for (int a = 0; a < 3; ++a)
                        for (int b = 0; b < 3; ++b)
                            quad += (I[k][a] - mu[a]) * M[a][b] * (I[l][b] - mu[b]);
                    L(index[k], index[l]) += (k == l ? 1.0 : 0.0) - (1.0 + quad) / 9.0;
                }
        }
    return L;
}

// The stored upper triangle as a dense symmetric matrix.
refinetest::Dense fromStore(const CSparseSingle& m) {
    refinetest::Dense d(m.rowCount());
    const auto ia = m.ia();
    const auto ja = m.ja();
    const auto a = m.a();
    for (int r = 0; r < m.rowCount(); ++r)
        for (int k = ia[r] - 1; k < ia[r + 1] - 1; ++k) {
            d(r, ja[k] - 1) = a[k];
            d(ja[k] - 1, r) = a[k];
        }
    return d;
}

// Mild texture with colour edges, values inside 0..1.
ZImage texturedImage(int w, int h, unsigned seed) {
    ZImage image = hazetest::randomImage(w, h, seed, 0.2f, 0.4f);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (x > w / 2 || y < h / 3) {
                float* p = hazetest::pixel(image, x, y);
                p[0] += 0.5f;
                p[2] *= 0.5f;
            }
    return image;
}

TEST(MattingSystem, MatchesTheWindowByWindowDefinition) {
    for (unsigned seed : {1u, 2u}) {
        const ZImage image = texturedImage(11, 8, seed);
        CSparseSingle m;
        assembleMattingSystem(image, m);
        ASSERT_EQ(88, m.rowCount());
        const refinetest::Dense expected = denseMattingSystem(image);
        const refinetest::Dense got = fromStore(m);
        double scale = 0.0;
        for (double v : expected.v)
            scale = std::max(scale, std::abs(v));
        for (int r = 0; r < 88; ++r)
            for (int c = 0; c < 88; ++c)
                ASSERT_NEAR(expected(r, c), got(r, c), 2e-5 * scale) << r << ", " << c;
    }
}

TEST(MattingSystem, UpperTriangleOfAtMostThirteenEntriesARow) {
    const int w = 9, h = 7;
    const ZImage image = texturedImage(w, h, 4);
    CSparseSingle m;
    assembleMattingSystem(image, m);
    const auto ia = m.ia();
    const auto ja = m.ja();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * w + x;
            const int count = ia[i + 1] - ia[i];
            // Right neighbours that share a window, then two rows of five.
            const int right = std::min(2, w - 1 - x);
            const int below = std::min(2, h - 1 - y);
            const int across = std::min(x, 2) + 1 + std::min(2, w - 1 - x);
            EXPECT_EQ(1 + right + below * across, count) << x << ", " << y;
            EXPECT_EQ(i + 1, ja[ia[i] - 1]) << "each row starts with its diagonal";
        }
    // A corner pixel lies in one window: linked to its 8 neighbours.
    const refinetest::Dense d = fromStore(m);
    int links = 0;
    for (int c = 0; c < w * h; ++c)
        if (c != 0 && d(0, c) != 0.0) ++links;
    EXPECT_EQ(8, links);
}

TEST(MattingSystem, NarrowImagesAreTheBareDiagonal) {
    for (const auto& [w, h] : {std::pair{2, 9}, std::pair{9, 2}, std::pair{1, 1}}) {
        const ZImage image = texturedImage(w, h, 6);
        CSparseSingle m;
        assembleMattingSystem(image, m);
        ASSERT_EQ(w * h, m.rowCount());
        ASSERT_EQ(w * h, m.nnz());
        for (int i = 0; i < w * h; ++i) {
            EXPECT_EQ(i + 1, m.ja()[i]);
            EXPECT_EQ(0.001f, m.a()[i]);
        }
    }
}

TEST(MattingSystem, SameMatrixWhateverTheTeamSize) {
    // Tall enough for the rows to be split between two threads.
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
    EXPECT_TRUE(std::equal(one.ia().begin(), one.ia().end(), two.ia().begin()));
    EXPECT_TRUE(std::equal(one.ja().begin(), one.ja().end(), two.ja().begin()));
    EXPECT_TRUE(hazetest::sameBits(one.a().data(), two.a().data(), one.a().size()))
        << "entries must sum their windows in one order";
}

TEST(MattingSystem, RefusesOtherFormats) {
    CSparseSingle m;
    EXPECT_THROW(assembleMattingSystem(ZImage(4, 4, ZImage::RGB, 32), m), ZException);
    EXPECT_THROW(assembleMattingSystem(ZImage(4, 4, ZImage::RGBA, 8), m), ZException);
    EXPECT_THROW(assembleMattingSystem(ZImage(), m), ZException);
}

} // namespace
