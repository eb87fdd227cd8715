// The state that hangs on a caller's handle `pt`.
//
// pt[0] is the call counter (0 until the first checked call after an
// analysis), pt[1] points to the Handle below. Nothing else of pt is written,
// so the other 62 words stay as the caller left them. The Handle owns every
// array of the solver through Blocks; destroying it (phase -1) gives all of
// them back, whatever stage failed before.
//
// The scalar record keeps the quantities that the phases hand to each other
// (matrix type, sizes, thread and panel figures, status) as named fields; the
// stage timers keep the slot numbers under which the statistics report them.
#pragma once

#include "OutOfCoreStore.h"
#include "internal/FactorLayout.h"
#include "internal/Memory.h"

#include <array>
#include <cstdint>

namespace skyrinse::spds {

inline constexpr int kNotComputed = 777777;
inline constexpr int kVersionStamp = 102000113;

// One factorization slot of the handle (maxfct of them).
struct FactorRow {
    Block<std::byte> values; // numeric values of L and U, written by phase 22
    int state = kNotComputed;
    int scalarWords = 1;
    // Out of core: the files that hold L and U; `values` then holds only the
    // interchanges (FactorLayout with no panels).
    std::unique_ptr<OutOfCoreFactor> outOfCore;
};

// Timer slots, as the statistics number them.
enum TimerSlot {
    kTimeGraph = 0,
    kTimeOrdering = 1,
    kTimeSymbolic = 2,
    kTimeUpdateLists = 3,
    kTimeMatrixMap = 4,
    kTimeNumeric = 5,
    kTimeSolve = 6,
    kTimeIterative = 7,
    kTimeTotal = 8,
    kTimeLastEntry = 9,
    kTimeAllocation = 16,
    kTimeSfinit = 17,
    kTimeCount = 20
};

// Result of the ordering stage; lives until the next analysis.
struct OrderingResult {
    IntBlock xadj;        // n+1, one-based
    IntBlock adjncy;      // xadj[n]-1 neighbours, one-based, diagonal dropped
    IntBlock perm;        // perm[k-1]: input column eliminated at position k (one-based)
    IntBlock invp;        // invp[perm[k-1]-1] = k
    IntBlock domainpairs; // 2 x ndomains pairs (first, last), flattened
    int ndomains = 1;
};

// Result of the symbolic stage; read by the numeric factorization and solve.
struct SymbolicResult {
    IntBlock parent;    // n, elimination tree by position, 0 at a root
    IntBlock colcnt;    // n, rows of each factor column, diagonal included
    IntBlock snode;     // n, supernode of each column (one-based)
    IntBlock xsup;      // nsuper+1, first column of each supernode
    IntBlock sparent;   // nsuper, parent supernode, 0 at a root
    IntBlock xlindx;    // nsuper+1, into lindx
    IntBlock lindx;     // row indices of the first column of each supernode
    IntBlock xlnz;      // n+1, column pointers into lnz
    IntBlock xunz;      // n+1, column pointers into unz
    IntBlock pnlsch;    // nsuper, factorization order (leaves negative)
    IntBlock nmod;      // nsuper, supernodes updating each supernode
    IntBlock topRows;   // nsuper, rows of each supernode at or past the top region
    IntBlock oocFirst;  // nsuper, -1111111 until the out-of-core layer fills them
    IntBlock oocSecond; // nsuper, idem
    // Update lists: for supernode (or group x target) g, entries
    // xslindx[g] .. xslindx[g+1]-1 of slindx (target or source supernode) and
    // slength (offset from the end of the source's lindx list).
    IntBlock xslindx;
    IntBlock slindx;
    IntBlock slength;
    bool groupedUpdateLists = false;
    // Where the entries of the analysed pattern land in the factor.
    FactorMap factorMap;

    int nsuper = 0;
    std::int64_t lnzSize = 0; // xlnz[n+1]-1
    std::int64_t unzSize = 1; // 1 for symmetric storage
    std::int64_t lindxSize = 0;
    // Entries of L counted by column, diagonal included (the explicit zeros
    // that keep a matched pair in one supernode counted in); colcnt holds
    // these plus the relaxedZeros that merged supernodes store.
    std::int64_t colcountSum = 0;
    std::int64_t relaxedZeros = 0;
    int maxsup = 0;
    int largestFundamental = 0;
    int largestSupernode = 0;
    int largestColumn = 0;
    int tmpsiz = 0;
    bool domainsUnusable = false;
};

struct Handle {
    MemoryCounter memory;

    // ---- record of the analysis and of the last call ----
    int n = 0;
    int nnz = 0;
    int mtype = 0;
    int phase = 0;
    int nrhs = 0;
    int maxfct = 0;       // fixed at the first call
    int initState = 6;    // -1 when the very first call had phase <= 0
    int msglvl = 0;       // 0 or 1
    int ordering = 2;     // iparm[1]
    int threads = 1;      // granted to the analysis
    int panelWidth = 128; // maxsup
    int iterativeControl = 0;
    bool symmetricStorage = false;
    bool singleThread = true;
    int userPermutation = 0; // iparm[4]
    int solutionInB = 0;     // iparm[5]
    int pivotExponent = 0;   // iparm[9]
    int matching = 0;        // iparm[12] for the matching types, else 0
    int transpose = 0;       // iparm[11]
    bool scaling = false;
    bool twoLevel = false;
    int splitSolve = 0;   // iparm[25]
    int pivoting = 0;     // iparm[20]
    int partialSolve = 0; // 1..3 for phases 331..333
    int partitions = 1;
    int domainListSize = 1024;
    int perturbedPivots = 0;
    int positiveEigenvalues = 0;
    int negativeEigenvalues = 0;
    int refinementSteps = 0;
    // Normwise backward errors of the last checked solve (-1: none measured),
    // of the x handed back and of the wide iterate of the refinement.
    double backwardError = -1;
    double wideBackwardError = -1;
    int scalarWords = 1;
    std::int64_t offDiagonal = 0; // entries in the strict half
    std::int64_t graphWork = 0;
    bool singlePrecision = false;
    int oocMode = -1;
    OutOfCoreState ooc;

    // status of the last stage and the internal code that names it
    int status = 0;
    int internalCode = 0;
    std::int64_t failedBytes = 0;

    // memory figures in kilobytes, kept so that later phases report the same
    std::int64_t analysisPeakKb = 0;
    std::int64_t analysisPermanentKb = 0;
    std::int64_t numericKb = 0;

    std::array<double, kTimeCount> timers{};

    Block<FactorRow> factors;
    bool hasAnalysis = false;
    OrderingResult ordering_;
    SymbolicResult symbolic;
    // Row permutation and scalings of the matching, one-based; identity and
    // unit scalings when the matching is off. The blocks outlive an analysis
    // (a later one reuses them), so their contents may be those of an earlier
    // matrix, even of another size: whether they apply to the current
    // analysis is what rowPermuted and scaling say, never their being there.
    IntBlock matchingPermutation;
    Block<double> scalings;
    // The ordering graph, hence the factor's structure, took the rows of A in
    // the order of matchingPermutation; the factorization and the solve must
    // place rows the same way, or entries land outside the structure.
    bool rowPermuted = false;
    // Factorizations take the shared-cursor schedule (benchmark comparison).
    bool queueSchedule = false;
    // The analysis merges supernodes within the bounds on explicit zeros;
    // off, it keeps the fundamental ones (tests and benchmark comparison).
    bool relaxedSupernodes = true;

    // Drops the analysis and every factor, as a new analysis or phase -1 does.
    void releaseNumericAndAnalysis();
    // Frees the values of one factor slot (0-based); returns whether it held any.
    bool releaseFactor(int index);
    // Out of core a complete factor holds the row indices in its files and
    // the analysis lets go of them; this brings them back from any complete
    // factor (OocFailure when none can give them).
    void restoreIndex();
    int liveFactors() const;
};

// Handle lifecycle through the caller's pt words.
Handle* handleOf(void* const pt[64]);
// Creates the handle and its factor table; throws AllocationFailure (-100, -200).
Handle* createHandle(void* pt[64], int maxfct);
// Destroys the handle and returns pt[0], pt[1] to zero.
void destroyHandle(void* pt[64]);

} // namespace skyrinse::spds
