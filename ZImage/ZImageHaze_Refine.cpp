// Refinement of the haze map by soft matting.
//
// The normalised dark channel is a minimum over square windows, so its edges
// are blocks, not the edges of the picture. The refined map t minimises
// t' L t + lambda |t - d|^2, with L the closed-form matting Laplacian of the
// working image over its 3 x 3 windows; that is one sparse linear system
//
//     (L + lambda I) t = lambda d,      lambda = 0.001,
//
// one unknown per working pixel (about 100,000), solved by SPDS through
// CSparseSingle as a symmetric indefinite matrix whose upper triangle is
// stored, in single precision.
//
// Per window of pixels I_1..I_9 with mean mu and covariance C (regularised by
// epsilon / 9 on its diagonal, epsilon = 0.001, which keeps every window
// invertible, a flat one included), each pair k <= l adds to entry (i, j)
//
//     delta_kl - (1 + (I_k - mu)' C^-1 (I_l - mu)) / 9.
//
// Assembly in two parallel passes, both with a static split of rows:
//  1. window statistics (mean and inverse covariance), each window by one
//     thread into its own slot;
//  2. the matrix, by rows: the thread that owns pixel i visits the windows
//     that hold i in row-major window order and adds every pair that starts
//     at i. A row of the matrix therefore has one writer, no lock is needed,
//     and every entry sums its window terms in the same order whatever the
//     team size: the matrix is bit for bit that of one thread, which is the
//     order of the plain serial loop over windows.
// The upper triangle's structure is a fixed stencil clipped at the borders,
// so the compressed arrays are laid out first and each term is added at a
// computed place. haze::assembleMattingSystemByLookup does the same through
// CSparseSingle's ordered rows instead; both give the same bits. Its
// exceptions (out of memory in the row maps) are caught inside the region
// and rethrown after it.
#include "ZImage/ZImageHaze.h"
#include "ZImage/ZImageHaze_p.h"

#include "ZImage/CSparseSingle.h"
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "runtime/nrt.h"
#include "runtime/nrt_work.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {

// Regulariser of the window covariance, divided by the window's pixel count.
constexpr double kEpsilon = 0.001;
constexpr double kWindowPixels = 9.0;
// Weight of the data term: on the diagonal as a float, on the right-hand
// side as a double factor.
constexpr float kLambdaDiagonal = 0.001f;
constexpr double kLambda = 0.001;
// Rows of windows (or of pixels) a thread gets at least: below that, starting
// the team costs more than the window maths.
constexpr int kMinRowsPerThread = 16;

// What pass 2 needs of a window: its mean and its inverse covariance.
struct WindowStats {
    float mu[3];
    float inverse[3][3];
};

inline const float* pixelAt(const ZImage& image, int x, int y) {
    return reinterpret_cast<const float*>(image.PixelAt(x, y));
}

// Inverse of a symmetric positive definite 3 x 3 matrix by its cofactors.
// The regulariser bounds the smallest eigenvalue by epsilon / 9, so the
// determinant is positive; double arithmetic keeps the cancellation of a
// nearly flat window out of the single-precision result.
void invertSymmetric3(const double c[3][3], float out[3][3]) {
    const double a00 = c[1][1] * c[2][2] - c[1][2] * c[2][1];
    const double a01 = c[0][2] * c[2][1] - c[0][1] * c[2][2];
    const double a02 = c[0][1] * c[1][2] - c[0][2] * c[1][1];
    const double a11 = c[0][0] * c[2][2] - c[0][2] * c[2][0];
    const double a12 = c[0][2] * c[1][0] - c[0][0] * c[1][2];
    const double a22 = c[0][0] * c[1][1] - c[0][1] * c[1][0];
    const double det = c[0][0] * a00 + c[1][0] * a01 + c[2][0] * a02;
    const double adj[3][3] = {{a00, a01, a02}, {a01, a11, a12}, {a02, a12, a22}};
    for (int r = 0; r < 3; ++r)
        for (int s = 0; s < 3; ++s)
            out[r][s] = static_cast<float>(adj[r][s] / det);
}

WindowStats windowStats(const ZImage& image, int wx, int wy) {
    double sum[3] = {};
    double moment[3][3] = {};
    for (int dy = 0; dy < 3; ++dy) {
        const float* p = pixelAt(image, wx, wy + dy);
        for (int dx = 0; dx < 3; ++dx, p += 4)
            for (int a = 0; a < 3; ++a) {
                sum[a] += p[a];
                for (int b = a; b < 3; ++b)
                    moment[a][b] += static_cast<double>(p[a]) * p[b];
            }
    }
    double mu[3];
    for (int a = 0; a < 3; ++a)
        mu[a] = sum[a] / kWindowPixels;
    double c[3][3];
    for (int a = 0; a < 3; ++a)
        for (int b = a; b < 3; ++b) {
            c[a][b] = moment[a][b] / kWindowPixels - mu[a] * mu[b];
            c[b][a] = c[a][b];
        }
    for (int a = 0; a < 3; ++a)
        c[a][a] += kEpsilon / kWindowPixels;
    // The covariance is stored in single precision before it is inverted.
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b)
            c[a][b] = static_cast<float>(c[a][b]);

    WindowStats s;
    for (int a = 0; a < 3; ++a)
        s.mu[a] = static_cast<float>(mu[a]);
    invertSymmetric3(c, s.inverse);
    return s;
}

int teamSize(int rows) {
    return nrt_threads_for_work(rows, kMinRowsPerThread, std::max(1, threadCount));
}

// The first exception of a parallel region, kept for the calling thread.
class RegionFailure {
public:
    void capture() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_error) m_error = std::current_exception();
        m_failed.store(true, std::memory_order_relaxed);
    }
    bool failed() const { return m_failed.load(std::memory_order_relaxed); }
    void rethrow() const {
        if (m_error) std::rethrow_exception(m_error);
    }

private:
    std::mutex m_mutex;
    std::exception_ptr m_error;
    std::atomic<bool> m_failed{false};
};

// Adds, for every window that holds pixel (x, y), the terms of the pairs that
// start at that pixel, in row-major window order. entry(x, y, lx, ly) is the
// matrix entry of the pair (pixel (x, y), pixel (lx, ly)), the latter never
// before the former.
template <class Entry>
void addPixelRow(const ZImage& image, const std::vector<WindowStats>& stats, int y,
                 const Entry& entry) {
    const int w = image.Width();
    const int h = image.Height();
    const int windowsPerRow = w - 2;
    const int wy0 = std::max(0, y - 2);
    const int wy1 = std::min(y, h - 3);
    for (int x = 0; x < w; ++x) {
        const float* ik = pixelAt(image, x, y);
        const int wx0 = std::max(0, x - 2);
        const int wx1 = std::min(x, w - 3);
        for (int wy = wy0; wy <= wy1; ++wy)
            for (int wx = wx0; wx <= wx1; ++wx) {
                const WindowStats& s = stats[static_cast<std::size_t>(wy) * windowsPerRow + wx];
                const float u[3] = {ik[0] - s.mu[0], ik[1] - s.mu[1], ik[2] - s.mu[2]};
                float q[3];
                for (int r = 0; r < 3; ++r)
                    q[r] = s.inverse[r][0] * u[0] + s.inverse[r][1] * u[1] + s.inverse[r][2] * u[2];
                // The window's pixels from this one onwards in row-major
                // order are exactly those of larger or equal index.
                const int k = (y - wy) * 3 + (x - wx);
                for (int l = k; l < 9; ++l) {
                    const int lx = wx + l % 3;
                    const int ly = wy + l / 3;
                    const float* il = pixelAt(image, lx, ly);
                    const float v[3] = {il[0] - s.mu[0], il[1] - s.mu[1], il[2] - s.mu[2]};
                    double dot = q[0] * v[0];
                    dot += 1.0;
                    dot += q[1] * v[1];
                    dot += q[2] * v[2];
                    float& e = entry(x, y, lx, ly);
                    if (l == k) e = static_cast<float>(e + 1.0);
                    e = static_cast<float>(e - dot / kWindowPixels);
                }
            }
    }
}

// The row of pixel (x, y) in the upper triangle: its diagonal and the pixels
// to its right that share a window (`ahead`), then for each of the next rows
// that exist (`below`) the `across` pixels from column `first`.
struct StencilRow {
    int ahead;
    int below;
    int first;
    int across;

    StencilRow(int x, int y, int w, int h)
        : ahead(std::min(2, w - 1 - x)), below(std::min(2, h - 1 - y)), first(std::max(0, x - 2)),
          across(std::min(w - 1, x + 2) - std::max(0, x - 2) + 1) {}
    int size() const { return 1 + ahead + below * across; }
    // Position of pixel (lx, y + dy) in the row.
    int slot(int x, int lx, int dy) const {
        return dy == 0 ? lx - x : 1 + ahead + (dy - 1) * across + (lx - first);
    }
};

// Every window pass needs its statistics, in parallel by window rows.
std::vector<WindowStats> allWindowStats(const ZImage& working) {
    const int windowRows = working.Height() - 2;
    const int windowsPerRow = working.Width() - 2;
    std::vector<WindowStats> stats(static_cast<std::size_t>(windowRows) * windowsPerRow);
    // windowStats allocates nothing, so nothing can throw in the region.
    // Rows are dealt a few at a time: the solver's preparation may still
    // hold one of the cores, and a fixed half would leave the other waiting.
#pragma omp parallel for schedule(dynamic, 4) num_threads(teamSize(windowRows))
    for (int wy = 0; wy < windowRows; ++wy)
        for (int wx = 0; wx < windowsPerRow; ++wx)
            stats[static_cast<std::size_t>(wy) * windowsPerRow + wx] = windowStats(working, wx, wy);
    return stats;
}

void checkWorkingImage(const ZImage& working) {
    Z_CHECK(working.BitmapType() == ZImage::RGBA, Z_INVALID_BITMAP);
    Z_CHECK(working.BitsPerComponent() == 32, Z_INVALID_BITMAP);
    const std::int64_t n = std::int64_t{working.Width()} * working.Height();
    Z_CHECK(working.Width() > 0 && working.Height() > 0 &&
                n <= std::numeric_limits<std::int32_t>::max(),
            Z_INVALID_BITMAP);
}

// Lays out the compressed arrays of the system of a w x h working image:
// ia complete, ja and a left for the rows' writers. A picture with no window
// is the data term alone, written here.
CSparseSingle::CompressedArrays layOutMattingSystem(int w, int h, CSparseSingle& matrix) {
    const int n = w * h;
    if (w < 3 || h < 3) {
        const CSparseSingle::CompressedArrays m = matrix.initCompressed(n, n, n);
        for (int i = 0; i < n; ++i) {
            m.ia[static_cast<std::size_t>(i)] = i + 1;
            m.ja[static_cast<std::size_t>(i)] = i + 1;
            m.a[static_cast<std::size_t>(i)] = kLambdaDiagonal;
        }
        m.ia[static_cast<std::size_t>(n)] = n + 1;
        return m;
    }
    std::int64_t entries = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            entries += StencilRow(x, y, w, h).size();
    const CSparseSingle::CompressedArrays m = matrix.initCompressed(n, n, entries);
    std::int32_t* const ia = m.ia.data();
    ia[0] = 1;
    for (int i = 0; i < n; ++i)
        ia[i + 1] = ia[i] + StencilRow(i % w, i / w, w, h).size();
    return m;
}

// Writes the columns of the rows of pixel row y (w, h >= 3), and puts
// `diagonal` on their diagonals.
void writeRowColumns(int y, int w, int h, const CSparseSingle::CompressedArrays& m,
                     float diagonal) {
    for (int x = 0; x < w; ++x) {
        const StencilRow row(x, y, w, h);
        const int i = y * w + x;
        std::int32_t* col = m.ja.data() + (m.ia[static_cast<std::size_t>(i)] - 1);
        for (int c = 0; c <= row.ahead; ++c)
            *col++ = i + c + 1;
        for (int dy = 1; dy <= row.below; ++dy)
            for (int c = 0; c < row.across; ++c)
                *col++ = (y + dy) * w + row.first + c + 1;
        m.a[static_cast<std::size_t>(m.ia[static_cast<std::size_t>(i)] - 1)] = diagonal;
    }
}

// Hands the free pages of the C heap back to the system.
void returnFreedHeap() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

} // namespace

void assembleMattingSystem(const ZImage& working, CSparseSingle& matrix) {
    checkWorkingImage(working);
    const int w = working.Width();
    const int h = working.Height();
    // The structure is the same stencil at every pixel, clipped at the
    // borders, so the arrays are laid out before any value is known and
    // every term goes straight to its place: no search, no node per entry.
    const CSparseSingle::CompressedArrays m = layOutMattingSystem(w, h, matrix);
    if (w < 3 || h < 3) return;

    const std::vector<WindowStats> stats = allWindowStats(working);
    const std::int32_t* const ia = m.ia.data();
    float* const a = m.a.data();
    const auto entry = [&](int x, int y, int lx, int ly) -> float& {
        const StencilRow row(x, y, w, h);
        return a[ia[y * w + x] - 1 + row.slot(x, lx, ly - y)];
    };
    // Nothing in here allocates, so nothing throws. A row's data term goes
    // in before its window terms, as the entries begin at the diagonal's
    // weight. Dealt a few rows at a time, as the statistics are.
#pragma omp parallel for schedule(dynamic, 4) num_threads(teamSize(h))
    for (int y = 0; y < h; ++y) {
        writeRowColumns(y, w, h, m, kLambdaDiagonal);
        addPixelRow(working, stats, y, entry);
    }
}

RefinementPreparation::RefinementPreparation(int width, int height) {
    try {
        const HazeWorkingSize size = hazeWorkingSize(width, height);
        if (size.width < 3 || size.height < 3) return;
        m_thread = std::thread([size] {
            try {
                // The structure with stand-in values: a dominant diagonal
                // makes the matrix positive definite like the real one, so
                // the solver's matching leaves its rows in place for both,
                // and the graph it orders is the same.
                CSparseSingle matrix;
                const int w = size.width, h = size.height;
                const CSparseSingle::CompressedArrays m = layOutMattingSystem(w, h, matrix);
                for (int y = 0; y < h; ++y)
                    writeRowColumns(y, w, h, m, 1.0f);
                for (std::size_t i = 0; i + 1 < m.ia.size(); ++i)
                    for (std::int32_t k = m.ia[i]; k < m.ia[i + 1] - 1; ++k)
                        m.a[static_cast<std::size_t>(k)] = -1.0f / 32.0f;
                matrix.analyse(true);
                matrix.reset();
                // What this thread allocated is back in its own arena of the
                // C heap, where the other threads never look: handed back to
                // the system, it does not add to the picture's high-water
                // mark.
                returnFreedHeap();
            } catch (...) {
                // Only time is lost: the refinement orders its system itself.
            }
        });
    } catch (...) {
        // No size, or no thread to be had: nothing is prepared.
    }
}

RefinementPreparation::~RefinementPreparation() {
    if (m_thread.joinable()) m_thread.join();
}

namespace haze {

void assembleMattingSystemByLookup(const ZImage& working, CSparseSingle& matrix) {
    checkWorkingImage(working);
    const int w = working.Width();
    const int h = working.Height();
    const int n = w * h;

    // The data term on the diagonal. Going through every row first also
    // brings the row table to its full size, so that it never grows while
    // the threads below insert.
    matrix.init(0, 0);
    for (int i = 0; i < n; ++i)
        matrix.at(i, i) = kLambdaDiagonal;

    if (w >= 3 && h >= 3) {
        const std::vector<WindowStats> stats = allWindowStats(working);
        const auto entry = [&](int x, int y, int lx, int ly) -> float& {
            return matrix.at(y * w + x, ly * w + lx);
        };
        RegionFailure failure;
#pragma omp parallel for schedule(static) num_threads(teamSize(h))
        for (int y = 0; y < h; ++y) {
            if (failure.failed()) continue;
            try {
                addPixelRow(working, stats, y, entry);
            } catch (...) {
                failure.capture();
            }
        }
        failure.rethrow();
    }
    matrix.compress();
}

} // namespace haze

void ZImage::refineDarkChannel(std::span<float> map) const {
    Z_CHECK(BitmapType() == RGBA, Z_INVALID_BITMAP);
    Z_CHECK(BitsPerComponent() == 32, Z_INVALID_BITMAP);
    Z_CHECK(map.size() == static_cast<std::size_t>(Width()) * static_cast<std::size_t>(Height()),
            Z_INVALID_PARAMETER);

    // A map that is not finite everywhere (a zero airlight channel: a black
    // picture, which has no haze) has nothing to refine, and the solver
    // refuses such a right-hand side: the map stays as it is.
    if (!std::all_of(map.begin(), map.end(), [](float d) { return std::isfinite(d); })) return;

    // What the solver frees stays with the C heap, which the full-size passes
    // then reuse: handing it back to the system would only have them fault
    // the same pages in again.
    {
        CSparseSingle matrix;
        assembleMattingSystem(*this, matrix);
        // The right-hand side is a copy, so that a failure leaves the caller's
        // map as it was. The solver writes the solution over it and takes the
        // other array as its work space.
        std::vector<float> rhs(map.size());
        std::vector<float> work(map.size());
        std::transform(map.begin(), map.end(), rhs.begin(),
                       [](float d) { return static_cast<float>(d * kLambda); });
        nrt_set_num_threads(std::max(1, threadCount));
        matrix.solve(rhs, work, true, true);
        std::copy(rhs.begin(), rhs.end(), map.begin());
    }
}
