// haze-inspect: runs the haze removal on one picture stage by stage, as
// runHazeRemoval does, and writes what each stage produced, so that a
// developer can see where a result comes from:
//
//   airlight.txt       the colour of the atmosphere, three floats
//   working.pfm        the working copy of about 100,000 pixels (RGB)
//   dark-channel.pfm   the normalised dark channel of the working copy
//   refined.pfm        that map refined by soft matting (what is upsampled)
//   refined.png        the same, 8-bit grey, 0 black to 1 white
//   depth.pfm          the veil map carried back to full size
//   depth.png          the same, 8-bit grey, 0 black to 1 white
//   result.pfm         the dehazed picture (RGB, values above 1 kept)
//   result.png         the same, 8-bit, clipped
//
// The picture is read through IFL, so every format the command reads works
// here too (JPEG, PNG, TIFF at 8, 16 and 32 bits, HDR, EXR, ...).
#include "Pfm.h"

#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImage>
#include <QSaveFile>
#include <QTextStream>

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <vector>

namespace {

QString tr(const char* text) {
    return QCoreApplication::translate("haze-inspect", text);
}

class Failure : public std::runtime_error {
public:
    explicit Failure(const QString& message) : std::runtime_error(message.toStdString()) {}
};

// Decoded through IFL, as the host does, and converted to RGBA float with
// its values as they are encoded (no linearisation, as in the plug-in).
ZImage readPicture(const QString& path) {
    ZImage decoded;
    decoded.Load(path);
    ZImage image;
    decoded.CopyTo(image, ZImage::RGBA, 32);
    return image;
}

const float* row(const ZImage& image, int y) {
    return reinterpret_cast<const float*>(image.PixelAt(0, y));
}

void writeRgbPfm(const QString& path, const ZImage& image) {
    pfm::write(path, image.Width(), image.Height(), 3, [&](int y, float* out) {
        const float* p = row(image, y);
        for (int x = 0; x < image.Width(); ++x, p += 4, out += 3)
            std::copy(p, p + 3, out);
    });
}

void writeMapPfm(const QString& path, const float* map, int width, int height) {
    pfm::write(path, width, height, 1, [&](int y, float* out) {
        std::copy_n(map + static_cast<std::size_t>(y) * width, width, out);
    });
}

uchar toByte(float v) {
    // NaN (a black airlight) shows as black.
    if (!(v > 0.0f)) return 0;
    return static_cast<uchar>(std::lround(std::min(v, 1.0f) * 255.0f));
}

void savePng(const QImage& image, const QString& path) {
    if (!image.save(path, "PNG")) throw Failure(tr("Cannot write %1").arg(path));
}

void writeMapPng(const QString& path, const float* map, int width, int height) {
    QImage grey(width, height, QImage::Format_Grayscale8);
    for (int y = 0; y < height; ++y) {
        uchar* out = grey.scanLine(y);
        const float* m = map + static_cast<std::size_t>(y) * width;
        for (int x = 0; x < width; ++x)
            out[x] = toByte(m[x]);
    }
    savePng(grey, path);
}

void writeRgbPng(const QString& path, const ZImage& image) {
    QImage rgb(image.Width(), image.Height(), QImage::Format_RGB888);
    for (int y = 0; y < image.Height(); ++y) {
        uchar* out = rgb.scanLine(y);
        const float* p = row(image, y);
        for (int x = 0; x < image.Width() * 4; ++x)
            if (x % 4 != 3) *out++ = toByte(p[x]);
    }
    savePng(rgb, path);
}

void writeAirlight(const QString& path, const std::array<float, 3>& airlight) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        throw Failure(tr("Cannot write %1: %2").arg(path, file.errorString()));
    QTextStream(&file) << QString::number(airlight[0], 'g', 9) << ' '
                       << QString::number(airlight[1], 'g', 9) << ' '
                       << QString::number(airlight[2], 'g', 9) << '\n';
    if (!file.commit()) throw Failure(tr("Cannot write %1: %2").arg(path, file.errorString()));
}

int inspect(const QString& input, int strength, const QDir& out) {
    QTextStream report(stdout);
    QElapsedTimer clock;
    auto stage = [&](const QString& name) {
        report << qSetFieldWidth(10) << Qt::left << name << qSetFieldWidth(0)
               << QString::number(clock.nsecsElapsed() / 1e6, 'f', 1) << " ms\n";
        report.flush();
        clock.restart();
    };

    clock.start();
    ZImage image = readPicture(input);
    stage(tr("read"));
    report << tr("picture %1 x %2").arg(image.Width()).arg(image.Height()) << '\n';

    const HazeWorkingSize size = hazeWorkingSize(image.Width(), image.Height());
    ZImage working;
    clock.restart();
    image.ResizeTo(working, size.width, size.height, 0, 0.0, 0.0, 0.0, 0.0);
    stage(tr("resize"));
    report << tr("working %1 x %2").arg(size.width).arg(size.height) << '\n';
    writeRgbPfm(out.filePath(QStringLiteral("working.pfm")), working);

    std::array<float, 3> airlight{};
    clock.restart();
    const std::unique_ptr<float[]> estimate = working.estimateDarkChannel(airlight);
    stage(tr("estimate"));
    report << tr("airlight %1 %2 %3").arg(airlight[0]).arg(airlight[1]).arg(airlight[2]) << '\n';
    writeAirlight(out.filePath(QStringLiteral("airlight.txt")), airlight);
    const std::size_t workingPixels = static_cast<std::size_t>(size.width) * size.height;
    writeMapPfm(out.filePath(QStringLiteral("dark-channel.pfm")), estimate.get(), size.width,
                size.height);

    std::vector<float> refined(estimate.get(), estimate.get() + workingPixels);
    clock.restart();
    working.refineDarkChannel(refined);
    stage(tr("refine"));
    writeMapPfm(out.filePath(QStringLiteral("refined.pfm")), refined.data(), size.width,
                size.height);
    writeMapPng(out.filePath(QStringLiteral("refined.png")), refined.data(), size.width,
                size.height);

    clock.restart();
    const std::unique_ptr<float[]> depth = image.upsampleDarkChannel(refined.data(), working);
    stage(tr("upsample"));
    writeMapPfm(out.filePath(QStringLiteral("depth.pfm")), depth.get(), image.Width(),
                image.Height());
    writeMapPng(out.filePath(QStringLiteral("depth.png")), depth.get(), image.Width(),
                image.Height());

    // Strength 0 leaves the picture as it is, bit for bit, as in the plug-in.
    if (strength != 0) {
        clock.restart();
        image.applyHazeRemoval(depth.get(), airlight, static_cast<float>(strength / 100.0));
        stage(tr("apply"));
    }
    writeRgbPfm(out.filePath(QStringLiteral("result.pfm")), image);
    writeRgbPng(out.filePath(QStringLiteral("result.png")), image);
    report << tr("written to %1").arg(QDir::toNativeSeparators(out.absolutePath())) << '\n';
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("haze-inspect"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        tr("Runs the haze removal stage by stage and writes every intermediate."));
    parser.addHelpOption();
    const QCommandLineOption strengthOption(QStringLiteral("strength"),
                                            tr("Strength in percent, 0 to 100 (default 60)."),
                                            tr("S"), QStringLiteral("60"));
    const QCommandLineOption outOption(QStringLiteral("out"),
                                       tr("Folder for the results (made if missing)."), tr("DIR"));
    parser.addOption(strengthOption);
    parser.addOption(outOption);
    parser.addPositionalArgument(tr("picture"),
                                 tr("The picture to inspect (JPEG, PNG, TIFF, ...)."));
    parser.process(app);

    QTextStream err(stderr);
    const QStringList inputs = parser.positionalArguments();
    if (inputs.size() != 1 || !parser.isSet(outOption)) {
        err << tr("usage: haze-inspect PICTURE --out DIR [--strength S]") << '\n';
        return 2;
    }
    bool ok = false;
    const int strength = parser.value(strengthOption).toInt(&ok);
    if (!ok || strength < 0 || strength > 100) {
        err << tr("Bad strength \"%1\": expected a whole number from 0 to 100")
                   .arg(parser.value(strengthOption))
            << '\n';
        return 2;
    }
    const QString outPath = parser.value(outOption);
    if (!QDir().mkpath(outPath)) {
        err << tr("Cannot create the folder %1").arg(outPath) << '\n';
        return 1;
    }

    try {
        return inspect(inputs.front(), strength, QDir(outPath));
    } catch (const ZException& e) {
        err << QString::fromUtf8(e.what()) << " (" << *e.location() << ")\n";
    } catch (const std::bad_alloc&) {
        err << tr("Not enough memory for %1").arg(inputs.front()) << '\n';
    } catch (const std::exception& e) {
        err << QString::fromUtf8(e.what()) << '\n';
    }
    return 1;
}
