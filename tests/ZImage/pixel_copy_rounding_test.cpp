// The numeric promises of the pixel format copy, stated directly rather than
// through a model: the narrowing of words to bytes against v / 257, round
// trips, ties to even, saturation, and full alpha where a source has none.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace {

// A one-row image of the given values.
template <typename T>
ZImage rowImage(const std::vector<T>& values, int type = ZImage::Gray) {
    const int channels = type == ZImage::RGBA ? 4 : type == ZImage::RGB ? 3 : 1;
    ZImage image(static_cast<int>(values.size()) / channels, 1, type, 8 * sizeof(T), false);
    std::memcpy(image.PixelAt(0, 0), values.data(), values.size() * sizeof(T));
    return image;
}

template <typename T>
std::vector<T> rowValues(const ZImage& image) {
    std::vector<T> values(static_cast<std::size_t>(image.Width()) *
                          image.Bitmap()->componentsPerPixel);
    std::memcpy(values.data(), image.PixelAt(0, 0), values.size() * sizeof(T));
    return values;
}

// Floats v whose product with `full` is exactly k + 0.5 in single precision,
// one per k for which such a float exists.
std::vector<std::pair<float, int>> exactHalves(int count, float full) {
    std::vector<std::pair<float, int>> halves;
    for (int k = 0; k < count; ++k) {
        const float target = static_cast<float>(k) + 0.5f;
        float v = std::nextafter(target / full, 0.0f);
        for (int i = 0; i < 3; ++i, v = std::nextafter(v, 2.0f)) {
            if (v * full == target) {
                halves.emplace_back(v, k);
                break;
            }
        }
    }
    return halves;
}

} // namespace

TEST(PixelCopyRounding, WordToByteIsWithinOneOfDivisionAndRoundsUpOnlyJustBelowHalves) {
    std::vector<std::uint16_t> words(65536);
    for (int v = 0; v < 65536; ++v)
        words[v] = static_cast<std::uint16_t>(v);
    ZImage bytes;
    rowImage(words).CopyTo(bytes, ZImage::Gray, 8);
    const auto result = rowValues<std::uint8_t>(bytes);

    int roundedUp = 0;
    for (int v = 0; v < 65536; ++v) {
        const double exact = v / 257.0;
        const int nearest = static_cast<int>(std::lround(exact)); // no exact halves: 257 is odd
        if (result[v] == nearest) continue;
        ++roundedUp;
        EXPECT_EQ(result[v], nearest + 1) << "v = " << v << " may only go up, by one";
        EXPECT_GT(exact - std::floor(exact), 0.49) << "v = " << v << " is not just below a half";
    }
    EXPECT_EQ(roundedUp, 128);
    EXPECT_EQ(result[128], 1);
    EXPECT_EQ(result[0], 0);
    EXPECT_EQ(result[65535], 255);
}

TEST(PixelCopyRounding, ByteToWordToByteGivesBackEveryByte) {
    std::vector<std::uint8_t> bytes(256);
    for (int v = 0; v < 256; ++v)
        bytes[v] = static_cast<std::uint8_t>(v);
    ZImage words, back;
    rowImage(bytes).CopyTo(words, ZImage::Gray, 16);
    words.CopyTo(back, ZImage::Gray, 8);
    const auto wide = rowValues<std::uint16_t>(words);
    EXPECT_EQ(wide[255], 65535);
    EXPECT_EQ(wide[1], 257);
    EXPECT_EQ(rowValues<std::uint8_t>(back), bytes);
}

TEST(PixelCopyRounding, ByteRgbaToFloatAndBackKeepsColoursAndAlpha) {
    std::vector<std::uint8_t> pixels(4 * 256);
    for (int v = 0; v < 256; ++v)
        for (int c = 0; c < 4; ++c)
            pixels[4 * v + c] = static_cast<std::uint8_t>((v + 85 * c) % 256);
    ZImage floats, back;
    rowImage(pixels, ZImage::RGBA).CopyTo(floats, ZImage::RGBA, 32);
    floats.CopyTo(back, ZImage::RGBA, 8);
    EXPECT_EQ(rowValues<std::uint8_t>(back), pixels);
}

TEST(PixelCopyRounding, ExactHalvesGoToTheEvenNeighbour) {
    const auto byteHalves = exactHalves(255, 255.0f);
    const auto wordHalves = exactHalves(65535, 65535.0f);
    ASSERT_GT(byteHalves.size(), 100u) << "too few exact halves to prove anything";
    ASSERT_GT(wordHalves.size(), 10000u);

    std::vector<float> values;
    for (const auto& [v, k] : byteHalves)
        values.push_back(v);
    ZImage bytes;
    rowImage(values).CopyTo(bytes, ZImage::Gray, 8);
    const auto narrowBytes = rowValues<std::uint8_t>(bytes);
    for (std::size_t i = 0; i < byteHalves.size(); ++i) {
        const int k = byteHalves[i].second;
        EXPECT_EQ(narrowBytes[i], k % 2 == 0 ? k : k + 1) << "(" << k << " + 0.5) / 255";
    }

    values.clear();
    for (const auto& [v, k] : wordHalves)
        values.push_back(v);
    ZImage words;
    rowImage(values).CopyTo(words, ZImage::Gray, 16);
    const auto narrowWords = rowValues<std::uint16_t>(words);
    for (std::size_t i = 0; i < wordHalves.size(); ++i) {
        const int k = wordHalves[i].second;
        ASSERT_EQ(narrowWords[i], k % 2 == 0 ? k : k + 1) << "(" << k << " + 0.5) / 65535";
    }
}

TEST(PixelCopyRounding, FloatsOutsideTheRangeSaturateWithoutWrapping) {
    const float inf = std::numeric_limits<float>::infinity();
    const std::vector<float> values{-0.5f,  -1e-30f, -inf, 1.0f, 1.0000001f,   1.5f,
                                    300.0f, 7e4f,    inf,  0.0f, std::nanf("")};
    ZImage bytes, words;
    rowImage(values).CopyTo(bytes, ZImage::Gray, 8);
    rowImage(values).CopyTo(words, ZImage::Gray, 16);
    const std::vector<std::uint8_t> wantBytes{0, 0, 0, 255, 255, 255, 255, 255, 255, 0, 0};
    const std::vector<std::uint16_t> wantWords{0,     0,     0,     65535, 65535, 65535,
                                               65535, 65535, 65535, 0,     0};
    EXPECT_EQ(rowValues<std::uint8_t>(bytes), wantBytes);
    EXPECT_EQ(rowValues<std::uint16_t>(words), wantWords);
}

TEST(PixelCopyRounding, GreyOfEqualColoursIsThatValueInWordsAndBytes) {
    std::vector<std::uint16_t> words;
    for (int v = 0; v < 65536; ++v)
        words.insert(words.end(), 3, static_cast<std::uint16_t>(v));
    ZImage grey;
    rowImage(words, ZImage::RGB).CopyTo(grey, ZImage::Gray, 16);
    const auto result = rowValues<std::uint16_t>(grey);
    for (std::size_t i = 0; i < result.size(); ++i)
        ASSERT_EQ(result[i], words[3 * i]);

    std::vector<std::uint8_t> bytes;
    for (int v = 0; v < 256; ++v)
        bytes.insert(bytes.end(), {std::uint8_t(v), std::uint8_t(v), std::uint8_t(v), 0});
    rowImage(bytes, ZImage::RGBA).CopyTo(grey, ZImage::Gray, 8);
    const auto byteResult = rowValues<std::uint8_t>(grey);
    for (int v = 0; v < 256; ++v)
        ASSERT_EQ(byteResult[v], v) << "alpha must not enter the grey value";
}

TEST(PixelCopyRounding, SourcesWithoutAlphaGiveFullAlphaEvenFromWordGrey) {
    // Targets that start transparent and are reused with the same format, so
    // that Create keeps (and does not clear) their pixels.
    ZImage floats(2, 1, ZImage::RGBA, 32);
    ZImage words(2, 1, ZImage::RGBA, 16);
    const ZImage wordGrey = rowImage(std::vector<std::uint16_t>{0, 40000});
    wordGrey.CopyTo(floats, ZImage::RGBA, 32);
    wordGrey.CopyTo(words, ZImage::RGBA, 16);
    const auto f = rowValues<float>(floats);
    const auto w = rowValues<std::uint16_t>(words);
    EXPECT_EQ(f[3], 1.0f);
    EXPECT_EQ(f[7], 1.0f);
    EXPECT_EQ(f[4], 40000.0f / 65535.0f);
    EXPECT_EQ(f[6], f[4]);
    EXPECT_EQ(w, (std::vector<std::uint16_t>{0, 0, 0, 65535, 40000, 40000, 40000, 65535}));

    // Float grey of 0.5 into 16-bit RGBA: 32767.5 rounds to the even 32768,
    // and alpha is the word's full scale, not the byte's.
    ZImage wordsFromFloat;
    rowImage(std::vector<float>{0.5f}).CopyTo(wordsFromFloat, ZImage::RGBA, 16);
    EXPECT_EQ(rowValues<std::uint16_t>(wordsFromFloat),
              (std::vector<std::uint16_t>{32768, 32768, 32768, 65535}));
}

TEST(PixelCopyRounding, RgbFromRgbaAtTheSameDepthIsTheFirstThreeComponents) {
    std::vector<std::uint16_t> rgba;
    for (int i = 0; i < 40; ++i)
        rgba.push_back(static_cast<std::uint16_t>(i * 1637));
    ZImage rgb;
    rowImage(rgba, ZImage::RGBA).CopyTo(rgb, ZImage::RGB, 16);
    const auto result = rowValues<std::uint16_t>(rgb);
    ASSERT_EQ(result.size(), 30u);
    for (int p = 0; p < 10; ++p)
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(result[3 * p + c], rgba[4 * p + c]);
}

TEST(PixelCopyRounding, LargeWindowsGiveTheSameAsRowByRowWhateverTheThreadCount) {
    // Large enough to be cut into many bands of rows and shared by a team;
    // each row copied on its own is the reference.
    ZImage source(613, 401, ZImage::RGBA, 32, false);
    for (int y = 0; y < source.Height(); ++y) {
        auto* row = reinterpret_cast<float*>(source.PixelAt(0, y));
        for (int i = 0; i < 4 * source.Width(); ++i)
            row[i] = static_cast<float>((y * 7919 + i * 104729) % 1201) / 1000.0f - 0.1f;
    }
    const int saved = threadCount;
    for (const int type : {ZImage::RGBA, ZImage::RGB, ZImage::Gray}) {
        for (const int bits : {8, 16}) {
            ZImage rowByRow(source.Width(), source.Height(), type, bits, false);
            threadCount = 1;
            for (int y = 0; y < source.Height(); ++y)
                source.Copy(0, y, source.Width(), 1, rowByRow, 0, y);
            for (const int threads : {1, 2}) {
                threadCount = threads;
                ZImage whole;
                source.CopyTo(whole, type, bits);
                // Row by row: the padding at the end of each line is never written.
                const std::size_t rowBytes =
                    static_cast<std::size_t>(whole.BytesPerPixel()) * whole.Width();
                int rowsDiffering = 0;
                for (int y = 0; y < whole.Height(); ++y)
                    rowsDiffering +=
                        std::memcmp(whole.PixelAt(0, y), rowByRow.PixelAt(0, y), rowBytes) != 0;
                EXPECT_EQ(rowsDiffering, 0)
                    << "type " << type << ", " << bits << " bits, " << threads << " threads";
            }
        }
    }
    threadCount = saved;
}
