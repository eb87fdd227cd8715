// Matrix Market reading of spds-solve: the CSR handed to spds for each
// matrix type (real and complex), and one damaged file per row refused with a
// message.
#include "MatrixMarket.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace {

std::string writeFile(const std::string& name, const std::string& text) {
    const auto path = std::filesystem::temp_directory_path() / ("spds_mm_" + name + ".mtx");
    std::ofstream(path) << text;
    return path.string();
}

const char* kSymmetric = "%%MatrixMarket matrix coordinate real symmetric\n"
                         "% a comment\n"
                         "3 3 4\n"
                         "1 1 4\n"
                         "3 1 -1\n"
                         "2 2 5\n"
                         "3 1 -0.5\n"; // repeated: summed

TEST(MatrixMarket, SymmetricFileToTheStorageOfTheType) {
    skyrinse::mm::Triplets t;
    std::string message;
    ASSERT_TRUE(skyrinse::mm::read(writeFile("sym", kSymmetric), t, message)) << message;
    EXPECT_TRUE(t.symmetric);
    const skyrinse::mm::Csr upper = skyrinse::mm::toCsr(t, -2);
    EXPECT_EQ(upper.ia, (std::vector<int>{1, 3, 4, 5}));
    EXPECT_EQ(upper.ja, (std::vector<int>{1, 3, 2, 3}));
    EXPECT_EQ(upper.a, (std::vector<double>{4, -1.5, 5, 0})) << "row 3 gets its missing diagonal";
    const skyrinse::mm::Csr full = skyrinse::mm::toCsr(t, 11);
    EXPECT_EQ(full.ja, (std::vector<int>{1, 3, 2, 1}));
    EXPECT_EQ(full.a, (std::vector<double>{4, -1.5, 5, -1.5}));
}

TEST(MatrixMarket, WrittenFileReadsBack) {
    skyrinse::mm::Triplets t;
    t.n = 2;
    t.rows = {1, 2, 1};
    t.cols = {1, 2, 2};
    t.values = {0.1, 2e-30, -7};
    std::string message;
    const std::string path = writeFile("roundtrip", "");
    ASSERT_TRUE(skyrinse::mm::write(path, t, message)) << message;
    skyrinse::mm::Triplets back;
    ASSERT_TRUE(skyrinse::mm::read(path, back, message)) << message;
    EXPECT_EQ(back.rows, t.rows);
    EXPECT_EQ(back.cols, t.cols);
    EXPECT_EQ(back.values, t.values);
}

const char* kHermitian = "%%MatrixMarket matrix coordinate complex hermitian\n"
                         "2 2 3\n"
                         "1 1 4 0\n"
                         "2 1 1 2\n"
                         "2 2 5 0\n";

// The lower entry (2,1) = 1+2i stands for (1,2) = 1-2i: the upper triangle of
// the Hermitian types holds the conjugate, the full pattern both.
TEST(MatrixMarket, HermitianFileConjugatesTheMirroredEntries) {
    using Z = std::complex<double>;
    skyrinse::mm::Triplets t;
    std::string message;
    ASSERT_TRUE(skyrinse::mm::read(writeFile("herm", kHermitian), t, message)) << message;
    EXPECT_TRUE(t.complex && t.hermitian && t.symmetric);
    const skyrinse::mm::Csr upper = skyrinse::mm::toCsr(t, -4);
    EXPECT_EQ(upper.ja, (std::vector<int>{1, 2, 2}));
    EXPECT_EQ(upper.z, (std::vector<Z>{{4, 0}, {1, -2}, {5, 0}}));
    EXPECT_TRUE(upper.a.empty());
    const skyrinse::mm::Csr full = skyrinse::mm::toCsr(t, 13);
    EXPECT_EQ(full.ja, (std::vector<int>{1, 2, 1, 2}));
    EXPECT_EQ(full.z, (std::vector<Z>{{4, 0}, {1, -2}, {1, 2}, {5, 0}}));
}

struct BrokenFile {
    const char* what;
    const char* text;
};

const BrokenFile kBroken[] = {
    {"no banner", "3 3 1\n1 1 1\n"},
    {"imaginary part missing", "%%MatrixMarket matrix coordinate complex general\n1 1 1\n1 1 1\n"},
    {"hermitian real", "%%MatrixMarket matrix coordinate real hermitian\n1 1 1\n1 1 1\n"},
    {"skew symmetry", "%%MatrixMarket matrix coordinate real skew-symmetric\n2 2 1\n2 1 1\n"},
    {"not square", "%%MatrixMarket matrix coordinate real general\n2 3 1\n1 1 1\n"},
    {"entry outside", "%%MatrixMarket matrix coordinate real general\n2 2 1\n3 1 1\n"},
    {"value missing", "%%MatrixMarket matrix coordinate real general\n2 2 1\n1 1\n"},
};

class MatrixMarketBroken : public ::testing::TestWithParam<BrokenFile> {};

TEST_P(MatrixMarketBroken, IsRefusedWithAMessage) {
    skyrinse::mm::Triplets t;
    std::string message;
    EXPECT_FALSE(skyrinse::mm::read(writeFile("broken", GetParam().text), t, message))
        << GetParam().what;
    EXPECT_FALSE(message.empty());
}

INSTANTIATE_TEST_SUITE_P(OneFaultEach, MatrixMarketBroken, ::testing::ValuesIn(kBroken));

TEST(MatrixMarket, MissingFileNamesThePath) {
    skyrinse::mm::Triplets t;
    std::string message;
    EXPECT_FALSE(skyrinse::mm::read("/nonexistent/spds.mtx", t, message));
    EXPECT_NE(message.find("/nonexistent/spds.mtx"), std::string::npos);
}

} // namespace
