// haze-inspect as a user runs it: the files it writes (PFM layout, bottom-up
// rows, little-endian), agreement with runHazeRemoval and with the refinement
// of its own estimate, and its refusals.
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>

#include <cstring>
#include <vector>

namespace {

struct ToolRun {
    int exitCode;
    QString errors;
};

ToolRun runTool(const QStringList& arguments) {
    QProcess process;
    process.start(QString::fromLocal8Bit(qgetenv("HAZE_INSPECT")), arguments);
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit)
        return {-1, QStringLiteral("did not finish")};
    return {process.exitCode(), QString::fromLocal8Bit(process.readAllStandardError())};
}

struct Pfm {
    QByteArray kind;
    int width = 0, height = 0;
    std::vector<float> data; // top row first, as the map arrays are
};

Pfm readPfm(const QString& path) {
    QFile file(path);
    Pfm pfm;
    if (!file.open(QIODevice::ReadOnly)) return pfm;
    pfm.kind = file.readLine().trimmed();
    const QList<QByteArray> size = file.readLine().trimmed().split(' ');
    if (size.size() != 2 || file.readLine().trimmed() != "-1.0") return pfm;
    pfm.width = size[0].toInt();
    pfm.height = size[1].toInt();
    const QByteArray rest = file.readAll();
    const std::size_t row = static_cast<std::size_t>(pfm.width) * (pfm.kind == "PF" ? 3 : 1);
    if (rest.size() != static_cast<qsizetype>(row * pfm.height * sizeof(float))) return pfm;
    pfm.data.resize(row * pfm.height);
    // Stored bottom row first.
    for (int y = 0; y < pfm.height; ++y)
        std::memcpy(pfm.data.data() + row * y,
                    rest.constData() + row * (pfm.height - 1 - y) * sizeof(float),
                    row * sizeof(float));
    return pfm;
}

// A small hazy picture: a pale band at the top over darker, coloured ground.
QImage testPicture() {
    QImage image(48, 36, QImage::Format_RGB32);
    for (int y = 0; y < 36; ++y)
        for (int x = 0; x < 48; ++x)
            image.setPixel(x, y,
                           y < 10 ? qRgb(220, 225, 230) : qRgb(60 + 3 * x, 90 + y, 40 + 2 * y));
    return image;
}

class HazeInspect : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(qgetenv("HAZE_INSPECT").isEmpty());
        ASSERT_TRUE(dir.isValid());
        input = dir.filePath(QStringLiteral("in.png"));
        ASSERT_TRUE(testPicture().save(input));
        out = dir.filePath(QStringLiteral("out"));
    }
    QTemporaryDir dir;
    QString input, out;
};

TEST_F(HazeInspect, WritesEveryStageAndAgreesWithTheRun) {
    const ToolRun run = runTool(
        {input, QStringLiteral("--strength"), QStringLiteral("70"), QStringLiteral("--out"), out});
    ASSERT_EQ(0, run.exitCode) << run.errors.toStdString();

    // The same picture through runHazeRemoval in this process.
    const QImage rgba = QImage(input).convertToFormat(QImage::Format_RGBA32FPx4);
    ZImage image(48, 36, ZImage::RGBA, 32);
    for (int y = 0; y < 36; ++y)
        std::memcpy(image.PixelAt(0, y), rgba.constScanLine(y), 48 * 16);
    HazeSettings settings;
    settings.strength = 70;
    runHazeRemoval(image, settings);

    const Pfm depth = readPfm(out + QStringLiteral("/depth.pfm"));
    ASSERT_EQ("Pf", depth.kind);
    ASSERT_EQ(48, depth.width);
    ASSERT_EQ(48u * 36u, depth.data.size());
    const Pfm result = readPfm(out + QStringLiteral("/result.pfm"));
    ASSERT_EQ("PF", result.kind);
    ASSERT_EQ(48u * 36u * 3u, result.data.size());
    for (int y = 0; y < 36; ++y)
        for (int x = 0; x < 48; ++x) {
            ASSERT_EQ(settings.airDepthMap[y * 48 + x], depth.data[y * 48 + x]) << x << ", " << y;
            const float* p = reinterpret_cast<const float*>(image.PixelAt(x, y));
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(p[c], result.data[(y * 48 + x) * 3 + c]) << x << ", " << y;
        }

    QFile airlight(out + QStringLiteral("/airlight.txt"));
    ASSERT_TRUE(airlight.open(QIODevice::ReadOnly));
    const QList<QByteArray> values = airlight.readAll().trimmed().split(' ');
    ASSERT_EQ(3, values.size());
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ(settings.airlight[c], values[c].toFloat());

    const HazeWorkingSize size = hazeWorkingSize(48, 36);
    const Pfm dark = readPfm(out + QStringLiteral("/dark-channel.pfm"));
    EXPECT_EQ(static_cast<std::size_t>(size.width) * size.height, dark.data.size());
    const QImage png(out + QStringLiteral("/depth.png"));
    EXPECT_EQ(QSize(48, 36), png.size());
    EXPECT_TRUE(png.isGrayscale());
}

TEST_F(HazeInspect, RefusesBadInputWithAMessage) {
    const ToolRun missing =
        runTool({dir.filePath(QStringLiteral("none.jpg")), QStringLiteral("--out"), out});
    EXPECT_NE(0, missing.exitCode);
    EXPECT_TRUE(missing.errors.contains(QStringLiteral("none.jpg")))
        << missing.errors.toStdString();

    const QString text = dir.filePath(QStringLiteral("notes.jpg"));
    QFile file(text);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("not a picture\n");
    file.close();
    const ToolRun notImage = runTool({text, QStringLiteral("--out"), out});
    EXPECT_NE(0, notImage.exitCode);
    EXPECT_TRUE(notImage.errors.contains(QStringLiteral("notes.jpg")))
        << notImage.errors.toStdString();
    EXPECT_FALSE(QFile::exists(out + QStringLiteral("/depth.pfm")));

    for (const char* strength : {"abc", "101", "-1"}) {
        const ToolRun bad = runTool({input, QStringLiteral("--strength"),
                                     QString::fromLatin1(strength), QStringLiteral("--out"), out});
        EXPECT_EQ(2, bad.exitCode) << strength;
        EXPECT_TRUE(bad.errors.contains(QString::fromLatin1(strength))) << bad.errors.toStdString();
    }
    EXPECT_EQ(2, runTool({input}).exitCode) << "no --out";
}

TEST_F(HazeInspect, RefinedMapIsTheRefinementOfTheWrittenEstimate) {
    ASSERT_EQ(0, runTool({input, QStringLiteral("--out"), out}).exitCode);
    const Pfm working = readPfm(out + QStringLiteral("/working.pfm"));
    const Pfm estimate = readPfm(out + QStringLiteral("/dark-channel.pfm"));
    const Pfm refined = readPfm(out + QStringLiteral("/refined.pfm"));
    const HazeWorkingSize size = hazeWorkingSize(48, 36);
    ASSERT_EQ(size.width, working.width);
    ASSERT_EQ(size.height, working.height);
    ASSERT_EQ(working.data.size(), 3 * estimate.data.size());

    // The working copy was opaque; its alpha is not part of the refinement.
    ZImage image(size.width, size.height, ZImage::RGBA, 32);
    for (int i = 0; i < size.width * size.height; ++i) {
        float* p = reinterpret_cast<float*>(image.PixelAt(i % size.width, i / size.width));
        std::memcpy(p, working.data.data() + 3 * i, 3 * sizeof(float));
        p[3] = 1.0f;
    }
    std::vector<float> expected = estimate.data;
    image.refineDarkChannel(expected);
    EXPECT_EQ(expected, refined.data);
    EXPECT_NE(estimate.data, refined.data) << "the refinement changed nothing";
    EXPECT_EQ(QSize(size.width, size.height), QImage(out + QStringLiteral("/refined.png")).size());
}

} // namespace
