// `skyrinse --gui` from end to end under a real X server (Xvfb): two
// photographs and a broken file go through the wizard, which the hidden
// walkthrough steps through as a user would (the preview page is grabbed,
// Alt is held for the depth view, Finish is pressed). That the console
// batch needs no display, skyrinse_cli_test shows on every run.
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>

namespace {

QProcessEnvironment privateEnvironment(const QTemporaryDir& dir) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
    environment.remove(QStringLiteral("SKYRINSE_PLUGIN"));
    environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
    return environment;
}

QStringList copyPhotographs(const QDir& target) {
    QStringList copies;
    for (const char* name :
         {"aitzgorri_by_Aitzol_Berasategi.jpg", "meadows-foggy-smokey-sunbeams.jpg"}) {
        const QString copy = target.filePath(QString::fromLatin1(name));
        EXPECT_TRUE(QFile::copy(QStringLiteral(DATA_DIR "/") + QString::fromLatin1(name), copy));
        copies << copy;
    }
    return copies;
}

} // namespace

TEST(SkyrinseGui, WizardDehazesEveryPhotographAndReportsTheBrokenOne) {
    const QString xvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
    if (xvfbRun.isEmpty()) GTEST_SKIP() << "xvfb-run is not installed (scripts/setup installs it)";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QDir folder(dir.path());
    QStringList files = copyPhotographs(folder);
    const QString broken = folder.filePath(QStringLiteral("broken.jpg"));
    QFile garbage(broken);
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
    garbage.write("not a picture");
    garbage.close();
    files << broken;

    QProcess process;
    QProcessEnvironment environment = privateEnvironment(dir);
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(xvfbRun, QStringList{QStringLiteral("-a"), QStringLiteral("-s"),
                                       QStringLiteral("-screen 0 1280x1024x24"),
                                       QStringLiteral(SKYRINSE_BINARY), QStringLiteral("--gui"),
                                       QStringLiteral("--walkthrough"),
                                       folder.filePath(QStringLiteral("shots"))} +
                               files);
    ASSERT_TRUE(process.waitForFinished(300000));
    const QString output = QString::fromLocal8Bit(process.readAll());
    EXPECT_EQ(process.exitCode(), 1) << "one file failed\n" << output.toStdString();

    // Both photographs were written, at the size of their sources.
    for (int i = 0; i < 2; ++i) {
        const QString written =
            QString(files.at(i)).replace(QStringLiteral(".jpg"), QStringLiteral("_dehazed.jpg"));
        const QImage result(written), source(files.at(i));
        ASSERT_FALSE(result.isNull()) << written.toStdString() << "\n" << output.toStdString();
        EXPECT_EQ(result.size(), source.size());
    }
    // The broken file is listed with its reason and nothing is written for it.
    EXPECT_TRUE(output.contains(QStringLiteral("broken.jpg: failed: ")) &&
                output.contains(QStringLiteral("IFL_ERROR")))
        << output.toStdString();
    EXPECT_FALSE(folder.exists(QStringLiteral("broken_dehazed.jpg")));

    // The grabbed window: the preview page shows a picture, not a blank.
    const QImage page(folder.filePath(QStringLiteral("shots/wizard-preview.jpg")));
    ASSERT_FALSE(page.isNull()) << output.toStdString();
    const QImage split(folder.filePath(QStringLiteral("shots/preview-split.jpg")));
    const QImage depth(folder.filePath(QStringLiteral("shots/preview-depth.jpg")));
    ASSERT_FALSE(split.isNull());
    ASSERT_EQ(split.size(), depth.size());
    int colours = 0, greys = 0, differing = 0;
    for (int y = split.height() / 4; y < split.height() * 3 / 4; y += 7)
        for (int x = split.width() * 6 / 10; x < split.width() * 9 / 10; x += 7) {
            const QRgb s = split.pixel(x, y), d = depth.pixel(x, y);
            // JPEG: grey within a level or two, colour well beyond.
            const auto spread = [](QRgb p) {
                return std::max({qRed(p), qGreen(p), qBlue(p)}) -
                       std::min({qRed(p), qGreen(p), qBlue(p)});
            };
            colours += spread(s) > 12;
            greys += spread(d) <= 2;
            differing += std::abs(qGray(s) - qGray(d)) > 12 || spread(s) > 12;
        }
    EXPECT_GT(colours, 100) << "the corrected half is a colour picture";
    EXPECT_GT(greys, 100) << "with Alt held it is the grey depth map";
    EXPECT_GT(differing, 100);
}
