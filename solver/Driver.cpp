// The phase driver; the contract is in Driver.h.
//
// Phase digits: the first is the first stage of the call, the last the last
// one (1 analysis, 2 numeric factorization, 3 solve); 331 to 333 are partial
// solves that run as 33. The handle is fresh until a call with a positive
// phase creates it; an analysis on a handle in use throws away every factor
// and the previous analysis first.
#include "Driver.h"

#include "ArrayReport.h"
#include "FactorMap.h"
#include "Handle.h"
#include "IterativeRefinement.h"
#include "IterativeSolvers.h"
#include "MatchingStep.h"
#include "MatrixCheck.h"
#include "NumericFactorization.h"
#include "Ordering.h"
#include "Reports.h"
#include "SymbolicFactorization.h"
#include "internal/Scalar.h"

#include "runtime/nrt.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace skyrinse::spds {

namespace {

// Internal codes that go with status -1 (what the error report names).
constexpr int kCodeSolveBeforeAnalysis = 100000;
constexpr int kCodePhaseBelowRange = 10000;
constexpr int kCodeInitialisationPhase = 1000;
constexpr int kCodeBadFactorNumber = 100;

constexpr int kStatusParameters = -1;
constexpr int kStatusMemory = -2;
constexpr int kStatusReordering = -3;
constexpr int kStatusOverflow = -8;
constexpr int kStatusNumeric = -4;
constexpr int kStatusStructural = -6;
constexpr int kCodeNoVectors = 9;
// The factorization's arrays hold an entry that the analysed pattern has no
// place for; the caller has to analyse the new pattern first.
constexpr int kCodeOutsideStructure = 25;
// A value of a, or of b, is infinite or not a number.
constexpr int kCodeNonFiniteMatrix = 26;
constexpr int kCodeNonFiniteRhs = 27;
// A factorization, a checked solve or a matching that weighs the values,
// without `a`.
constexpr int kCodeNoValues = 28;
// A Hermitian type whose diagonal holds a value that is not real.
constexpr int kCodeComplexDiagonal = 29;
// Memory block code of the matrix-to-factor map, part of the factor's
// structure.
constexpr int kFactorMapCode = -803;

// Row i's diagonal value (one-based), its repeated entries summed.
template <class T>
T diagonalOf(int i, const int* ia, const int* ja, const T* a) {
    T d = 0;
    for (int p = ia[i - 1] - 1; p < ia[i] - 1; ++p)
        if (ja[p] == i) d += a[p];
    return d;
}

// Whether some row holds no entry on the diagonal, or only zeros there.
template <class T>
bool zeroOnDiagonal(int n, const int* ia, const int* ja, const void* values) {
    for (int i = 1; i <= n; ++i)
        if (diagonalOf(i, ia, ja, static_cast<const T*>(values)) == T(0)) return true;
    return false;
}

// Whether a Hermitian matrix's diagonal holds a value that is not real: such
// a matrix is not Hermitian, and A^H x = b would be solved as A x = b.
template <class T>
bool nonRealDiagonal(int n, const int* ia, const int* ja, const void* values) {
    for (int i = 1; i <= n; ++i)
        if (notReal(diagonalOf(i, ia, ja, static_cast<const T*>(values)))) return true;
    return false;
}

template <class T>
bool allFinite(const T* v, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i)
        if (!isFiniteValue(v[i])) return false;
    return true;
}

template <class T>
void conjugateAll(T* v, std::int64_t count) {
    if constexpr (isComplexV<T>)
        for (std::int64_t i = 0; i < count; ++i)
            v[i] = std::conj(v[i]);
}

template <class T>
constexpr bool singleOf() {
    return std::is_same_v<RealOf<T>, float>;
}

bool acceptedMatrixType(int mtype) {
    const int m = mtype < 0 ? -mtype : mtype;
    return (m >= 1 && m <= 6) || mtype == 11 || mtype == -11 || mtype == 13;
}

bool matchingType(int mtype) {
    return mtype == -4 || mtype == -2 || mtype == 6 || mtype == 11 || mtype == 13;
}

int scalarWordsOf(int mtype) {
    const int m = mtype < 0 ? -mtype : mtype;
    if (mtype == 11) return 1;
    if (mtype == 13) return 2;
    return m < 3 ? 1 : 2;
}

void applyDefaults(int mtype, int* iparm) {
    const bool realUnsymmetric = mtype == 1 || mtype == 3 || mtype == 11 || mtype == 13;
    const bool indefinite = mtype == -4 || mtype == -2 || mtype == 6;
    iparm[1] = 2;
    iparm[3] = 0;
    iparm[4] = 0;
    iparm[5] = 0;
    iparm[6] = 0;
    iparm[7] = 0;
    iparm[8] = 0;
    iparm[9] = realUnsymmetric ? 13 : indefinite ? 8 : 0;
    iparm[10] = (mtype == 11 || mtype == 13) ? 1 : 0;
    iparm[11] = 0;
    iparm[12] = (mtype == 11 || mtype == 13) ? 1 : 0;
    iparm[13] = 0;
    iparm[17] = -1;
    iparm[18] = -1;
    iparm[19] = 0;
    iparm[20] = indefinite ? 1 : 0;
    iparm[21] = 0;
    iparm[22] = 0;
    iparm[23] = 0;
    iparm[24] = 0;
    iparm[49] = 0;
    iparm[59] = 0;
}

int clampToInt(std::int64_t v) {
    return v > INT_MAX ? INT_MAX : static_cast<int>(v);
}

// The driver's state for one call.
template <class T>
class Call {
public:
    Call(const CallArgs& args, int threads) : a(args), m_threads(threads) {}

    int run();

private:
    int argumentCheck();
    void resetForAnalysis();
    void analyse();
    void finishAnalysisFigures(bool factorsWanted, bool operationsWanted);
    bool decideStorage();
    int factorAndSolve(int lastDigit);
    bool iterate(const FactorRow& row);
    // The caller's system as this call hands it to the solve stages.
    SystemRequest systemRequest() const {
        SystemRequest rq;
        rq.n = h->n;
        rq.nrhs = *a.nrhs;
        rq.a = a.a;
        rq.ia = a.ia;
        rq.ja = a.ja;
        rq.symmetricStorage = h->symmetricStorage;
        rq.hermitian = h->mtype == 4 || h->mtype == -4;
        rq.transpose = a.iparm[0] != 1 && a.iparm[11] > 0 && !h->symmetricStorage;
        rq.solutionInB = a.iparm[5] == 1;
        return rq;
    }
    // Whether the solve asked for is of the conjugated matrix (iparm[11]:
    // 1 the conjugate transposed, 2 the transposed).
    bool conjugatedSolve() const {
        if (a.iparm[0] == 1 || a.iparm[11] <= 0) return false;
        const int mtype = h->mtype;
        if (mtype == 4 || mtype == -4) return a.iparm[11] == 2;
        return a.iparm[11] == 1;
    }
    int exit();
    ReportCall reportCall() const;
    void markTimers() {
        if (h) m_timersAtEntry = h->timers;
    }

    const CallArgs& a;
    int m_threads;
    double m_entry = nrt_seconds();
    std::array<double, kTimeCount> m_timersAtEntry{};
    Handle* h = nullptr;
    int phase = 0;
    int status = 0;
    int internal = 0;
};

template <class T>
int Call<T>::argumentCheck() {
    const int ph = (phase >= 331 && phase <= 333) ? 33 : phase;
    const int maxfct = *a.maxfct, mnum = *a.mnum, mtype = *a.mtype, n = *a.n;
    int* iparm = a.iparm;
    if (ph < -1 || ph >= 34) return 1;
    if (maxfct < 1 || (h->maxfct >= 1 && maxfct > h->maxfct)) return 2;
    if (mnum > maxfct) return 3;
    // Phases 12 and 13 factor too: without a factor number they would write
    // before the first row of the factor table.
    if (mnum < 1 && (ph >= 22 || ph == 12 || ph == 13)) return 4;
    if (!acceptedMatrixType(mtype)) return 15;
    if (h->mtype != 0 && mtype != h->mtype && mtype != -h->mtype &&
        (std::abs(mtype) % 2) != (std::abs(h->mtype) % 2))
        return 5;
    if (h->n > 0 && n != h->n) return 6;
    if (n < 1) return 7;
    if (!a.ia) return 8;
    if (a.ia[n] - 1 < n) return 8;
    if (*a.nrhs < 1 && (ph >= 33 || ph == 13 || ph == 23)) return 9;
    if (iparm[5] != 0 && iparm[5] != 1) return 10;
    if (iparm[1] < 0 || iparm[1] > 3) return 11;
    if (iparm[26] != 0) {
        if (!a.ja) return 22;
        const bool symmetric = (std::abs(mtype) % 2) == 0;
        const int code = checkMatrix(n, a.ia, a.ja, symmetric, kCheckAll, iparm + 30);
        if (code != 0) return code;
        iparm[26] = 0;
    }
    if (ph != 11 && ph != 12 && ph != 13 && ph != 22 && ph != 23 && ph != 33) return 20;
    return 0;
}

template <class T>
void Call<T>::resetForAnalysis() {
    int* iparm = a.iparm;
    const int mtype = *a.mtype;
    a.pt[0] = nullptr;
    h->releaseNumericAndAnalysis();
    h->timers.fill(0.0);
    // A new analysis starts the record afresh; the handle keeps only what
    // its first call fixed (maxfct) and how it was made.
    h->n = 0;
    h->nnz = 0;
    h->mtype = 0;
    h->status = 0;
    h->internalCode = 0;
    h->perturbedPivots = h->positiveEigenvalues = h->negativeEigenvalues = 0;
    h->refinementSteps = 0;
    if (iparm[0] == 0) applyDefaults(mtype, iparm);
    h->matching = (matchingType(mtype) && iparm[12] > 0) ? iparm[12] : 0;
    h->scaling = matchingType(mtype) && iparm[10] == 1 && iparm[12] > 0;
    h->rowPermuted = false;
    h->transpose = iparm[0] != 1 ? iparm[11] : 0;
    h->threads = m_threads;
    h->splitSolve = iparm[25];
    // The copy that runs the analysis owns the handle from now on.
    h->singlePrecision = singleOf<T>();
    for (FactorRow& row : h->factors) {
        row.values.reset();
        row.state = kNotComputed;
        row.scalarWords = 1;
    }
}

template <class T>
void Call<T>::analyse() {
    int* iparm = a.iparm;
    const int n = h->n;
    const int mtype = h->mtype;
    h->memory.restartPeak();

    // The stages read ja through ia; without the full checker asked for,
    // the part of it that keeps those reads inside the arrays still runs.
    if (!a.ja) {
        status = kStatusParameters;
        internal = 22;
        return;
    }
    if (!a.a && h->matching > 0) {
        status = kStatusParameters;
        internal = kCodeNoValues;
        return;
    }
    const int bounds = checkMatrix(n, a.ia, a.ja, false, kCheckBoundsOnly, iparm + 30);
    if (bounds != 0) {
        status = kStatusParameters;
        internal = bounds;
        return;
    }
    // An equation without any entry: no pivot can exist for it, whatever
    // the values; the answer is that of a structurally singular matrix.
    const int empty = firstEmptyEquation(n, a.ia, a.ja, h->symmetricStorage);
    if (empty != 0) {
        status = kStatusStructural;
        iparm[29] = empty;
        if (*a.msglvl != 0)
            std::printf("*** Error in SPDS: equation %d has no entry, the matrix is structurally "
                        "singular\n",
                        empty);
        return;
    }

    // Matching and scaling (MatchingStep.h): the row permutation and the
    // scalings on the handle; for mtype -2 also the order of the block graph,
    // which stands in for the fill-reducing order unless the caller gave one.
    // Without the matching an LU factorization takes the rows in their own
    // order, with pivots only inside the diagonal blocks; a zero on the
    // diagonal then leaves a block without any usable pivot, and chains of
    // perturbed pivots give garbage. Such a matrix is matched (not scaled)
    // whatever iparm[12] says; mtype 1 (3) is matched as the general matrix
    // 11 (13) it then becomes.
    const bool structural = mtype == 1 || mtype == 3;
    const bool lu = structural || mtype > 10;
    if (lu && h->matching == 0 && a.a && zeroOnDiagonal<T>(n, a.ia, a.ja, a.a)) h->matching = 1;
    MatchingRequest mrq;
    mrq.mtype = structural && h->matching > 0 ? mtype + 10 : mtype;
    mrq.n = n;
    mrq.maxfct = h->maxfct;
    mrq.matching = h->matching;
    mrq.scaling = h->scaling;
    mrq.single = singleOf<T>();
    mrq.a = a.a;
    mrq.ia = a.ia;
    mrq.ja = a.ja;
    MatchingOutcome matched =
        runMatchingStep(mrq, h->matchingPermutation, h->scalings,
                        blockGraphOrderer(h->ordering, h->partitions, h->threads, &h->memory,
                                          &h->timers[kTimeOrdering]),
                        &h->memory);
    if (matched.error != 0) {
        reportMatchingFailure(matched);
        status = matched.error;
        internal = matched.internalCode;
        return;
    }
    // Only the types above 10 order through the matching's rows; for the
    // others the block may still hold the permutation of an earlier analysis.
    const int* rowPermutation =
        (mtype > 10 || (structural && h->matching > 0)) && !h->matchingPermutation.empty()
            ? h->matchingPermutation.data()
            : nullptr;
    h->rowPermuted = rowPermutation != nullptr;
    const bool callerOrder = h->userPermutation > 0 && h->userPermutation != 2;
    const bool pairOrder = matched.hasPairOrder && !callerOrder;

    OrderingInput oin;
    oin.n = n;
    oin.ia = a.ia;
    oin.ja = a.ja;
    oin.mtype = mtype;
    oin.method = h->ordering;
    oin.userPermutation = pairOrder ? 1 : h->userPermutation;
    oin.callerPerm = pairOrder ? matched.pairOrder.perm.data() : a.perm;
    oin.rowPermutation = rowPermutation;
    oin.partitions = h->partitions;
    oin.threads = h->threads;
    oin.memory = &h->memory;
    // The pair order came with the full pattern of the matrix: when its rows
    // are clean it is the ordering graph already, and need not be built again.
    OrderingTimes ot;
    const double graphStart = nrt_seconds();
    if (pairOrder && !matched.fullIa.empty() &&
        graphFromFullPattern(n, matched.fullIa, matched.fullJa, h->ordering_)) {
        const double graph = nrt_seconds() - graphStart;
        ot = orderGraph(oin, h->ordering_);
        ot.graph = graph;
    } else {
        ot = computeOrdering(oin, h->ordering_);
    }
    h->timers[kTimeGraph] += ot.graph;
    h->timers[kTimeOrdering] += ot.ordering;
    if (pairOrder) {
        if (matched.pairOrder.ndomains > 1) {
            h->ordering_.domainpairs = std::move(matched.pairOrder.domainpairs);
            h->ordering_.ndomains = matched.pairOrder.ndomains;
        }
        h->partitions = matched.pairOrder.partitions;
    }

    SymbolicInput sin;
    sin.n = n;
    sin.mtype = mtype;
    sin.symmetricStorage = h->symmetricStorage;
    sin.maxsup = h->panelWidth;
    sin.threads = h->threads;
    sin.outOfCore = h->oocMode > 0;
    sin.pairStart = pairOrder ? matched.pairOrder.pairStart.data() : nullptr;
    sin.relax = h->relaxedSupernodes;
    // Only an order cut into domains is renumbered: its tree is wide (the
    // photo systems), which is where the merge gains. A single-domain order
    // keeps its supernodes: on a small shifted Laplacian the wider merged
    // blocks changed which pivots were perturbed, and the answer no longer
    // refined to the tolerance.
    sin.postorder = !callerOrder && h->ordering_.ndomains > 1;
    sin.memory = &h->memory;
    if (*a.msglvl >= 2) reportOrdering(h->ordering_, n);
    const SymbolicTimes st = symbolicFactorization(sin, h->ordering_, h->symbolic);
    if (*a.msglvl >= 2) reportSymbolic(h->ordering_, h->symbolic, n);
    // The symbolic stage renumbers the columns in a postorder: the caller
    // gets the order the factor is made in.
    if (h->userPermutation == 2 && a.perm)
        std::copy(h->ordering_.perm.begin(), h->ordering_.perm.end(), a.perm);
    h->timers[kTimeSfinit] += st.sfinit;
    h->timers[kTimeSymbolic] += st.sfinit + st.symbolic;
    h->timers[kTimeUpdateLists] += st.updateLists;

    // Every factorization of this pattern places its entries through the map.
    const double mapStart = nrt_seconds();
    const int kind = factorKind(mtype);
    const bool luFactor = kind == 1 || kind == 11 || kind == -11;
    if (numericSupported(mtype) && !buildFactorMap(*h, luFactor, a.ia, a.ja, kFactorMapCode,
                                                   &h->memory, h->symbolic.factorMap))
        throw SymbolicFailure{-180};
    h->timers[kTimeMatrixMap] += nrt_seconds() - mapStart;

    // The ordering graph served the symbolic stage only.
    h->ordering_.xadj.reset();
    h->ordering_.adjncy.reset();
    h->hasAnalysis = true;
}

template <class T>
void Call<T>::finishAnalysisFigures(bool factorsWanted, bool operationsWanted) {
    int* iparm = a.iparm;
    const SymbolicResult& s = h->symbolic;
    const std::int64_t factorEntries = s.lnzSize + (h->symmetricStorage ? 0 : s.unzSize);
    if (factorsWanted) iparm[17] = clampToInt(factorEntries);
    if (operationsWanted)
        iparm[18] =
            clampToInt(std::llround(factorizationOperations(s, h->n, !h->symmetricStorage)));
    h->analysisPeakKb = h->memory.peakKb();
    h->analysisPermanentKb = h->memory.currentKb();
    // What the factorization will add: the values, one update buffer and the
    // index maps per thread, the pending lists, the matrix's entries as
    // factored (the map that places them is the analysis's).
    const std::int64_t t = std::max(1, m_threads);
    const std::int64_t values =
        factorEntries * static_cast<std::int64_t>(sizeof(RealOf<T>)) * h->scalarWords;
    const std::int64_t buffers = (t * s.tmpsiz + h->nnz) * static_cast<std::int64_t>(sizeof(T));
    const std::int64_t maps = (2 * t * h->n + h->n + s.nsuper) * 4;
    h->numericKb = MemoryCounter::kilobytes(values) + MemoryCounter::kilobytes(buffers) +
                   MemoryCounter::kilobytes(maps);
}

// In core or out of core, from iparm[59] and the configured limit, after the
// memory estimate of the analysis; fills iparm[60..62] and iparm[55]. False
// with status -9 when the limit cannot hold even the smallest window.
template <class T>
bool Call<T>::decideStorage() {
    int* iparm = a.iparm;
    const int requested = iparm[59] == 1 || iparm[59] == 2 ? iparm[59] : 0;
    if (requested != 0) h->ooc.configure(*a.msglvl);
    const SymbolicResult& s = h->symbolic;
    const bool lu = !h->symmetricStorage;
    const std::int64_t scalar = sizeof(T);
    OocFigures f;
    f.analysisKb = h->analysisPermanentKb;
    f.factorBytes = (s.lnzSize + (lu ? s.unzSize : 0)) * scalar;
    // The factorization's own arrays besides the values, and the matrix
    // entries it groups by column.
    f.workBytes = std::max<std::int64_t>(0, h->numericKb * 1024 - f.factorBytes) +
                  static_cast<std::int64_t>(h->nnz) * (8 + scalar);
    f.lindxSize = s.lindxSize;
    // Sizes, offsets, uses and the window's slot of each supernode.
    f.tableBytes = static_cast<std::int64_t>(s.nsuper + 1) * 80;
    std::vector<std::int64_t> upTo(static_cast<std::size_t>(s.nsuper) + 1, 0); // bytes of 1..sn
    for (int sn = 1; sn <= s.nsuper; ++sn) {
        const int fst = s.xsup[sn - 1];
        const std::int64_t ws = s.xsup[sn] - fst;
        const std::int64_t hs = s.xlnz[fst] - s.xlnz[fst - 1];
        const std::int64_t bytes = (lu ? 2 * hs - ws : hs) * ws * scalar;
        f.largestPanel = std::max(f.largestPanel, bytes);
        upTo[static_cast<std::size_t>(sn)] = upTo[static_cast<std::size_t>(sn) - 1] + bytes;
    }
    // The dissection's parts, in supernodes: domains, then the separators.
    const int nd = h->ordering_.ndomains;
    if (requested != 0 && nd >= 2 && !s.domainsUnusable &&
        h->ordering_.domainpairs.size() >= 4 * static_cast<std::int64_t>(nd)) {
        const int* dp = h->ordering_.domainpairs.data();
        auto bytesOf = [&](int pair) {
            const int first = std::clamp(dp[2 * pair], 1, s.nsuper);
            const int last = std::clamp(dp[2 * pair + 1], 0, s.nsuper);
            return last >= first ? upTo[static_cast<std::size_t>(last)] -
                                       upTo[static_cast<std::size_t>(first) - 1]
                                 : std::int64_t(0);
        };
        std::vector<std::int64_t> domains, separators;
        for (int d = 0; d < nd; ++d)
            domains.push_back(bytesOf(d));
        for (int k = nd + 1; k < 2 * nd; ++k)
            separators.push_back(bytesOf(k));
        f.largestBranch = largestBranch(domains, separators);
        f.parts = nd;
    }
    const OocPlan plan = planOutOfCore(requested, h->ooc.config.maxCoreMb, f);
    iparm[60] = plan.inCoreMb;
    iparm[61] = plan.factorMb;
    iparm[62] = plan.workMb;
    if (*a.msglvl > 0 && plan.message != 0) spds_message(0, plan.message, 0);
    h->ooc.active = plan.active && plan.error == 0;
    h->ooc.mode = h->ooc.active ? plan.mode : -1;
    h->ooc.windowBytes = plan.windowBytes;
    h->ooc.stagingBytes = plan.stagingBytes;
    h->ooc.parts = f.parts;
    h->oocMode = h->ooc.mode;
    iparm[55] = h->ooc.mode;
    if (plan.error != 0) {
        h->ooc.status = plan.error;
        status = plan.error;
        iparm[14] = clampToInt(plan.neededKb);
        return false;
    }
    return true;
}

template <class T>
int Call<T>::run() {
    int* iparm = a.iparm;
    phase = *a.phase;
    iparm[49] = 0;
    if (phase < -1) {
        status = kStatusParameters;
        internal = kCodePhaseBelowRange;
        h = handleOf(a.pt);
        return exit();
    }
    if (iparm[59] == 22) iparm[59] = 2;
    const int oocDefault = iparm[59] == 2 ? 2 : iparm[59] != 0 ? 0 : -1;
    const int stagePhase = (phase >= 331 && phase <= 334) ? phase / 10 : phase;
    const int firstDigit = stagePhase >= 10 ? stagePhase / 10 : stagePhase;
    const int lastDigit = stagePhase >= 10 ? stagePhase % 10 : stagePhase;

    h = handleOf(a.pt);
    if (h) h->ooc.status = 0;
    markTimers();
    bool created = false;
    if (!h) {
        if (phase == -1) return 0;
        if (!(phase > 0 || iparm[11] != -1)) return 0;
        if (*a.maxfct < 1) {
            // A table of no factors would be fixed on the handle and every
            // later factor number would fall outside it: nothing is created.
            status = kStatusParameters;
            internal = 2;
            return exit();
        }
        try {
            h = createHandle(a.pt, *a.maxfct);
        } catch (const AllocationFailure& f) {
            h = handleOf(a.pt);
            status = kStatusMemory;
            internal = f.code;
            if (h) h->failedBytes = f.bytes;
            return exit();
        }
        created = true;
        h->singlePrecision = singleOf<T>();
        h->oocMode = oocDefault;
        h->msglvl = *a.msglvl != 0 ? 1 : 0;
        if (phase <= 0) {
            h->initState = -1;
            status = kStatusParameters;
            internal = kCodeInitialisationPhase;
            return exit();
        }
    }
    if (!created && (phase == -1 || firstDigit == 1)) {
        const int freed = h->liveFactors();
        if (phase == -1) {
            destroyHandle(a.pt);
            h = nullptr;
            if (*a.msglvl > 0) {
                ReportCall rc = reportCall();
                rc.freedFactors = freed;
                spds_statistics(rc, nullptr, 0.0);
            }
            return 0;
        }
        h->releaseNumericAndAnalysis();
    }
    if (phase == 0) {
        const int mnum = *a.mnum;
        if (mnum >= 1 && mnum <= h->maxfct) {
            h->releaseFactor(mnum - 1);
            return exit();
        }
        status = kStatusParameters;
        internal = kCodeBadFactorNumber;
        return exit();
    }
    if (firstDigit == 1) resetForAnalysis();
    markTimers();

    const int check = argumentCheck();
    if (check != 0) {
        status = kStatusParameters;
        internal = check;
        h->phase = 0;
        h->nrhs = 0;
        if (firstDigit == 1) h->nnz = 0;
        return exit();
    }
    if ((firstDigit == 2 || firstDigit == 3) && !h->hasAnalysis) {
        status = kStatusParameters;
        internal = kCodeSolveBeforeAnalysis;
        return exit();
    }
    // The counter lives in a pointer-sized word; count in integers.
    a.pt[0] = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(a.pt[0]) + 1);

    // The call's values become the record.
    const int n = *a.n;
    h->phase = phase;
    h->nrhs = *a.nrhs;
    h->msglvl = *a.msglvl != 0 ? 1 : 0;
    h->partialSolve = (phase >= 331 && phase <= 333) ? phase - 330 : 0;
    if (firstDigit == 1 || firstDigit == 2) h->nnz = a.ia[n] - 1;
    if (firstDigit == 1) {
        const int mtype = *a.mtype;
        h->n = n;
        h->mtype = mtype;
        h->ordering = iparm[1];
        h->userPermutation = iparm[4];
        h->solutionInB = iparm[5];
        h->pivotExponent = iparm[9];
        h->pivoting = iparm[20];
        h->iterativeControl = iparm[3] % 10;
        h->scalarWords = scalarWordsOf(mtype);
        h->symmetricStorage = (std::abs(mtype) % 2) == 0;
        h->singleThread = m_threads == 1;
        const std::int64_t nnz = h->nnz;
        h->offDiagonal = h->symmetricStorage ? nnz - n : (nnz - n) / 2;
        if (h->symmetricStorage) h->transpose = 0;
        h->graphWork = mtype >= 11 ? n + 2 * nnz : 2 * h->offDiagonal;
        h->panelWidth = panelWidth(mtype, m_threads, n);
        h->twoLevel =
            mtype == 11 && iparm[59] != 2 && m_threads > 1 && (iparm[1] == 2 || iparm[1] == 3);
        int p = 1;
        // The parts of the dissection do not follow the thread count either,
        // so that the ordering is the same for any number of threads.
        const int floor = 32;
        while (p < floor)
            p *= 2;
        int above = 1;
        while (above <= n && above < (1 << 30))
            above *= 2;
        if (p > above / 2) p = std::max(1, above / 2);
        h->partitions = p;
        h->domainListSize = std::max(1024, 4 * p + 4);
        const bool factorsWanted = iparm[17] < 0;
        const bool operationsWanted = iparm[18] < 0;
        try {
            analyse();
            if (status == 0) finishAnalysisFigures(factorsWanted, operationsWanted);
            if (status == 0) decideStorage();
        } catch (const AllocationFailure& f) {
            status = kStatusMemory;
            internal = f.code;
            h->failedBytes = f.bytes;
        } catch (const std::bad_alloc&) {
            status = kStatusMemory;
            internal = -500;
        } catch (const SizeOverflow&) {
            status = kStatusOverflow;
            iparm[29] = -182;
        } catch (const OrderingFailure& f) {
            status = kStatusReordering;
            iparm[29] = f.status;
        } catch (const SymbolicFailure& f) {
            status = f.status == -182 ? kStatusOverflow : kStatusReordering;
            iparm[29] = f.status;
        }
        if (status != 0) {
            h->hasAnalysis = false;
            return exit();
        }
        if (lastDigit == 1) return exit();
    }
    // This call's arrays need not be those of the analysis: the
    // factorization and the refinement read ja through ia, so the bounds are
    // checked again. Unsorted rows and repeated entries are fine (repeated
    // entries add up), and so is an entry of the other triangle with
    // symmetric storage (it stands for both).
    if (!a.ja) {
        status = kStatusParameters;
        internal = 22;
        return exit();
    }
    const int structure = checkMatrix(*a.n, a.ia, a.ja, false, kCheckBoundsOnly, iparm + 30);
    if (structure != 0) {
        status = kStatusParameters;
        internal = structure;
        return exit();
    }
    return factorAndSolve(lastDigit);
}

// Numeric factorization (first digit 1 or 2) and solve (last digit 3).
template <class T>
int Call<T>::factorAndSolve(int lastDigit) {
    int* iparm = a.iparm;
    const int mnum = *a.mnum;
    if (!numericSupported(h->mtype)) {
        status = kNumericUnavailable;
        return exit();
    }
    FactorRow& row = h->factors[mnum - 1];
    const int stagePhase = (phase >= 331 && phase <= 333) ? 33 : phase;
    const bool iterative = iterativeRequested(iparm[3]);
    try {
        // Phase 23 on a handle that holds a factor tries the iterative
        // solver with it first; only when that fails does it factor the new
        // matrix (and solve it in the ordinary way below).
        if (stagePhase == 23 && iterative && row.state == 0 && a.b && a.x && iterate(row))
            return exit();
        if (stagePhase != 33) {
            if (!a.a) {
                status = kStatusParameters;
                internal = kCodeNoValues;
                return exit();
            }
            if (!allFinite(static_cast<const T*>(a.a), h->nnz)) {
                status = kStatusParameters;
                internal = kCodeNonFiniteMatrix;
                return exit();
            }
            if ((h->mtype == 4 || h->mtype == -4) && nonRealDiagonal<T>(h->n, a.ia, a.ja, a.a)) {
                status = kStatusParameters;
                internal = kCodeComplexDiagonal;
                return exit();
            }
            NumericRequest rq;
            rq.mtype = factorKind(h->mtype);
            rq.hermitian = h->mtype == 4 || h->mtype == -4;
            rq.n = h->n;
            rq.a = a.a;
            rq.ia = a.ia;
            rq.ja = a.ja;
            rq.bunchKaufman = iparm[20] != 0;
            rq.pivotExponent = iparm[9];
            rq.threads = m_threads;
            rq.queueSchedule = h->queueSchedule;
            const double t0 = nrt_seconds();
            const NumericResult r = numericFactorization<T>(*h, rq, row);
            h->timers[kTimeNumeric] = nrt_seconds() - t0;
            h->perturbedPivots = r.perturbed;
            h->positiveEigenvalues = r.positive;
            h->negativeEigenvalues = r.negative;
            iparm[13] = r.perturbed;
            iparm[21] = r.positive;
            iparm[22] = r.negative;
            if (r.outsideStructure) {
                status = kStatusParameters;
                internal = kCodeOutsideStructure;
                return exit();
            }
            if (r.status != 0) {
                iparm[29] = r.status;
                status = kStatusNumeric;
                return exit();
            }
            if (lastDigit == 2) return exit();
        } else if (iparm[13] > 0) {
            // The caller's count of perturbed pivots decides about refinement.
            h->perturbedPivots = iparm[13];
        } else if (h->perturbedPivots == 0) {
            iparm[13] = 0;
        }
        if (row.state != 0) {
            status = kStatusParameters;
            internal = kCodeSolveBeforeAnalysis;
            return exit();
        }
        if (!a.b || !a.x) {
            status = kStatusParameters;
            internal = kCodeNoVectors;
            return exit();
        }
        const bool refinementDue = (h->perturbedPivots > 0 || iparm[7] != 0) && h->splitSolve == 0;
        // Phase 33 lets the iterative solver take the place of the
        // refinement; when it fails, the refinement runs after all, and
        // iparm[19] keeps what the iteration reported.
        if (stagePhase == 33 && h->partialSolve == 0 && iterative && refinementDue && iterate(row))
            return exit();
        // The check of a full solve multiplies with the call's matrix.
        if (!a.a && h->splitSolve == 0 && h->partialSolve == 0) {
            status = kStatusParameters;
            internal = kCodeNoValues;
            return exit();
        }
        if (!allFinite(static_cast<const T*>(a.b), checkedMul(h->n, *a.nrhs))) {
            status = kStatusParameters;
            internal = kCodeNonFiniteRhs;
            return exit();
        }
        RefinementRequest rq;
        static_cast<SystemRequest&>(rq) = systemRequest();
        rq.steps = iparm[7];
        rq.partial = h->partialSolve;
        rq.checked = h->splitSolve == 0;
        // A conjugated system (A^H x = b of a general or complex symmetric
        // matrix, A^T x = b of a Hermitian one) is op(A) y = conj(b) with
        // x = conj(y), op the transposition the factor itself offers (A^T
        // for 3 and 13, none for the symmetric storage): b is conjugated for
        // the solve and back after it, also when the solve throws.
        const bool conjugated = isComplexV<T> && conjugatedSolve();
        T* b = static_cast<T*>(a.b);
        T* x = static_cast<T*>(a.x);
        const std::int64_t count = checkedMul(h->n, *a.nrhs);
        struct Conjugation {
            T* b;
            T* x;
            std::int64_t count;
            bool on;
            ~Conjugation() {
                if (!on) return;
                conjugateAll(b, count);
                if (x != b) conjugateAll(x, count);
            }
        };
        if (conjugated) conjugateAll(b, count);
        const Conjugation undo{b, x, count, conjugated};
        const double t0 = nrt_seconds();
        const RefinementResult r = solveAndRefine<T>(*h, row, rq, b, x);
        h->timers[kTimeSolve] = nrt_seconds() - t0;
        h->refinementSteps = r.steps;
        h->backwardError = r.backwardError;
        h->wideBackwardError = r.wideBackwardError;
        iparm[6] = r.steps;
        if (r.status != 0) {
            iparm[29] = r.status;
            status = kStatusNumeric;
        }
    } catch (const AllocationFailure& f) {
        status = kStatusMemory;
        internal = f.code;
        h->failedBytes = f.bytes;
    } catch (const SizeOverflow&) {
        status = kStatusOverflow;
        iparm[29] = -182;
    } catch (const OocFailure& f) {
        h->ooc.status = f.error;
        status = f.error;
    }
    if (h->ooc.active) iparm[55] = h->ooc.mode;
    return exit();
}

// Runs CG or CGS preconditioned by the factor in `row`; true when it
// converged and x (or b) holds the solution. iparm[19] reports either way.
template <class T>
bool Call<T>::iterate(const FactorRow& row) {
    int* iparm = a.iparm;
    // The iterations are written for real arithmetic; a complex system takes
    // the factorization and the checked refinement instead.
    if constexpr (isComplexV<T>) {
        (void)row;
        (void)iparm;
        return false;
    } else {
        IterativeRequest rq;
        static_cast<SystemRequest&>(rq) = systemRequest();
        rq.control = iparm[3];
        rq.factorSeconds = h->timers[kTimeNumeric];
        rq.outOfCore = h->oocMode > 0;
        const double t0 = nrt_seconds();
        const IterativeResult r =
            iterativeSolve<T>(*h, row, rq, static_cast<T*>(a.b), static_cast<T*>(a.x));
        h->timers[kTimeIterative] = nrt_seconds() - t0;
        iparm[19] = r.report();
        return r.status == 0;
    }
}

template <class T>
int Call<T>::exit() {
    int* iparm = a.iparm;
    if (h) {
        // After -9, iparm[14] holds the memory the limit would need.
        if (h->ooc.status != kOocNotEnoughMemory) iparm[14] = clampToInt(h->analysisPeakKb);
        iparm[15] = clampToInt(h->analysisPermanentKb);
        iparm[16] = clampToInt(h->numericKb);
        h->status = status;
        h->internalCode = internal;
    }
    iparm[63] = kVersionStamp;
    int error = status;
    if (status < 0) {
        if (phase < 0) {
            spds_message(0, 774, 0);
        } else if (*a.msglvl != 0) {
            error = spds_error_report(reportCall());
        } else if (status == kStatusParameters) {
            error = -7;
        }
    }
    // At the second level the storage scheme of an out-of-core factor.
    if (*a.msglvl == 2 && phase >= 0 && h && h->ooc.active && h->ooc.status == 0) {
        if (h->ooc.mode == 0)
            std::printf(" all L factors fit in RAM, BrLL algorithm of OOC SPDS is run; "
                        "comi(60)=%d\n",
                        1);
        else if (h->ooc.mode == 3)
            std::printf(" max Branch of L-tree fit in RAM, BrLL algorithm of OOC SPDS is run; "
                        "comi(60)=%d\n",
                        h->ooc.parts);
        else
            std::printf(" LL algorithm OOC SPDS is run; nparts=%d\n", h->partitions);
    }
    if (*a.msglvl > 0 && phase >= 0) spds_statistics(reportCall(), h, nrt_seconds() - m_entry);
    if (h && phase >= 0) h->status = 0;
    return error;
}

template <class T>
ReportCall Call<T>::reportCall() const {
    ReportCall rc;
    rc.handle = h;
    rc.phase = phase;
    rc.maxfct = *a.maxfct;
    rc.mnum = *a.mnum;
    rc.mtype = *a.mtype;
    rc.n = *a.n;
    // ia[n] was read by the checks before any report that shows it.
    rc.iaLast = (a.ia && rc.n >= 1 && internal != 7) ? a.ia[rc.n] : 0;
    rc.nrhs = *a.nrhs;
    rc.iparm = a.iparm;
    rc.status = status;
    rc.internal = internal;
    rc.threads = m_threads;
    rc.timersAtEntry = m_timersAtEntry;
    return rc;
}

} // namespace

template <class T>
int runDriver(const CallArgs& args, int threads) {
    Call<T> call(args, threads);
    return call.run();
}

template int runDriver<float>(const CallArgs&, int);
template int runDriver<double>(const CallArgs&, int);
template int runDriver<std::complex<float>>(const CallArgs&, int);
template int runDriver<std::complex<double>>(const CallArgs&, int);

} // namespace skyrinse::spds
