// bench_preview: what a photographer waits for on the plug-in's page.
//
//  - first preview: from handing the page a 24-megapixel JPEG to the
//    corrected preview on screen: decoding and shrinking the photograph to
//    1024 pixels, the depth map's solve, the last pass, the paint. Goal
//    1.0 s on 2 threads.
//  - strength change: from a new value in the spin box to the repainted
//    picture, on an image already seen (cached depth map). Goal 30 ms.
//
// Both run through the real widgets (offscreen) and the real host image
// objects over IFL, with the memory bandwidth of the machine measured in the
// same run as the reference: a strength change moves a few tens of
// megabytes, so its floor is set by memory, not by arithmetic.
//
//   bench_preview [megapixels]      default 24
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "bench/common/TriadBandwidth.h"
#include "host/GuiApplication.h"
#include "host/HostImage.h"
#include "plugin/ZHazeOne2One.h"
#include "runtime/nrt.h"
#include "ui/ComputePreview.h"
#include "ui/UIHazePage.h"
#include "ui/UIHazePreview.h"

#include <QDir>
#include <QEventLoop>
#include <QImage>
#include <QSpinBox>
#include <QTemporaryDir>
#include <omp.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The bundled photograph enlarged to the size asked for, as a JPEG: real
// detail for the decoder and the solver, at a camera's resolution.
QString makePhotograph(const QDir& dir, double megapixels) {
    QImage photo(QStringLiteral(DATA_DIR "/aitzgorri_by_Aitzol_Berasategi.jpg"));
    const int width = static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 * 1.5)));
    const int height = static_cast<int>(std::lround(width / 1.5));
    photo = photo.isNull()
                ? QImage(width, height, QImage::Format_RGB32)
                : photo.scaled(width, height, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    const QString path = dir.filePath(QStringLiteral("photograph.jpg"));
    photo.save(path, "JPEG", 92);
    return path;
}

struct Page {
    ZHazeOne2One plugin;
    UIHazePage* page = nullptr;
    UIHazePreview* preview = nullptr;

    bool ready() const {
        return preview->property("isComplete").toBool() && !preview->worker()->isRunning();
    }
    // Runs the event loop until the preview is on screen.
    void waitForPreview() {
        QEventLoop loop;
        QObject::connect(page, &QWizardPage::completeChanged, &loop, [&] {
            if (ready()) loop.quit();
        });
        if (!ready()) loop.exec();
        preview->repaint();
    }
};

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("XDG_CONFIG_HOME", QDir::tempPath().toLocal8Bit() + "/bench_preview_config");
    GuiApplication app(argc, argv);
    const double megapixels = argc > 1 ? std::atof(argv[1]) : 24.0;
    if (!(megapixels > 0.0 && megapixels <= 400.0)) {
        std::fprintf(stderr, "usage: bench_preview [megapixels, default 24]\n");
        return 2;
    }
    nrt_image_primitives_init();
    // The photo tool's solver prints its statistics on standard output; the
    // figures of this benchmark keep the stream, the solver's reports go to
    // /dev/null as in the desktop host without --verbose.
    std::fflush(stdout);
    const int figures = ::dup(STDOUT_FILENO);
    const int sink = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (figures >= 0 && sink >= 0) ::dup2(sink, STDOUT_FILENO);
    if (sink >= 0) ::close(sink);
    std::FILE* out = figures >= 0 ? ::fdopen(figures, "w") : stdout;
    std::setvbuf(out, nullptr, _IOLBF, 0);

    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) < 0) load[0] = -1;
    std::fprintf(out,
                 "bench_preview: %.0f-megapixel JPEG, preview 1024 px; load average %.2f "
                 "(a shared 2-core machine: other builds may run)\n",
                 megapixels, load[0]);
    std::fprintf(out, "triad bandwidth 1 thread %.2f GB/s, 2 threads %.2f GB/s\n",
                 bench::triadBandwidth(1) / 1e9, bench::triadBandwidth(2) / 1e9);

    QTemporaryDir dir;
    const QString path = makePhotograph(QDir(dir.path()), megapixels);
    const QSize size = QImage(path).size();
    std::fprintf(out, "photograph %d x %d\n\n", size.width(), size.height());

    for (int threads : {1, 2}) {
        threadCount = threads;
        app.setThreadCount(threads);
        omp_set_num_threads(threads);
        Page page;
        app.setSessionDefault(page.plugin.id(), QStringLiteral("hazeRemove"), 60);
        page.page = static_cast<UIHazePage*>(page.plugin.wizardPage());
        page.preview = page.page->preview();
        page.page->resize(900, 640);
        page.page->show();

        const QSize preview = UIHazePreview::previewSize(size.width(), size.height());
        // First preview, best of 3; each configureImages forgets the cache,
        // and the host decodes the file anew.
        double first = 1e30;
        for (int r = 0; r < 3; ++r) {
            const auto start = Clock::now();
            page.plugin.configureImages({path});
            page.waitForPreview();
            first = std::min(first, seconds(start));
        }

        // Strength changes on the seen image: one pass each.
        auto* spin = page.page->findChild<QSpinBox*>(QStringLiteral("spinBoxPourcent"));
        std::vector<double> changes;
        for (int r = 0; r < 20; ++r) {
            const auto start = Clock::now();
            spin->setValue(r % 2 ? 70 : 30);
            page.waitForPreview();
            changes.push_back(seconds(start));
        }
        std::sort(changes.begin(), changes.end());
        // The pass reads and writes the float picture and reads the map;
        // the copy from the cache and the 8-bit rendering come on top.
        const double bytes =
            static_cast<double>(preview.width()) * preview.height() * (16 * 2 + 4 + 16 * 2 + 4);
        const double floor = bytes / bench::triadBandwidth(threads);
        // Where the first preview's time goes: the host's decode and shrink,
        // then the haze removal with its solve on the preview.
        double decode = 1e30, solve = 1e30;
        ZImage picture;
        for (int r = 0; r < 3; ++r) {
            HostImage image(path);
            auto start = Clock::now();
            image.scaledImage(preview.width(), preview.height(), 1)
                ->CopyTo(picture, ZImage::RGBA, 32);
            decode = std::min(decode, seconds(start));
            ZImage work;
            work.CopyFrom(picture);
            HazeSettings settings;
            settings.strength = 60;
            start = Clock::now();
            runHazeRemoval(work, settings);
            solve = std::min(solve, seconds(start));
        }
        std::fprintf(
            out,
            "%d thread(s): first preview %6.3f s (goal 1.0 s%s): decode and shrink %.3f s, "
            "haze removal with solve %.3f s\n",
            threads, first, threads == 2 ? "" : " on 2 threads", decode, solve);
        std::fprintf(out,
                     "%d thread(s): strength change best %6.1f ms, median %6.1f ms (goal 30 ms); "
                     "memory floor %.1f ms, ratio %.1f\n\n",
                     threads, changes.front() * 1e3, changes[changes.size() / 2] * 1e3, floor * 1e3,
                     changes.front() / floor);
    }
    return 0;
}
