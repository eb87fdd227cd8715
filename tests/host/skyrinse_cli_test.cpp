// The skyrinse command: options, exit codes, what it prints, what it writes.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <unistd.h>

namespace {

struct CliResult {
    int exitCode = -1;
    QString output; // standard output and error together
};

CliResult skyrinse(const QStringList& arguments, const QString& home,
                   const std::function<void()>& inChild = {},
                   QProcess::ExitStatus* status = nullptr, int killAfterMs = -1) {
    QProcess process;
    if (inChild) process.setChildProcessModifier(inChild);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // A private settings store, so a stored default of the user cannot leak in.
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home);
    environment.remove(QStringLiteral("SKYRINSE_PLUGIN"));
    // The console batch never needs a display.
    environment.remove(QStringLiteral("DISPLAY"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(SKYRINSE_BINARY), arguments);
    if (killAfterMs >= 0 && !process.waitForFinished(killAfterMs))
        ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    EXPECT_TRUE(process.waitForFinished(120000));
    if (status) *status = process.exitStatus();
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

QByteArray bytesOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Files of a folder with their bytes, to show that a run changed nothing.
QMap<QString, QByteArray> snapshot(const QDir& dir) {
    QMap<QString, QByteArray> files;
    for (const QString& name : dir.entryList(QDir::Files | QDir::Hidden))
        files.insert(name, bytesOf(dir.filePath(name)));
    return files;
}

} // namespace

TEST_F(SkyrinseCli, HelpAndVersion) {
    const CliResult help = run({QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    for (const char* option : {"--strength", "--threads", "--verbose", "--overwrite", "FILE"})
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
        {QStringLiteral("--bogus"), photo}, // an unknown option is a bad command line too
        {},
        {QStringLiteral("--walkthrough"), dir.path(), photo}, // the wizard's alone
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

    const CliResult zero = run(
        {QStringLiteral("--overwrite"), QStringLiteral("--strength"), QStringLiteral("0"), photo});
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

TEST_F(SkyrinseCli, OutputsThatCollideAreRefusedBeforeAnyWork) {
    struct Case {
        const char* name;
        QStringList sources;
        const char* output; // what both would be written as
    };
    const Case cases[] = {
        {"suffix case", {QStringLiteral("a.jpg"), QStringLiteral("a.JPG")}, "a_dehazed.jpg"},
        // PPM is read but not written, so it becomes the TIFF's output name.
        {"forced tiff", {QStringLiteral("b.ppm"), QStringLiteral("b.tiff")}, "b_dehazed.tiff"},
        {"same file twice", {QStringLiteral("c.jpg"), QStringLiteral("c.jpg")}, "c_dehazed.jpg"},
        {"output is a source",
         {QStringLiteral("d.png"), QStringLiteral("d_dehazed.png")},
         "d_dehazed.png"},
    };
    for (const Case& c : cases) {
        QTemporaryDir folder;
        const QDir here(folder.path());
        QStringList paths;
        for (const QString& name : c.sources) {
            const QString path = here.filePath(name);
            if (!QFileInfo::exists(path)) {
                QImage image(24, 16, QImage::Format_RGB888);
                image.fill(QColor(200, 205, 210));
                // Qt writes no TIFF; a TIFF's output name is the same whatever
                // it holds, so the PPM's bytes stand in.
                const QString format = QFileInfo(name).suffix().toUpper();
                ASSERT_TRUE(image.save(
                    path, format == QLatin1String("TIFF") ? "PPM" : format.toLatin1().constData()))
                    << name.toStdString();
            }
            paths << path;
        }
        const auto before = snapshot(here);
        const CliResult result = run(paths);
        EXPECT_EQ(result.exitCode, 2) << c.name << ": " << result.output.toStdString();
        EXPECT_TRUE(result.output.contains(here.filePath(QLatin1String(c.output))))
            << c.name << ": " << result.output.toStdString();
        for (const QString& path : paths)
            EXPECT_TRUE(result.output.contains(path)) << c.name << ": both names are given";
        EXPECT_EQ(snapshot(here), before) << c.name << ": nothing written, sources untouched";
    }
}

TEST_F(SkyrinseCli, AnExistingOutputIsKeptUnlessOverwriteIsGiven) {
    const QDir folder(dir.path());
    const QString photo = writeJpeg(folder, QStringLiteral("p.jpg"));
    const QString output = folder.filePath(QStringLiteral("p_dehazed.jpg"));
    QFile old(output);
    ASSERT_TRUE(old.open(QIODevice::WriteOnly));
    old.write("an earlier result");
    old.close();
    const QByteArray source = bytesOf(photo);

    const CliResult kept = run({photo});
    EXPECT_EQ(kept.exitCode, 1) << kept.output.toStdString();
    EXPECT_TRUE(kept.output.contains(QStringLiteral("--overwrite"))) << kept.output.toStdString();
    EXPECT_EQ(bytesOf(output), QByteArray("an earlier result"));

    const CliResult replaced = run({QStringLiteral("--overwrite"), photo});
    EXPECT_EQ(replaced.exitCode, 0) << replaced.output.toStdString();
    EXPECT_EQ(QImage(output).size(), QSize(40, 30));
    EXPECT_EQ(bytesOf(photo), source);
}

TEST_F(SkyrinseCli, ANameThatIsNotUtf8IsOpenedAndItsOutputNamedAlike) {
    const QByteArray folder = QFile::encodeName(dir.path());
    const QByteArray name =
        folder + "/caf\xe9.jpg"; // Latin-1, as old cameras and shares name files
    const QString plain = writeJpeg(QDir(dir.path()), QStringLiteral("plain.jpg"));
    ASSERT_EQ(::rename(QFile::encodeName(plain).constData(), name.constData()), 0);
    // The argument goes to the child as the same bytes.
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"),
                                              QStringLiteral("exec \"$0\" --strength 30 \"$(printf "
                                                             "'%s/caf\\351.jpg' \"$1\")\""),
                                              QStringLiteral(SKYRINSE_BINARY), dir.path()});
    ASSERT_TRUE(process.waitForFinished(120000));
    EXPECT_EQ(process.exitCode(), 0) << process.readAll().toStdString();
    const QByteArray output = folder + "/caf\xe9_dehazed.jpg";
    EXPECT_EQ(::access(output.constData(), R_OK), 0) << "no output under the same bytes";
    // QTemporaryDir removes by QString names, which cannot hold these bytes.
    ::unlink(output.constData());
    ::unlink(name.constData());
}

TEST_F(SkyrinseCli, ChecksBeforeWorkRefuseAtOnceWithTheCause) {
    const QDir folder(dir.path());
    struct Case {
        const char* name;
        std::function<QString()> make;
        std::function<void()> inChild;
        const char* says;
    };
    const Case cases[] = {
        {"no suffix",
         [&] {
             const QString path = writeJpeg(folder, QStringLiteral("x.jpg"));
             const QString bare = folder.filePath(QStringLiteral("nosuffix"));
             QFile::rename(path, bare);
             return bare;
         },
         {},
         "the name has no suffix that tells the format"},
        {"too little memory",
         [&] {
             // 900 megapixels need about 3 GB; the child may map 2 GB in all.
             // Only the header is read before the refusal, so the pixels
             // need not be there.
             const QString path = folder.filePath(QStringLiteral("big.pgm"));
             QFile file(path);
             file.open(QIODevice::WriteOnly);
             file.write("P5\n30000 30000\n255\n");
             file.write(QByteArray(64, '\x80'));
             return path;
         },
         [] {
             const rlimit limit{2000000000, 2000000000};
             ::setrlimit(RLIMIT_AS, &limit);
         },
         "Not enough memory for"},
        {"threads' address space",
         [&] {
             // A few megapixels fit in 1 GB, but not with the work buffer,
             // stack and arena that each of two solver threads maps; without
             // counting them the BLAS library retried its buffer for ever.
             QImage image(2000, 1500, QImage::Format_RGB888);
             for (int y = 0; y < image.height(); ++y)
                 for (int x = 0; x < image.width(); ++x)
                     image.setPixelColor(x, y, QColor(150 + y % 100, 160 + x % 90, 200));
             const QString path = folder.filePath(QStringLiteral("veiled.jpg"));
             image.save(path, "JPEG");
             return path;
         },
         [] {
             const rlimit limit{1000000000, 1000000000};
             ::setrlimit(RLIMIT_AS, &limit);
         },
         "Not enough memory for"},
    };
    for (const Case& c : cases) {
#if defined(__SANITIZE_ADDRESS__)
        // AddressSanitizer reserves its shadow memory at start and cannot
        // run under an address-space limit at all.
        if (c.inChild) continue;
#endif
        const QString source = c.make();
        const QByteArray before = bytesOf(source);
        // Two threads whatever the machine has, as the memory needed grows
        // with them.
        const CliResult result = skyrinse(
            {QStringLiteral("--verbose"), QStringLiteral("--threads"), QStringLiteral("2"), source},
            dir.filePath(QStringLiteral("config")), c.inChild);
        EXPECT_EQ(result.exitCode, 1) << c.name;
        EXPECT_TRUE(result.output.contains(QLatin1String(c.says)))
            << c.name << ": " << result.output.toStdString();
        // Refused before the solver ran: none of its statistics were printed.
        EXPECT_FALSE(result.output.contains(QStringLiteral("factorizations")))
            << c.name << ": " << result.output.toStdString();
        EXPECT_EQ(bytesOf(source), before);
    }
}

TEST_F(SkyrinseCli, AnInterruptedRunLeavesNoFileAndEndsByItsSignal) {
    struct Case {
        const char* name;
        std::function<void()> inChild;
        int killAfterMs;
    };
    const Case cases[] = {
        // The output needs more than 2 KiB: the write meets the limit.
        {"file-size limit",
         [] {
             const rlimit limit{2048, 2048};
             ::setrlimit(RLIMIT_FSIZE, &limit);
         },
         -1},
        {"terminated", {}, 400},
    };
    for (const Case& c : cases) {
        QTemporaryDir folder;
        QImage image(600, 400, QImage::Format_RGB888);
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                image.setPixelColor(x, y, QColor((x * 7 + y) % 256, (x * y) % 256, (y * 3) % 256));
        const QString source = QDir(folder.path()).filePath(QStringLiteral("n.png"));
        ASSERT_TRUE(image.save(source));
        const auto before = snapshot(QDir(folder.path()));
        QProcess::ExitStatus status = QProcess::NormalExit;
        const CliResult result = skyrinse({source}, dir.filePath(QStringLiteral("config")),
                                          c.inChild, &status, c.killAfterMs);
        EXPECT_EQ(status, QProcess::CrashExit) << c.name << ": " << result.output.toStdString();
        EXPECT_EQ(snapshot(QDir(folder.path())), before) << c.name;
    }
}

// The solver's reports (standard output) and the codecs' own errors
// (standard error) reach the user only with --verbose; the cause, always.
TEST_F(SkyrinseCli, ReportsAndLibraryChatterOnlyWithVerbose) {
    const QString good = writeJpeg(QDir(dir.path()), QStringLiteral("g.jpg"));
    // A PNG cut short makes libpng print its own error besides ours.
    QImage image(64, 64, QImage::Format_RGB888);
    image.fill(QColor(10, 200, 30));
    const QString cut = QDir(dir.path()).filePath(QStringLiteral("cut.png"));
    ASSERT_TRUE(image.save(cut));
    QFile file(cut);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.resize(file.size() / 2);
    file.close();
    for (const bool verbose : {false, true}) {
        QProcess process;
        QStringList arguments{QStringLiteral("--overwrite"), cut, good};
        if (verbose) arguments.prepend(QStringLiteral("--verbose"));
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"),
                           dir.filePath(QStringLiteral("config")));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(SKYRINSE_BINARY), arguments);
        ASSERT_TRUE(process.waitForFinished(120000));
        EXPECT_EQ(process.exitCode(), 1);
        const QByteArray out = process.readAllStandardOutput();
        const QByteArray err = process.readAllStandardError();
        EXPECT_EQ(out.isEmpty(), !verbose) << out.toStdString();
        EXPECT_TRUE(err.contains("g_dehazed.jpg"));
        EXPECT_TRUE(err.contains("Reason : ")) << "the cause, always";
        EXPECT_EQ(err.contains("libpng"), verbose) << err.toStdString();
    }
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication app(argc, argv); // for the image format plug-ins
    return RUN_ALL_TESTS();
}
