// bench_refine: cost of refineDarkChannel on the working copy of a real
// photograph (about 100,000 unknowns), split into the assembly of the
// matting Laplacian and the sparse solve, with 1 and 2 threads.
//
// The reference measured in the same run is the general way to fill the
// store, the same terms added through its ordered rows and compressed
// (haze::assembleMattingSystemByLookup); its ratio says what laying out the
// arrays from the stencil saves; and the refinement after a prepared
// analysis of the same structure, which takes its order from it.
//
//   bench_refine [PICTURE]      default: the bundled photograph
#include "ZImage/CSparseSingle.h"
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "ZImage/ZImageHaze_p.h"

#include <QString>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Best of `rounds` runs of f, in seconds.
template <class F>
double best(int rounds, F&& f) {
    double t = 1e30;
    for (int r = 0; r < rounds; ++r) {
        const Clock::time_point start = Clock::now();
        f();
        t = std::min(t, secondsSince(start));
    }
    return t;
}

} // namespace

int main(int argc, char** argv) {
    const QString path =
        argc > 1 ? QString::fromLocal8Bit(argv[1])
                 : QStringLiteral(SKYRINSE_DATA_DIR "/aitzgorri_by_Aitzol_Berasategi.jpg");
    ZImage decoded;
    decoded.Load(path);
    ZImage picture;
    decoded.CopyTo(picture, ZImage::RGBA, 32);
    const HazeWorkingSize size = hazeWorkingSize(picture.Width(), picture.Height());
    ZImage working;
    picture.ResizeTo(working, size.width, size.height);
    std::array<float, 3> airlight{};
    const std::unique_ptr<float[]> estimate = working.estimateDarkChannel(airlight);
    const int n = size.width * size.height;
    std::printf("picture %d x %d, working %d x %d, %d unknowns\n", picture.Width(),
                picture.Height(), size.width, size.height, n);

    CSparseSingle matrix;
    assembleMattingSystem(working, matrix);
    std::printf("entries of the upper triangle: %d\n\n", matrix.nnz());

    // A refinement orders its system itself, unless an analysis of the same
    // structure was prepared beforehand (as the plug-in does while the
    // picture decodes): then it takes that order. Both are timed; the
    // preparation itself is outside the prepared timing.
    auto refine = [&] {
        std::vector<float> map(estimate.get(), estimate.get() + n);
        working.refineDarkChannel(map);
    };
    std::printf("%-8s %12s %12s %12s %12s %14s %10s\n", "threads", "assembly ms", "by lookup ms",
                "solve ms", "total ms", "prepared ms", "ratio");
    for (int threads : {1, 2}) {
        threadCount = threads;
        const double assembly = best(3, [&] {
            CSparseSingle m;
            assembleMattingSystem(working, m);
        });
        const double lookup = best(3, [&] {
            CSparseSingle m;
            haze::assembleMattingSystemByLookup(working, m);
        });
        const double total = best(3, refine);
        double prepared = 1e30;
        for (int r = 0; r < 3; ++r) {
            { const RefinementPreparation preparation(picture.Width(), picture.Height()); }
            prepared = std::min(prepared, best(1, refine));
        }
        std::printf("%-8d %12.1f %12.1f %12.1f %12.1f %14.1f %10.2f\n", threads, 1e3 * assembly,
                    1e3 * lookup, 1e3 * (total - assembly), 1e3 * total, 1e3 * prepared,
                    assembly / lookup);
    }
    return 0;
}
