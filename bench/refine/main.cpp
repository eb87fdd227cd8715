// bench_refine: cost of refineDarkChannel on the working copy of a real
// photograph (about 100,000 unknowns), split into the assembly of the
// matting Laplacian and the sparse solve, with 1 and 2 threads.
//
// The reference measured in the same run is the plain alternative to the
// ordered row maps: the same entries gathered as triplets, sorted and summed
// into compressed rows. Its ratio says what the maps cost over it.
//
//   bench_refine [PICTURE]      default: the bundled photograph
#include "ZImage/CSparseSingle.h"
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"

#include <QString>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <tuple>
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

// Compressed rows from (row, col, value) triplets by a sort: the reference.
struct TripletCsr {
    std::vector<std::int32_t> ia, ja;
    std::vector<float> a;
};

TripletCsr fromTriplets(std::vector<std::tuple<std::int32_t, std::int32_t, float>>& t, int n) {
    std::sort(t.begin(), t.end(), [](const auto& x, const auto& y) {
        return std::tie(std::get<0>(x), std::get<1>(x)) < std::tie(std::get<0>(y), std::get<1>(y));
    });
    TripletCsr c;
    c.ia.assign(static_cast<std::size_t>(n) + 1, 0);
    for (std::size_t k = 0; k < t.size(); ++k) {
        const auto [r, col, v] = t[k];
        if (!c.ja.empty() && k > 0 && std::get<0>(t[k - 1]) == r && std::get<1>(t[k - 1]) == col) {
            c.a.back() += v;
            continue;
        }
        c.ja.push_back(col + 1);
        c.a.push_back(v);
        ++c.ia[static_cast<std::size_t>(r) + 1];
    }
    c.ia[0] = 1;
    for (int i = 0; i < n; ++i)
        c.ia[static_cast<std::size_t>(i) + 1] += c.ia[static_cast<std::size_t>(i)];
    return c;
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

    // The reference: the matrix's own entries, once per window term, as
    // triplets (the stored entries times the windows that made them).
    CSparseSingle matrix;
    assembleMattingSystem(working, matrix);
    std::vector<std::tuple<std::int32_t, std::int32_t, float>> triplets;
    const auto ia = matrix.ia();
    const auto ja = matrix.ja();
    const auto a = matrix.a();
    for (int i = 0; i < n; ++i)
        for (int k = ia[i] - 1; k < ia[i + 1] - 1; ++k)
            triplets.emplace_back(i, ja[k] - 1, a[k]);
    // Each off-diagonal entry collects up to 6 window terms, the diagonal up
    // to 9; repeat the list to the 45 terms per window the assembly adds.
    const std::size_t terms = static_cast<std::size_t>(size.width - 2) * (size.height - 2) * 45 + n;
    std::vector<std::tuple<std::int32_t, std::int32_t, float>> all;
    all.reserve(terms);
    while (all.size() < terms)
        all.insert(all.end(), triplets.begin(),
                   triplets.begin() +
                       static_cast<std::ptrdiff_t>(std::min(triplets.size(), terms - all.size())));
    const double reference = best(3, [&] {
        std::vector<std::tuple<std::int32_t, std::int32_t, float>> copy = all;
        const TripletCsr c = fromTriplets(copy, n);
        if (c.ia.back() < 1) std::puts("?");
    });
    std::printf("%-34s %8.1f ms  (%zu terms)\n", "reference: sort triplets to CSR", 1e3 * reference,
                terms);
    std::printf("entries of the upper triangle: %d\n\n", matrix.nnz());

    std::printf("%-8s %12s %12s %12s %14s\n", "threads", "assembly ms", "solve ms", "total ms",
                "assembly/ref");
    for (int threads : {1, 2}) {
        threadCount = threads;
        const double assembly = best(3, [&] {
            CSparseSingle m;
            assembleMattingSystem(working, m);
        });
        const double total = best(3, [&] {
            std::vector<float> map(estimate.get(), estimate.get() + n);
            working.refineDarkChannel(map);
        });
        std::printf("%-8d %12.1f %12.1f %12.1f %14.2f\n", threads, 1e3 * assembly,
                    1e3 * (total - assembly), 1e3 * total, assembly / reference);
    }
    return 0;
}
