// The sparse system store; the contract is in CSparseSingle.h.
//
// The compressed arrays come from the runtime's aligned allocator (128 bytes,
// for the solver's kernels) and are owned by unique_ptrs that give them back
// to it, so nothing leaks when a step throws. The solver's handle lives only
// inside one solve() call and is owned by a guard whose destructor runs the
// release phase: after a failed phase the solver's memory is gone before the
// exception leaves, and the error number travels in the message.
#include "ZImage/CSparseSingle.h"

#include "ZImage/ZException.h"
#include "runtime/nrt.h"
#include "solver/spds.h"

#include <QString>

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr int kArrayAlignment = 128;
constexpr int kFirstRowCapacity = 8;

// The one handle of one solve() call. Its destructor runs phase -1, on the
// way out of a success as of a failure; the release's own error is of no use
// to anybody at that point.
class SolverHandle {
public:
    SolverHandle(int mtype, int n, int* iparm, int msglvl = 1)
        : m_mtype(mtype), m_n(n), m_iparm(iparm), m_msglvl(msglvl) {}
    ~SolverHandle() {
        int error = 0;
        call(-1, &m_dummy, nullptr, nullptr, &m_dummy, &m_dummy, error);
    }
    SolverHandle(const SolverHandle&) = delete;
    SolverHandle& operator=(const SolverHandle&) = delete;

    // One phase; the solver's error number is returned in `error`.
    void call(int phase, const void* a, const int* ia, const int* ja, void* b, void* x,
              int& error) {
        const int maxfct = 1;
        const int mnum = 1;
        const int nrhs = 1;
        // No permutation of the caller's is asked for: the solver only
        // needs somewhere to point.
        spds(m_pt, &maxfct, &mnum, &m_mtype, &phase, &m_n, a, ia, ja, &m_unusedPerm, &nrhs, m_iparm,
             &m_msglvl, b, x, &error);
    }
    // Stands in for the arrays that a phase does not read.
    float* dummy() { return &m_dummy; }

private:
    void* m_pt[64] = {};
    int m_mtype;
    int m_n;
    int* m_iparm;
    int m_msglvl;
    int m_unusedPerm = 0;
    float m_dummy = 0.0f;
};

} // namespace

void CSparseSingle::AlignedFree::operator()(void* p) const {
    nrt_free(p);
}

template <class T>
CSparseSingle::AlignedArray<T> CSparseSingle::allocate(std::int64_t count) {
    if (count <= 0) return {};
    void* p = nrt_malloc(static_cast<std::size_t>(count) * sizeof(T), kArrayAlignment);
    Z_CHECK(p, Z_NOT_ENOUGH_MEMORY);
    return AlignedArray<T>(static_cast<T*>(p));
}

CSparseSingle::~CSparseSingle() = default;

CSparseSingle::CSparseSingle(CSparseSingle&& other) noexcept {
    *this = std::move(other);
}

CSparseSingle& CSparseSingle::operator=(CSparseSingle&& other) noexcept {
    if (this != &other) {
        m_symmetricFlag = std::exchange(other.m_symmetricFlag, 0);
        m_nnz = std::exchange(other.m_nnz, 0);
        m_iaSize = std::exchange(other.m_iaSize, 0);
        m_ia = std::move(other.m_ia);
        m_ja = std::move(other.m_ja);
        m_a = std::move(other.m_a);
        m_rowCount = std::exchange(other.m_rowCount, 0);
        m_colCount = std::exchange(other.m_colCount, 0);
        m_rowCapacity = std::exchange(other.m_rowCapacity, 0);
        m_rowMaps = std::move(other.m_rowMaps);
        other.m_rowMaps.clear();
        m_atAccessor = std::exchange(other.m_atAccessor, &CSparseSingle::atUnprepared);
    }
    return *this;
}

void CSparseSingle::reset() {
    // Swapped out rather than cleared, so that the row maps' memory goes too.
    std::vector<RowMap>().swap(m_rowMaps);
    m_ia.reset();
    m_ja.reset();
    m_a.reset();
    m_symmetricFlag = 0;
    m_nnz = 0;
    m_iaSize = 0;
    m_rowCount = 0;
    m_colCount = 0;
    m_rowCapacity = 0;
    m_atAccessor = &CSparseSingle::atUnprepared;
}

void CSparseSingle::releaseRows() {
    for (RowMap& row : m_rowMaps)
        row.clear();
}

void CSparseSingle::init(int rows, int cols) {
    reset();
    Z_CHECK(rows >= 0 && cols >= 0, Z_INVALID_PARAMETER);
    if (rows != 0) {
        m_rowCount = rows;
        m_colCount = cols;
        m_rowCapacity = rows;
        m_atAccessor = &CSparseSingle::atFixed;
    } else {
        m_rowCapacity = kFirstRowCapacity;
        m_atAccessor = &CSparseSingle::atGrowing;
    }
    m_rowMaps.resize(static_cast<std::size_t>(m_rowCapacity));

    // The first guess of the entry count is the dense block (the symmetric
    // flag, which would halve it, was just cleared by reset). A fixed matrix
    // too large for 32-bit counts is refused instead of wrapping.
    const std::int64_t guess = std::int64_t{m_rowCount} * m_colCount;
    Z_CHECK(guess <= std::numeric_limits<std::int32_t>::max(), Z_INVALID_PARAMETER);
    m_iaSize = m_rowCount + 1;
    m_ia = allocate<std::int32_t>(m_iaSize);
    m_nnz = static_cast<std::int32_t>(guess);
    m_ja = allocate<std::int32_t>(m_nnz);
    m_a = allocate<float>(m_nnz);
}

CSparseSingle::CompressedArrays CSparseSingle::initCompressed(int rows, int cols,
                                                              std::int64_t entries) {
    reset();
    // One-based positions up to entries + 1 must fit the solver's indices.
    Z_CHECK(rows >= 0 && rows < std::numeric_limits<std::int32_t>::max() && cols >= 0 &&
                entries >= 0 && entries < std::numeric_limits<std::int32_t>::max(),
            Z_INVALID_PARAMETER);
    // Everything is had before anything is kept, so that a failure leaves
    // the matrix as reset() did.
    std::vector<RowMap> rowMaps(static_cast<std::size_t>(rows));
    AlignedArray<std::int32_t> ia = allocate<std::int32_t>(std::int64_t{rows} + 1);
    AlignedArray<std::int32_t> ja = allocate<std::int32_t>(entries);
    AlignedArray<float> a = allocate<float>(entries);
    m_rowMaps = std::move(rowMaps);
    m_ia = std::move(ia);
    m_ja = std::move(ja);
    m_a = std::move(a);
    m_iaSize = rows + 1;
    m_nnz = static_cast<std::int32_t>(entries);
    m_rowCount = rows;
    m_colCount = cols;
    m_rowCapacity = rows;
    m_atAccessor = &CSparseSingle::atFixed;
    std::fill_n(m_a.get(), m_nnz, 0.0f);
    return {{m_ia.get(), size(m_iaSize)}, {m_ja.get(), size(m_nnz)}, {m_a.get(), size(m_nnz)}};
}

int CSparseSingle::rowSize(int row) const {
    if (row < 0 || row >= m_rowCount) return 0;
    return static_cast<int>(m_rowMaps[static_cast<std::size_t>(row)].size());
}

float& CSparseSingle::atUnprepared(int, int) {
    Z_THROW(Z_INVALID_PARAMETER);
}

float& CSparseSingle::atFixed(int row, int col) {
    if (m_symmetricFlag && col < row) std::swap(row, col);
    return m_rowMaps[static_cast<std::size_t>(row)][col];
}

float& CSparseSingle::atGrowing(int row, int col) {
    Z_CHECK(row >= 0 && col >= 0, Z_INVALID_PARAMETER);
    if (row >= m_rowCount) {
        if (row >= m_rowCapacity) {
            // Doubling in 64 bits: near 2^31 rows the last step stops at the
            // largest count a 32-bit index can reach.
            std::int64_t capacity = m_rowCapacity;
            while (capacity <= row)
                capacity *= 2;
            capacity = std::min<std::int64_t>(capacity, std::numeric_limits<std::int32_t>::max());
            // Moving a map moves its root pointer only: growth costs a pointer
            // copy per row, whatever the rows hold.
            m_rowMaps.resize(static_cast<std::size_t>(capacity));
            m_rowCapacity = static_cast<std::int32_t>(capacity);
        }
        m_rowCount = row + 1;
    }
    if (m_symmetricFlag && col < row) std::swap(row, col);
    return m_rowMaps[static_cast<std::size_t>(row)][col];
}

void CSparseSingle::compress() {
    if (m_iaSize != m_rowCount + 1) {
        m_ia.reset();
        m_iaSize = m_rowCount + 1;
        m_ia = allocate<std::int32_t>(m_iaSize);
    }
    std::int64_t total = 0;
    for (std::int32_t r = 0; r < m_rowCount; ++r)
        total += static_cast<std::int64_t>(m_rowMaps[static_cast<std::size_t>(r)].size());
    // One-based positions up to nnz + 1 must fit the solver's 32-bit indices.
    Z_CHECK(total < std::numeric_limits<std::int32_t>::max(), Z_INVALID_PARAMETER);
    if (m_nnz != total) {
        m_ja.reset();
        m_a.reset();
        m_nnz = 0;
        m_ja = allocate<std::int32_t>(total);
        m_a = allocate<float>(total);
        m_nnz = static_cast<std::int32_t>(total);
    }
    std::int32_t* const ia = m_ia.get();
    std::int32_t* const ja = m_ja.get();
    float* const a = m_a.get();
    std::int32_t k = 0;
    for (std::int32_t r = 0; r < m_rowCount; ++r) {
        ia[r] = k + 1;
        for (const auto& [col, value] : m_rowMaps[static_cast<std::size_t>(r)]) {
            a[k] = value;
            ja[k] = col + 1;
            ++k;
        }
    }
    ia[m_rowCount] = k + 1;
}

void CSparseSingle::solverSettings(bool symmetric, bool solutionOnRhs, int* iparm) {
    std::fill_n(iparm, 64, 0);
    iparm[0] = 1;                     // these settings, not the defaults
    iparm[1] = 3;                     // nested dissection into domains
    iparm[5] = solutionOnRhs ? 1 : 0; // solution written over rhs
    iparm[7] = 2;                     // at most two refinement steps
    iparm[9] = symmetric ? 8 : 13;    // pivot perturbation 1e-8 / 1e-13
    iparm[10] = symmetric ? 1 : 0;    // scaling
    iparm[12] = symmetric ? 1 : 0;    // weighted matching
    iparm[17] = -1;                   // report the factor's entries
    iparm[18] = -1;                   // and its operations
    iparm[20] = symmetric ? 1 : 0;    // Bunch-Kaufman pivots
    iparm[27] = 1;                    // single precision
}

void CSparseSingle::analyse(bool symmetric) {
    Z_CHECK(m_ia && m_iaSize == m_rowCount + 1, Z_INVALID_PARAMETER);
    int iparm[64];
    solverSettings(symmetric, false, iparm);
    SolverHandle handle(symmetric ? -2 : 11, m_rowCount, iparm, 0);
    // The order found here is left for the solve() that follows; only this
    // call, not the solves, leaves one.
    struct Sharing {
        Sharing() { spds_share_orders(1); }
        ~Sharing() { spds_share_orders(0); }
    } sharing;
    int error = 0;
    handle.call(11, m_a.get(), m_ia.get(), m_ja.get(), handle.dummy(), handle.dummy(), error);
    if (error != 0)
        Z_THROW(QStringLiteral("SPDS error during symbolic factorization: %1").arg(error));
}

void CSparseSingle::solve(std::span<float> rhs, std::span<float> x, bool symmetric,
                          bool solutionOnRhs) {
    // The arrays must describe the rows as they are now.
    Z_CHECK(m_ia && m_iaSize == m_rowCount + 1, Z_INVALID_PARAMETER);
    Z_CHECK(rhs.size() == size(m_rowCount) && x.size() == size(m_rowCount), Z_INVALID_PARAMETER);

    int iparm[64];
    solverSettings(symmetric, solutionOnRhs, iparm);
    const int mtype = symmetric ? -2 : 11;

    SolverHandle handle(mtype, m_rowCount, iparm);
    int error = 0;
    handle.call(11, m_a.get(), m_ia.get(), m_ja.get(), handle.dummy(), handle.dummy(), error);
    if (error != 0)
        Z_THROW(QStringLiteral("SPDS error during symbolic factorization: %1").arg(error));
    handle.call(22, m_a.get(), m_ia.get(), m_ja.get(), handle.dummy(), handle.dummy(), error);
    if (error != 0)
        Z_THROW(QStringLiteral("SPDS error during numerical factorization: %1").arg(error));
    // The solver reports the refinement steps it took in the same slot.
    iparm[7] = 2;
    handle.call(33, m_a.get(), m_ia.get(), m_ja.get(), rhs.data(), x.data(), error);
    if (error != 0) Z_THROW(QStringLiteral("SPDS error during solution: %1").arg(error));
}
