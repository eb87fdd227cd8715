// Loading from memory: every format gives the bitmap that loading the file
// gives; damaged bytes give a code, never a crash; and the inputs the
// libFuzzer target found (tests/imagefile/corpus/) stay harmless. With
// IFL_FUZZ_SEEDS set to a folder, the files made here become the fuzzer's seeds.
#include "IflFuzzLoad.h"
#include "IflTestSupport.h"

#include <filesystem>

using namespace ifltest;

namespace {

struct MemoryCase {
    const char* name;
    const char* format;
    int type;
    int bits;
};

void PrintTo(const MemoryCase& c, std::ostream* os) {
    *os << c.name;
}

class FromMemoryTest : public ::testing::TestWithParam<MemoryCase> {};

bool knownCode(int code) {
    for (const int c : {IFL_OK, IFL_ERROR_FILE_READ, IFL_ERROR_NO_MEMORY, IFL_ERROR_UNKNOWN_FORMAT})
        if (code == c) return true;
    return false;
}

TEST_P(FromMemoryTest, GivesTheFilesBitmapAndSurvivesEveryCut) {
    const MemoryCase& c = GetParam();
    QTemporaryDir folder;
    const QString path =
        folder.filePath(QLatin1String(c.name) + QLatin1Char('.') + QLatin1String(c.format));
    makePicture(24, 16, c.type, c.bits).Save(path, QLatin1String(c.format), -1, QString());
    const std::vector<std::uint8_t> bytes = readBytes(path.toStdString());
    ASSERT_FALSE(bytes.empty());
    if (const char* seeds = std::getenv("IFL_FUZZ_SEEDS"))
        writeBytes(std::string(seeds) + "/" + c.name + "." + c.format, bytes);

    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    IflBitmap* fromFile = nullptr;
    IflBitmap* fromMemory = nullptr;
    IflFileInformation fileInfo, memoryInfo;
    ASSERT_EQ(iflLoadBitmap(path.toLocal8Bit().constData(), &fromFile, params, &fileInfo), IFL_OK);
    const IflBitmapPtr ownedFile(fromFile);
    ASSERT_EQ(iflLoadBitmapFromMemory(bytes.data(), bytes.size(), &fromMemory, params, &memoryInfo),
              IFL_OK)
        << memoryInfo.report.detail;
    const IflBitmapPtr ownedMemory(fromMemory);
    EXPECT_EQ(memoryInfo.formatName, fileInfo.formatName);
    ASSERT_EQ(fromMemory->width, fromFile->width);
    ASSERT_EQ(fromMemory->height, fromFile->height);
    ASSERT_EQ(fromMemory->bytesPerLine, fromFile->bytesPerLine);
    ASSERT_EQ(fromMemory->bitsPerComponent, fromFile->bitsPerComponent);
    EXPECT_EQ(std::memcmp(fromMemory->data, fromFile->data,
                          std::size_t(fromFile->bytesPerLine) * std::size_t(fromFile->height)),
              0);

    // Cut anywhere, the bytes give a code; the harness reads every pixel of
    // what loads, so a short buffer would show under the sanitizers.
    for (std::size_t cut : {std::size_t{0}, std::size_t{1}, std::size_t{8}, std::size_t{40},
                            bytes.size() / 3, bytes.size() / 2, bytes.size() - 1}) {
        const int code = iflfuzz::loadInput(bytes.data(), cut);
        EXPECT_TRUE(knownCode(code)) << "cut at " << cut << ": code " << code;
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, FromMemoryTest,
                         ::testing::Values(MemoryCase{"jpeg_rgb8", "jpg", ZImage::RGB, 8},
                                           MemoryCase{"png_rgba16", "png", ZImage::RGBA, 16},
                                           MemoryCase{"png_grey8", "png", ZImage::Gray, 8},
                                           MemoryCase{"tiff_rgba8", "tif", ZImage::RGBA, 8},
                                           MemoryCase{"tiff_grey_float", "tif", ZImage::Gray, 32},
                                           MemoryCase{"exr_rgba_float", "exr", ZImage::RGBA, 32},
                                           MemoryCase{"hdr_rgb_float", "hdr", ZImage::RGB, 32}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(FuzzCorpus, KeptInputsGiveACode) {
    const std::filesystem::path dir(IFL_CORPUS_DIR);
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (!entry.is_regular_file() || entry.path().filename() == "README.md") continue;
        const std::vector<std::uint8_t> bytes = readBytes(entry.path().string());
        const int code = iflfuzz::loadInput(bytes.data(), bytes.size());
        EXPECT_TRUE(knownCode(code)) << entry.path() << ": code " << code;
        ++files;
    }
    if (files == 0) GTEST_SKIP() << "no input kept yet";
}

} // namespace
