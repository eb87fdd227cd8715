// Replays the inputs kept under tests/solver/corpus/ (crashes found by the
// libFuzzer target, kept as regressions) and a fixed stream of pseudo-random
// inputs through the same harness, so that every build runs what the
// fuzzer runs.
#include "fuzz/FuzzCall.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

namespace {

TEST(FuzzCorpus, KeptInputsRunToTheEnd) {
    const std::filesystem::path dir(SPDS_CORPUS_DIR);
    ASSERT_TRUE(std::filesystem::is_directory(dir));
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (!entry.is_regular_file() || entry.path().filename() == "README.md") continue;
        std::ifstream in(entry.path(), std::ios::binary);
        const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                              std::istreambuf_iterator<char>());
        SCOPED_TRACE(entry.path().string());
        EXPECT_GE(spdsfuzz::runInput(bytes.data(), bytes.size()), 0);
        ++files;
    }
    EXPECT_GT(files, 0) << "the corpus keeps at least its seed inputs";
}

TEST(FuzzCorpus, PseudoRandomInputsRunToTheEnd) {
    std::mt19937 rng(20240601);
    std::uniform_int_distribution<int> byte(0, 255), length(0, 600);
    for (int round = 0; round < 3000; ++round) {
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(length(rng)));
        for (auto& b : bytes)
            b = static_cast<std::uint8_t>(byte(rng));
        ASSERT_GE(spdsfuzz::runInput(bytes.data(), bytes.size()), 0) << "round " << round;
    }
}

} // namespace
