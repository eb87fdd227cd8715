// The skyrinse command: options, exit codes, what it prints, what it writes.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

struct CliResult {
    int exitCode = -1;
    QString output; // standard output and error together
};

CliResult skyrinse(const QStringList& arguments, const QString& home) {
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // A private settings store, so a stored default of the user cannot leak in.
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home);
    environment.remove(QStringLiteral("SKYRINSE_PLUGIN"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(SKYRINSE_BINARY), arguments);
    EXPECT_TRUE(process.waitForFinished(120000));
    return {process.exitCode(), QString::fromLocal8Bit(process.readAll())};
}

QString writeJpeg(const QDir& dir, const QString& name) {
    QImage image(40, 30, QImage::Format_RGB32);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x)
            image.setPixel(x, y, qRgb(180 + y, 185 + y, 190 + (x % 9)));
    const QString path = dir.filePath(name);
    EXPECT_TRUE(image.save(path, "JPEG"));
    return path;
}

class SkyrinseCli : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    CliResult run(const QStringList& arguments) {
        return skyrinse(arguments, dir.filePath(QStringLiteral("config")));
    }
    QTemporaryDir dir;
};

} // namespace

TEST_F(SkyrinseCli, HelpAndVersion) {
    const CliResult help = run({QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    for (const char* option : {"--strength", "--threads", "--verbose", "FILE"})
        EXPECT_TRUE(help.output.contains(QLatin1String(option))) << option;
    const CliResult version = run({QStringLiteral("--version")});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_TRUE(version.output.contains(QStringLiteral("skyrinse 0.")))
        << version.output.toStdString();
}

TEST_F(SkyrinseCli, BadOptionsAreRefusedBeforeAnyWork) {
    const QString photo = writeJpeg(QDir(dir.path()), QStringLiteral("a.jpg"));
    const QStringList bad[] = {
        {QStringLiteral("--strength"), QStringLiteral("abc"), photo},
        {QStringLiteral("--strength"), QStringLiteral("101"), photo},
        {QStringLiteral("--strength"), QStringLiteral("-5"), photo},
        {QStringLiteral("--strength"), QStringLiteral("12.5"), photo},
        {QStringLiteral("--threads"), QStringLiteral("0"), photo},
        {QStringLiteral("--threads"), QStringLiteral("many"), photo},
        {},
    };
    for (const QStringList& arguments : bad) {
        const CliResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.join(u' ').toStdString();
        EXPECT_TRUE(result.output.startsWith(QStringLiteral("skyrinse: ")))
            << result.output.toStdString();
    }
    EXPECT_FALSE(QFileInfo::exists(QDir(dir.path()).filePath(QStringLiteral("a_dehazed.jpg"))));
}

TEST_F(SkyrinseCli, AMissingOrForeignPluginIsNamed) {
    const QString photo = writeJpeg(QDir(dir.path()), QStringLiteral("a.jpg"));
    const CliResult missing =
        run({QStringLiteral("--plugin"), QStringLiteral("/nonexistent/libZHaze.so"), photo});
    EXPECT_EQ(missing.exitCode, 3);
    EXPECT_TRUE(missing.output.contains(QStringLiteral("does not exist")))
        << missing.output.toStdString();

    // A real Qt plug-in of another kind: refused by its identifier, not loaded.
    const QString foreign = QStringLiteral(QT_PLUGIN_DIR "/platforms/libqminimal.so");
    ASSERT_TRUE(QFileInfo::exists(foreign));
    const CliResult wrong = run({QStringLiteral("--plugin"), foreign, photo});
    EXPECT_EQ(wrong.exitCode, 3);
    EXPECT_TRUE(wrong.output.contains(QStringLiteral("not a Skyrinse plug-in")))
        << wrong.output.toStdString();

    const QString text = QDir(dir.path()).filePath(QStringLiteral("fake.so"));
    QFile file(text);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("not a library");
    file.close();
    const CliResult junk = run({QStringLiteral("--plugin"), text, photo});
    EXPECT_EQ(junk.exitCode, 3);
    EXPECT_FALSE(QFileInfo::exists(QDir(dir.path()).filePath(QStringLiteral("a_dehazed.jpg"))));
}

TEST_F(SkyrinseCli, ABatchGoesOnPastAFailureAndSaysWhy) {
    const QDir folder(dir.path());
    const QString good = writeJpeg(folder, QStringLiteral("good.jpg"));
    const QString also = writeJpeg(folder, QStringLiteral("also.jpg"));
    const QString missing = folder.filePath(QStringLiteral("missing.jpg"));

    const CliResult result =
        run({QStringLiteral("--strength"), QStringLiteral("70"), good, missing, also});
    EXPECT_EQ(result.exitCode, 1) << result.output.toStdString();
    EXPECT_TRUE(result.output.contains(QStringLiteral("[1/3] ") + good + QStringLiteral(" -> ") +
                                       folder.filePath(QStringLiteral("good_dehazed.jpg"))))
        << result.output.toStdString();
    EXPECT_TRUE(
        result.output.contains(QStringLiteral("[2/3] ") + missing +
                               QStringLiteral(": failed: Error IFL : \"IFL_ERROR_FILE_OPEN\"")))
        << result.output.toStdString();
    EXPECT_TRUE(result.output.contains(QStringLiteral("at File: \""))) << "the location is shown";
    EXPECT_TRUE(result.output.contains(QStringLiteral("2 of 3 file(s) written")));
    EXPECT_TRUE(QFileInfo::exists(folder.filePath(QStringLiteral("good_dehazed.jpg"))));
    EXPECT_TRUE(QFileInfo::exists(folder.filePath(QStringLiteral("also_dehazed.jpg"))));
    EXPECT_FALSE(QFileInfo::exists(folder.filePath(QStringLiteral("missing_dehazed.jpg"))));
}

TEST_F(SkyrinseCli, WithoutStrengthTheDefaultIsSixtyAndZeroChangesNothing) {
    const QDir folder(dir.path());
    const QString photo = writeJpeg(folder, QStringLiteral("p.jpg"));
    const CliResult defaulted = run({QStringLiteral("--verbose"), photo});
    EXPECT_EQ(defaulted.exitCode, 0) << defaulted.output.toStdString();
    EXPECT_TRUE(defaulted.output.contains(QStringLiteral("strength 60%")))
        << defaulted.output.toStdString();
    const QImage strong(folder.filePath(QStringLiteral("p_dehazed.jpg")));

    const CliResult zero = run({QStringLiteral("--strength"), QStringLiteral("0"), photo});
    EXPECT_EQ(zero.exitCode, 0);
    const QImage unchanged(folder.filePath(QStringLiteral("p_dehazed.jpg")));
    const QImage source(photo);
    ASSERT_EQ(unchanged.size(), source.size());
    // Strength 0 only re-encodes; 60 visibly darkens the veil.
    int zeroDiff = 0, strongDiff = 0;
    for (int y = 0; y < source.height(); ++y) {
        for (int x = 0; x < source.width(); ++x) {
            zeroDiff = std::max(zeroDiff,
                                std::abs(qGray(unchanged.pixel(x, y)) - qGray(source.pixel(x, y))));
            strongDiff = std::max(strongDiff,
                                  std::abs(qGray(strong.pixel(x, y)) - qGray(source.pixel(x, y))));
        }
    }
    EXPECT_LE(zeroDiff, 3);
    EXPECT_GT(strongDiff, 20);
}

TEST_F(SkyrinseCli, AStoredDefaultStrengthIsUsed) {
    const QDir config(dir.filePath(QStringLiteral("config/Skyrinse")));
    ASSERT_TRUE(config.mkpath(QStringLiteral(".")));
    QFile store(config.filePath(QStringLiteral("skyrinse.conf")));
    ASSERT_TRUE(store.open(QIODevice::WriteOnly));
    store.write("[6A2F91C4-38DE-4B07-A15C-7E04D3C2B81F]\nhazeRemove=25\n");
    store.close();
    const QString photo = writeJpeg(QDir(dir.path()), QStringLiteral("s.jpg"));
    const CliResult result = run({QStringLiteral("--verbose"), photo});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.output.contains(QStringLiteral("strength 25%")))
        << result.output.toStdString();
}

TEST_F(SkyrinseCli, SolverReportsReachStandardOutputOnlyWhenVerbose) {
    const QString photo = writeJpeg(QDir(dir.path()), QStringLiteral("v.jpg"));
    for (const bool verbose : {false, true}) {
        QProcess process;
        QStringList arguments{photo};
        if (verbose) arguments.prepend(QStringLiteral("--verbose"));
        process.start(QStringLiteral(SKYRINSE_BINARY), arguments);
        ASSERT_TRUE(process.waitForFinished(120000));
        EXPECT_EQ(process.exitCode(), 0);
        const QByteArray out = process.readAllStandardOutput();
        EXPECT_EQ(out.isEmpty(), !verbose) << out.toStdString();
        EXPECT_TRUE(process.readAllStandardError().contains("v_dehazed.jpg"));
    }
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication app(argc, argv); // for the image format plug-ins
    return RUN_ALL_TESTS();
}
