// haze-inspect's refined map: refined.pfm is the refinement of the tool's own
// dark-channel.pfm on its own working.pfm, and refined.png shows it.
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
    const int channels = pfm.kind == "PF" ? 3 : 1;
    const std::size_t row = static_cast<std::size_t>(pfm.width) * channels;
    if (rest.size() != static_cast<qsizetype>(row * pfm.height * sizeof(float))) return pfm;
    pfm.data.resize(row * pfm.height);
    // Stored bottom row first.
    for (int y = 0; y < pfm.height; ++y)
        std::memcpy(pfm.data.data() + row * y,
                    rest.constData() + row * (pfm.height - 1 - y) * sizeof(float),
                    row * sizeof(float));
    return pfm;
}

TEST(HazeInspectRefined, IsTheRefinementOfTheWrittenEstimate) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    ASSERT_FALSE(qgetenv("HAZE_INSPECT").isEmpty());
    // Two tinted halves with a soft gradient: edges for the matting to follow.
    QImage picture(64, 40, QImage::Format_RGB32);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 64; ++x)
            picture.setPixel(x, y, x < 30 ? qRgb(200, 205, 215) : qRgb(70 + x, 110, 60 + y));
    const QString input = dir.filePath(QStringLiteral("in.png"));
    ASSERT_TRUE(picture.save(input));
    const QString out = dir.filePath(QStringLiteral("out"));

    QProcess tool;
    tool.start(QString::fromLocal8Bit(qgetenv("HAZE_INSPECT")),
               {input, QStringLiteral("--out"), out});
    ASSERT_TRUE(tool.waitForFinished(120000));
    ASSERT_EQ(0, tool.exitCode()) << tool.readAllStandardError().toStdString();

    const Pfm working = readPfm(out + QStringLiteral("/working.pfm"));
    const Pfm estimate = readPfm(out + QStringLiteral("/dark-channel.pfm"));
    const Pfm refined = readPfm(out + QStringLiteral("/refined.pfm"));
    const HazeWorkingSize size = hazeWorkingSize(64, 40);
    ASSERT_EQ("Pf", refined.kind);
    ASSERT_EQ(size.width, refined.width);
    ASSERT_EQ(size.height, refined.height);
    ASSERT_EQ(working.data.size(), 3 * refined.data.size());
    ASSERT_EQ(estimate.data.size(), refined.data.size());

    // The working copy was opaque; its alpha is not part of the refinement.
    ZImage image(size.width, size.height, ZImage::RGBA, 32);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            float* p = reinterpret_cast<float*>(image.PixelAt(x, y));
            const float* q =
                working.data.data() + 3 * (static_cast<std::size_t>(y) * size.width + x);
            std::memcpy(p, q, 3 * sizeof(float));
            p[3] = 1.0f;
        }
    std::vector<float> expected = estimate.data;
    image.refineDarkChannel(expected);
    EXPECT_EQ(expected, refined.data);
    EXPECT_NE(estimate.data, refined.data) << "the refinement changed nothing";

    const QImage png(out + QStringLiteral("/refined.png"));
    EXPECT_EQ(QSize(size.width, size.height), png.size());
    EXPECT_TRUE(png.isGrayscale());
}

} // namespace
