// CSparseSingle: a single-precision sparse square matrix that is assembled by
// random access and then handed to SPDS.
//
// Two lives. While assembling, every row is an ordered map from column to
// value, so at() finds or creates any entry and the caller adds into it.
// compress() then writes the one-based compressed-row arrays that SPDS reads
// (ia, ja, a, allocated 128-byte aligned from the runtime's allocator), and
// solve() runs the analysis, factorization, solve and release phases of the
// solver on them.
//
// Two modes, chosen by init():
//   init(rows, cols), rows > 0   fixed: rows x cols declared up front; at()
//                                does no bounds check.
//   init(0, anything)            growing: the row table starts with 8 slots
//                                and doubles on demand; at() checks its
//                                arguments.
//   initCompressed(rows, cols,   direct: a caller that knows the structure
//                  entries)      beforehand writes the compressed arrays
//                                itself, with no map node per entry; the
//                                matrix is then in fixed mode with empty rows.
//
// Rules shared by every operation:
//  - Indices given to at() are zero-based; the arrays after compress() are
//    one-based, as the solver reads them.
//  - Failures throw ZException; a function that returns has succeeded. When
//    solve() fails it has released everything the solver held, and the matrix
//    itself is as it was.
//  - No lock inside. Concurrent at() calls are safe only on distinct rows
//    (and, with the symmetric flag, distinct redirected rows) of a row table
//    that does not grow, e.g. after at(n - 1, n - 1) in growing mode.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <vector>

class CSparseSingle {
public:
    // Ordered, so that compress() walks each row in column order without a
    // sort, and node-based, so that a reference from at() stays valid while
    // other entries are inserted.
    using RowMap = std::map<std::int32_t, float>;

    CSparseSingle() = default;
    ~CSparseSingle();
    CSparseSingle(const CSparseSingle&) = delete;
    CSparseSingle& operator=(const CSparseSingle&) = delete;
    CSparseSingle(CSparseSingle&& other) noexcept;
    CSparseSingle& operator=(CSparseSingle&& other) noexcept;

    // Drops the rows and the arrays; every field back to zero, the symmetric
    // flag included.
    void reset();
    // Resets, then prepares the fixed (rows > 0) or the growing (rows == 0)
    // mode, and sizes ia, and in fixed mode ja and a, to a first guess of
    // rows x cols entries. Negative sizes, or a guess beyond 32-bit counts,
    // throw "Invalid Parameter".
    void init(int rows, int cols);

    // The arrays that initCompressed() hands to the caller to fill.
    struct CompressedArrays {
        std::span<std::int32_t> ia; // rows + 1 one-based row starts
        std::span<std::int32_t> ja; // one-based columns, ascending in a row
        std::span<float> a;         // the values, all 0.0 on return
    };
    // Resets, then prepares the fixed mode with `rows` x `cols` and arrays of
    // `entries` entries, which the caller fills as compress() would have:
    // solve() reads them as they are. The rows stay empty, so a later
    // compress() would write an empty matrix. Sizes that are negative, or
    // beyond 32-bit counts, throw "Invalid Parameter"; memory that cannot be
    // had throws "Not enough memory".
    CompressedArrays initCompressed(int rows, int cols, std::int64_t entries);

    // With the flag on, (row, col) with col < row is stored as (col, row):
    // only the upper triangle exists. Set it after init(), which clears it.
    void setSymmetricFlag(bool on) { m_symmetricFlag = on ? 1 : 0; }

    // The entry (row, col), created with 0.0 if absent. Before init() it
    // throws "Invalid Parameter", as does a negative index in growing mode.
    float& at(int row, int col) { return (this->*m_atAccessor)(row, col); }

    // Writes ia, ja and a from the rows; the rows are kept, so assembly may
    // go on and compress() be called again. Throws "Not enough memory" when
    // the arrays cannot be had, "Invalid Parameter" past 2^31 - 1 entries.
    void compress();

    // Empties every row's map and keeps the arrays, the row count and the
    // mode: the maps of a large matrix cost several times its arrays, so
    // dropping them before solve() lowers the solve's peak. at() then starts
    // from empty rows, and compress() would write an empty matrix.
    void releaseRows();

    // Solves A x = rhs with the compressed arrays: analysis, factorization
    // and solve in single precision, then release of the solver's memory.
    // `symmetric` selects a real symmetric indefinite matrix of which the
    // upper triangle is stored (Bunch-Kaufman pivots, scaling and matching);
    // otherwise a general real matrix. With `solutionOnRhs` the solution also
    // replaces rhs. Both spans hold rowCount() floats. A failing phase
    // releases the solver and throws
    //   "SPDS error during symbolic factorization: <error>"
    //   "SPDS error during numerical factorization: <error>"
    //   "SPDS error during solution: <error>"
    // with the solver's error number; a matrix not compressed since its rows
    // changed in number throws "Invalid Parameter".
    void solve(std::span<float> rhs, std::span<float> x, bool symmetric, bool solutionOnRhs);

    // The analysis of solve() alone, on a handle of its own that is released
    // at once, printing nothing. The solver keeps the order it finds for the
    // structure (spds_share_orders), so the next solve() of a matrix of the
    // same structure (values may differ) takes it instead of working it out:
    // a caller that knows its structure early can run this beforehand on
    // another thread.
    // Throws as solve() does for its analysis.
    void analyse(bool symmetric);

    int symmetricFlag() const { return m_symmetricFlag; }
    int nnz() const { return m_nnz; }
    int iaSize() const { return m_iaSize; }
    int rowCount() const { return m_rowCount; }
    int colCount() const { return m_colCount; }
    int rowCapacity() const { return m_rowCapacity; }
    // Entries held by the maps of one row (zero-based), or 0 past rowCount().
    int rowSize(int row) const;
    // The arrays as compress() left them (one-based indices).
    std::span<const std::int32_t> ia() const { return {m_ia.get(), size(m_iaSize)}; }
    std::span<const std::int32_t> ja() const { return {m_ja.get(), size(m_nnz)}; }
    std::span<const float> a() const { return {m_a.get(), size(m_nnz)}; }

private:
    struct AlignedFree {
        void operator()(void* p) const;
    };
    template <class T>
    using AlignedArray = std::unique_ptr<T[], AlignedFree>;
    template <class T>
    static AlignedArray<T> allocate(std::int64_t count);
    static std::size_t size(int count) { return count > 0 ? static_cast<std::size_t>(count) : 0; }

    // The solver's parameters of solve() and analyse().
    static void solverSettings(bool symmetric, bool solutionOnRhs, int* iparm);

    float& atUnprepared(int row, int col);
    float& atFixed(int row, int col);
    float& atGrowing(int row, int col);

    using Accessor = float& (CSparseSingle::*)(int, int);

    std::int32_t m_symmetricFlag = 0;
    std::int32_t m_nnz = 0;
    std::int32_t m_iaSize = 0;
    AlignedArray<std::int32_t> m_ia;
    AlignedArray<std::int32_t> m_ja;
    AlignedArray<float> m_a;
    std::int32_t m_rowCount = 0;
    std::int32_t m_colCount = 0;
    std::int32_t m_rowCapacity = 0;
    std::vector<RowMap> m_rowMaps;
    Accessor m_atAccessor = &CSparseSingle::atUnprepared;
};
