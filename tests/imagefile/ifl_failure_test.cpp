// Broken inputs and hostile targets: each row breaks one thing, and the test
// checks the code or message that comes back, that nothing was written, and
// that the source file is as it was.
#include "IflTestSupport.h"

#include <OpenImageIO/imageio.h>

#include <QFile>
#include <QtGlobal>

#include <csignal>
#include <functional>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace ifltest;

namespace {

bool runningAsRoot() {
    return ::geteuid() == 0;
}

std::uint32_t crc32(const std::uint8_t* data, std::size_t size) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

void putBigEndian(std::vector<std::uint8_t>& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

// A valid PNG whose header claims another size, with a correct checksum, so
// that the size is the only fault.
std::vector<std::uint8_t> pngClaiming(const QString& scratch, std::uint32_t width,
                                      std::uint32_t height) {
    makePicture(8, 8, ZImage::RGB, 8).Save(scratch, QStringLiteral("png"), -1, QString());
    std::vector<std::uint8_t> bytes = readBytes(scratch.toStdString());
    QFile::remove(scratch);
    // Signature (8), IHDR length (4), "IHDR" at 12, width at 16, height at 20.
    putBigEndian(bytes, 16, width);
    putBigEndian(bytes, 20, height);
    putBigEndian(bytes, 29, crc32(bytes.data() + 12, 17));
    return bytes;
}

// A tiled EXR or TIFF of 8 x 8 pixels whose header then declares tiles of
// 32768 x 32768: one tile would hold gigabytes.
std::vector<std::uint8_t> withHugeTiles(const QString& scratch, const char* format) {
    const bool exr = std::string(format) == "exr";
    OIIO::ImageSpec spec(8, 8, 3, exr ? OIIO::TypeDesc::FLOAT : OIIO::TypeDesc::UINT8);
    spec.tile_width = spec.tile_height = 16;
    const std::vector<float> pixels(8 * 8 * 3, 0.5f);
    auto out = OIIO::ImageOutput::create(format);
    if (!out || !out->open(scratch.toStdString(), spec) ||
        !out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()) || !out->close())
        return {};
    std::vector<std::uint8_t> bytes = readBytes(scratch.toStdString());
    QFile::remove(scratch);
    auto put = [&](std::size_t at) {
        for (int i = 0; i < 4; ++i)
            bytes[at + i] = static_cast<std::uint8_t>((32768u >> (8 * i)) & 0xFF);
    };
    if (exr) {
        // "tiles\0tiledesc\0", the size (4), then the tile's width and height.
        const std::string name("tiles\0tiledesc\0", 15);
        const auto at = std::search(bytes.begin(), bytes.end(), name.begin(), name.end());
        if (at == bytes.end()) return {};
        const std::size_t width = static_cast<std::size_t>(at - bytes.begin()) + name.size() + 4;
        put(width);
        put(width + 4);
        return bytes;
    }
    // A little-endian TIFF: TileWidth (322) and TileLength (323) in the first
    // directory, whose entries are tag (2), type (2), count (4), value (4).
    const std::size_t ifd = bytes[4] | bytes[5] << 8 | bytes[6] << 16 | std::size_t{bytes[7]} << 24;
    const std::size_t entries = bytes[ifd] | bytes[ifd + 1] << 8;
    for (std::size_t e = 0; e < entries; ++e) {
        const std::size_t at = ifd + 2 + 12 * e;
        const unsigned tag = bytes[at] | bytes[at + 1] << 8;
        if (tag == 322 || tag == 323) put(at + 8); // a short's value is its low half
    }
    return bytes;
}

std::vector<std::uint8_t> validFile(const QString& scratch, const char* format, int bits) {
    makePicture(256, 192, ZImage::RGB, bits).Save(scratch, QLatin1String(format), -1, QString());
    std::vector<std::uint8_t> bytes = readBytes(scratch.toStdString());
    QFile::remove(scratch);
    return bytes;
}

std::vector<std::uint8_t> firstHalf(std::vector<std::uint8_t> bytes) {
    bytes.resize(bytes.size() / 2);
    return bytes;
}

struct BrokenSource {
    const char* name;
    const char* breaks;
    const char* fileName;
    // Makes the broken source at the path; may make a folder instead.
    std::function<void(const QString& path, const QString& scratch)> make;
    const char* code;
    const char* reason; // what the third line of the message says
    bool headerFault;   // the header already shows the fault, so the metadata read sees it
};

void PrintTo(const BrokenSource& b, std::ostream* os) {
    *os << b.name;
}

void writeFile(const QString& path, const std::vector<std::uint8_t>& bytes) {
    writeBytes(path.toStdString(), bytes);
}

const BrokenSource brokenSources[] = {
    {"missing", "the file does not exist", "missing.jpg", [](const QString&, const QString&) {},
     "IFL_ERROR_FILE_OPEN", "No such file or directory", true},
    {"folder", "a folder stands where the file should be", "folder.jpg",
     [](const QString& path, const QString&) { QDir().mkpath(path); }, "IFL_ERROR_FILE_OPEN",
     "it is a folder", true},
    {"empty", "the file has no bytes", "empty.png",
     [](const QString& path, const QString&) { writeFile(path, {}); }, "IFL_ERROR_UNKNOWN_FORMAT",
     "the file is empty", true},
    {"text", "the file is text under a picture's name", "notes.jpg",
     [](const QString& path, const QString&) {
         const std::string text = "This is a shopping list, not a photograph.\n";
         writeFile(path, std::vector<std::uint8_t>(text.begin(), text.end()));
     },
     "IFL_ERROR_UNKNOWN_FORMAT", "is not a JPEG file", true},
    {"truncated_png", "the PNG stops halfway through its pixels", "half.png",
     [](const QString& path, const QString& scratch) {
         writeFile(path, firstHalf(validFile(scratch, "png", 8)));
     },
     "IFL_ERROR_FILE_READ", "hit end of file", false},
    {"truncated_jpeg", "the JPEG stops halfway through its scan", "half.jpg",
     [](const QString& path, const QString& scratch) {
         writeFile(path, firstHalf(validFile(scratch, "jpeg", 8)));
     },
     "IFL_ERROR_FILE_READ", "Premature end", false},
    {"truncated_tiff", "the TIFF stops halfway through its strips", "half.tif",
     [](const QString& path, const QString& scratch) {
         writeFile(path, firstHalf(validFile(scratch, "tiff", 16)));
     },
     "IFL_ERROR_FILE_READ", "Read error", false},
    {"zero_width", "the PNG header gives a width of 0", "zero.png",
     [](const QString& path, const QString& scratch) {
         writeFile(path, pngClaiming(scratch, 0, 8));
     },
     "IFL_ERROR_FILE_READ", "Invalid IHDR", true},
    {"absurd_size", "the PNG header claims 60000 x 60000 pixels (3.6 gigapixels)", "huge.png",
     [](const QString& path, const QString& scratch) {
         writeFile(path, pngClaiming(scratch, 60000, 60000));
     },
     "IFL_ERROR_NO_MEMORY", "60000 x 60000 pixels", true},
    {"huge_exr_tiles", "the EXR header declares tiles of 32768 x 32768 for 8 x 8 pixels",
     "tiles.exr",
     [](const QString& path, const QString& scratch) {
         writeFile(path, withHugeTiles(scratch, "exr"));
     },
     "IFL_ERROR_NO_MEMORY", "32768 rows of 32768 pixels", true},
    {"huge_tiff_tiles", "the TIFF directory declares tiles of 32768 x 32768 for 8 x 8 pixels",
     "tiles.tif",
     [](const QString& path, const QString& scratch) {
         writeFile(path, withHugeTiles(scratch, "tiff"));
     },
     "IFL_ERROR_NO_MEMORY", "32768 rows of 32768 pixels", true},
};

class BrokenSourceTest : public ::testing::TestWithParam<BrokenSource> {
protected:
    void SetUp() override {
        const BrokenSource& b = GetParam();
        path = folder.filePath(QLatin1String(b.fileName));
        b.make(path, folder.filePath(QStringLiteral("scratch.bin")));
        before = readBytes(path.toStdString());
        entriesBefore = entries(folder.path());
    }

    // Code, file and the reason in the words of whoever found the fault.
    void expectMessage(const ZException& e) const {
        const QString text = QString::fromStdString(e.what());
        const QString start =
            QStringLiteral("Error IFL : \"%1\"\nFile : \"%2\"\nReason : ")
                .arg(QLatin1String(GetParam().code), QFileInfo(path).absoluteFilePath());
        EXPECT_TRUE(text.startsWith(start)) << GetParam().breaks << ": " << e.what();
        EXPECT_TRUE(text.contains(QLatin1String(GetParam().reason))) << e.what();
    }

    QTemporaryDir folder;
    QString path;
    std::vector<std::uint8_t> before;
    QStringList entriesBefore;
};

TEST_P(BrokenSourceTest, LoadFailsWithItsCodeAndKeepsTheImage) {
    ZImage image = makePicture(3, 2, ZImage::RGB, 8);
    try {
        image.Load(path);
        FAIL() << GetParam().breaks << ": loaded";
    } catch (const ZException& e) {
        expectMessage(e);
        EXPECT_TRUE(e.location()->contains(QLatin1String("ZImage_Load.cpp")))
            << e.location()->toStdString();
    }
    EXPECT_EQ(image.Width(), 3);
    EXPECT_EQ(readBytes(path.toStdString()), before);
    EXPECT_EQ(entries(folder.path()), entriesBefore);
}

TEST_P(BrokenSourceTest, SaveWithItAsMetadataSourceWritesNothing) {
    const BrokenSource& b = GetParam();
    ZImage image = makePicture(8, 8, ZImage::RGB, 8);
    const QString output = folder.filePath(QStringLiteral("out.jpg"));
    if (!b.headerFault) {
        // The metadata are read from the header without decoding the pixels,
        // so damage past the header does not stop the save.
        image.Save(output, QStringLiteral("jpeg"), -1, path);
        EXPECT_TRUE(QFileInfo(output).isFile());
        EXPECT_EQ(readBytes(path.toStdString()), before);
        return;
    }
    try {
        image.Save(output, QStringLiteral("jpeg"), -1, path);
        FAIL() << b.breaks << ": saved";
    } catch (const ZException& e) {
        expectMessage(e);
    }
    EXPECT_FALSE(QFileInfo::exists(output));
    EXPECT_EQ(entries(folder.path()), entriesBefore);
    EXPECT_EQ(readBytes(path.toStdString()), before);
    EXPECT_FALSE(iflBitmapHasEXIF(image.Bitmap()));
}

INSTANTIATE_TEST_SUITE_P(Rows, BrokenSourceTest, ::testing::ValuesIn(brokenSources),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BrokenSource, UnreadableFileIsACannotOpen) {
    if (runningAsRoot())
        GTEST_SKIP() << "root reads files whatever their mode; the folder row covers a file "
                        "that cannot be opened";
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("locked.png"));
    makePicture(4, 4, ZImage::RGB, 8).Save(path, QStringLiteral("png"), -1, QString());
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), 0), 0);
    ZImage image;
    try {
        image.Load(path);
        FAIL() << "a file without read permission was loaded";
    } catch (const ZException& e) {
        EXPECT_TRUE(QString::fromStdString(e.what()).startsWith(
            QLatin1String("Error IFL : \"IFL_ERROR_FILE_OPEN\"")));
    }
}

TEST(IflLoad, DetailAndPathTravelWithTheCode) {
    QTemporaryDir folder;
    const std::string path = folder.filePath(QStringLiteral("absent.tif")).toStdString();
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    IflBitmap* bitmap = nullptr;
    IflFileInformation info;
    EXPECT_EQ(iflLoadBitmap(path.c_str(), &bitmap, params, &info), IFL_ERROR_FILE_OPEN);
    EXPECT_EQ(bitmap, nullptr);
    EXPECT_EQ(info.report.path, path);
    EXPECT_NE(info.report.detail.find("No such file"), std::string::npos) << info.report.detail;
    iflFreeFileInformation(&info);
    EXPECT_TRUE(info.report.path.empty());
    EXPECT_EQ(iflLoadBitmap(nullptr, &bitmap, params, &info), IFL_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(iflLoadBitmap(path.c_str(), nullptr, params, &info), IFL_ERROR_BAD_PARAMETERS);
}

// Runs `save` and returns the exception text, or "" if nothing was thrown.
QString failureOf(const std::function<void()>& save) {
    try {
        save();
    } catch (const ZException& e) {
        return QString::fromStdString(e.what());
    }
    return QString();
}

TEST(SaveChecks, ArgumentsAreCheckedInOrderAndNothingIsTouched) {
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("out.png"));
    ZImage empty;
    EXPECT_EQ(failureOf([&] { empty.Save(QString(), QString(), -1, QString()); }),
              QStringLiteral("Invalid Bitmap"));
    ZImage odd(4, 4, ZImage::RGB, 12); // a depth no file holds
    EXPECT_EQ(failureOf([&] { odd.Save(path, QStringLiteral("png"), -1, QString()); }),
              QStringLiteral("Invalid Bitmap"));
    ZImage image = makePicture(4, 4, ZImage::RGB, 8);
    EXPECT_EQ(failureOf([&] { image.Save(QString(), QString(), -1, QString()); }),
              QStringLiteral("Invalid Parameter"));
    EXPECT_EQ(failureOf([&] { image.Save(path, QString(), -1, QString()); }),
              QStringLiteral("Invalid Parameter"));
    EXPECT_TRUE(entries(folder.path()).isEmpty());
}

TEST(SaveChecks, AnUnknownFormatNameIsABadFormatIndex) {
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("out.xyz"));
    ZImage image = makePicture(4, 4, ZImage::RGB, 8);
    EXPECT_EQ(failureOf([&] { image.Save(path, QStringLiteral("XYZ"), -1, QString()); }),
              QStringLiteral("Error IFL : \"IFL_ERROR_BAD_FORMAT_INDEX\"\nFile : \"%1\"\nReason : "
                             "no image format is known as \"XYZ\"")
                  .arg(path));
    EXPECT_TRUE(entries(folder.path()).isEmpty());
}

TEST(SaveTargets, AFolderThatIsAFileCannotBeWritten) {
    // Root may write anywhere, but not below a regular file.
    QTemporaryDir folder;
    const QString blocker = folder.filePath(QStringLiteral("blocker"));
    writeFile(blocker, {1, 2, 3});
    const QString path = blocker + QStringLiteral("/out.png");
    ZImage image = makePicture(4, 4, ZImage::RGB, 8);
    EXPECT_EQ(failureOf([&] { image.Save(path, QStringLiteral("png"), -1, QString()); }),
              QStringLiteral("Cannot write into file \"%1\"").arg(path));
    EXPECT_EQ(entries(folder.path()), QStringList{QStringLiteral("blocker")});
    EXPECT_EQ(readBytes(blocker.toStdString()), (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(SaveTargets, AFolderInPlaceOfTheTargetIsNotReplaced) {
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("out.png"));
    QDir().mkpath(path);
    ZImage image = makePicture(4, 4, ZImage::RGB, 8);
    EXPECT_EQ(failureOf([&] { image.Save(path, QStringLiteral("png"), -1, QString()); }),
              QStringLiteral("Cannot write into file \"%1\"").arg(path));
    EXPECT_TRUE(QFileInfo(path).isDir());
    EXPECT_EQ(entries(folder.path()), QStringList{QStringLiteral("out.png")});
}

TEST(SaveTargets, AReadOnlyTargetIsNotReplaced) {
    if (runningAsRoot())
        GTEST_SKIP() << "root writes files whatever their mode; the folder-in-place row covers "
                        "a target that cannot be written";
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("out.png"));
    writeFile(path, {7});
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), 0444), 0);
    ZImage image = makePicture(4, 4, ZImage::RGB, 8);
    EXPECT_EQ(failureOf([&] { image.Save(path, QStringLiteral("png"), -1, QString()); }),
              QStringLiteral("Cannot write into file \"%1\"").arg(path));
    EXPECT_EQ(readBytes(path.toStdString()), std::vector<std::uint8_t>{7});
}

TEST(SaveTargets, AnExistingTargetIsReplacedWhole) {
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("out.png"));
    writeFile(path, std::vector<std::uint8_t>(100000, 0xEE)); // longer than the new picture
    ZImage image = makePicture(4, 4, ZImage::RGB, 8);
    image.Save(path, QStringLiteral("png"), -1, QString());
    ZImage loaded;
    loaded.Load(path);
    EXPECT_EQ(maxDifference(image, loaded), 0);
    EXPECT_LT(QFileInfo(path).size(), 100000);
    EXPECT_EQ(entries(folder.path()), QStringList{QStringLiteral("out.png")});
}

// A picture that no codec can shrink much.
ZImage noise(int width, int height) {
    ZImage image(width, height, ZImage::RGB, 8);
    std::uint32_t state = 12345;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) {
                state = state * 1664525u + 1013904223u;
                setComponent(image, x, y, c, state >> 24);
            }
    return image;
}

qint64 freeBytesOf(const QString& folder) {
    struct statvfs volume {};
    if (::statvfs(QFile::encodeName(folder).constData(), &volume) != 0) return -1;
    return static_cast<qint64>(volume.f_bavail) * static_cast<qint64>(volume.f_frsize);
}

// A 64 KiB file system of its own, where the sandbox allows mounting one.
class FullDisk : public ::testing::Test {
protected:
    void SetUp() override {
        disk = folder.filePath(QStringLiteral("disk"));
        QDir().mkpath(disk);
        mounted =
            ::mount("tmpfs", QFile::encodeName(disk).constData(), "tmpfs", 0, "size=64k") == 0;
    }
    void TearDown() override {
        if (mounted) ::umount(QFile::encodeName(disk).constData());
    }
    void requireDisk() {
        if (!mounted)
            GTEST_SKIP() << "no tmpfs can be mounted here; FileSizeLimit covers a failing write";
    }

    QTemporaryDir folder;
    QString disk;
    bool mounted = false;
};

TEST_F(FullDisk, APictureLargerThanTheRoomIsReportedAsNoSpace) {
    requireDisk();
    const QString keep = disk + QStringLiteral("/keep.png");
    writeFile(keep, {'o', 'l', 'd'});
    ZImage image = noise(200, 200); // 120000 bytes of pixels on a 64 KiB disk
    EXPECT_EQ(failureOf([&] { image.Save(keep, QStringLiteral("png"), -1, QString()); }),
              QStringLiteral("Not enough free space on \"%1\" to finish operation").arg(disk));
    // The file that was there is as it was, and no part of the new one is left.
    EXPECT_EQ(readBytes(keep.toStdString()), (std::vector<std::uint8_t>{'o', 'l', 'd'}));
    EXPECT_EQ(entries(disk), QStringList{QStringLiteral("keep.png")});
}

TEST_F(FullDisk, AFileLargerThanItsPixelsIsReportedByTheLibrary) {
    requireDisk();
    // The pixel estimate fits in what is left, but pixels and metadata do not.
    const QString source = QString::fromStdString(dataFile("metadata/rich_all_metadata.jpg"));
    ZImage image = noise(50, 50);
    const QString probe = folder.filePath(QStringLiteral("probe.png"));
    image.Save(probe, QStringLiteral("png"), -1, source);
    const qint64 needed = QFileInfo(probe).size();

    writeFile(disk + QStringLiteral("/filler"), std::vector<std::uint8_t>(56 * 1024, 0));
    const qint64 room = freeBytesOf(disk);
    ASSERT_GE(room, 50 * 50 * 3) << "the estimate must fit for this case";
    ASSERT_LT(room, needed) << "the file must not fit for this case";

    const QString path = disk + QStringLiteral("/out.png");
    ZImage fresh = noise(50, 50);
    EXPECT_EQ(failureOf([&] { fresh.Save(path, QStringLiteral("png"), -1, source); }),
              QStringLiteral("Error IFL : \"IFL_ERROR_FILE_WRITE\"\nFile : \"%1\"\nReason : "
                             "%1: No space left on device")
                  .arg(path));
    EXPECT_EQ(entries(disk), QStringList{QStringLiteral("filler")});
}

TEST_F(FullDisk, AskingExactlyTheFreeBytesPasses) {
    requireDisk();
    const QString path = disk + QStringLiteral("/exact.png");
    const qint64 room = freeBytesOf(disk);
    EXPECT_EQ(failureOf([&] { CheckForDiskSpace(path, room, QStringLiteral("here")); }), QString());
    EXPECT_EQ(failureOf([&] { CheckForDiskSpace(path, room + 1, QStringLiteral("here")); }),
              QStringLiteral("Not enough free space on \"%1\" to finish operation").arg(disk));
    EXPECT_TRUE(entries(disk).isEmpty());
}

TEST(FileSizeLimit, AWriteCutShortLeavesNoFile) {
    // Works without mounting: the process may not grow a file past 4 KiB.
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("out.png"));
    ZImage image = noise(60, 60);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    rlimit small = saved;
    small.rlim_cur = 4096;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const QString failure =
        failureOf([&] { image.Save(path, QStringLiteral("png"), -1, QString()); });
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    EXPECT_EQ(failure,
              QStringLiteral("Error IFL : \"IFL_ERROR_FILE_WRITE\"\nFile : \"%1\"\nReason : "
                             "%1: File too large")
                  .arg(path));
    EXPECT_TRUE(entries(folder.path()).isEmpty());
}

QStringList debugLines;
void collect(QtMsgType, const QMessageLogContext&, const QString& text) {
    debugLines << text;
}

TEST(CheckForDiskSpace, LogsOneLineAndLeavesNoNewFile) {
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("probe.png"));
    debugLines.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collect);
    CheckForDiskSpace(path, 1234, QStringLiteral("here"));
    qInstallMessageHandler(previous);
    ASSERT_EQ(debugLines.size(), 1);
    EXPECT_TRUE(debugLines[0].startsWith(QLatin1String("CheckForDiskSpace Disk : ")));
    EXPECT_TRUE(debugLines[0].endsWith(QLatin1String(", Asked : 1234")));
    EXPECT_FALSE(QFileInfo::exists(path));
}

TEST(CheckForDiskSpace, AnExistingFileIsOpenedButNotChanged) {
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("kept.bin"));
    writeFile(path, {1, 2, 3, 4});
    CheckForDiskSpace(path, 4, QStringLiteral("here"));
    EXPECT_EQ(readBytes(path.toStdString()), (std::vector<std::uint8_t>{1, 2, 3, 4}));
}

TEST(CheckForDiskSpace, AnUnknownVolumeSkipsTheSpaceTestButNotTheWriteTest) {
    const QString path = QStringLiteral("/nonexistent-skyrinse-folder/out.png");
    const QString failure = failureOf([&] {
        CheckForDiskSpace(path, std::numeric_limits<qint64>::max(), QStringLiteral("here"));
    });
    EXPECT_EQ(failure, QStringLiteral("Cannot write into file \"%1\"").arg(path));
}

TEST(CheckForDiskSpace, CarriesTheGivenLocation) {
    try {
        CheckForDiskSpace(QStringLiteral("/nonexistent-skyrinse-folder/x"), 1,
                          QStringLiteral("File: \"caller.cpp\" Line: 7"));
        FAIL() << "no exception";
    } catch (const ZException& e) {
        EXPECT_EQ(*e.location(), QStringLiteral("File: \"caller.cpp\" Line: 7"));
    }
}

} // namespace
