// The C entry of SPDS.
//
// Answers the enquiry phases, grants the thread count, chooses the precision
// once, takes the diagonal-matrix path, and hands everything else to the
// phase driver of that precision. This is the only place where the element
// type is chosen. Nothing thrown inside the solver passes this function: a
// failure that the driver did not classify becomes -5.
#include "spds.h"

#include "DiagonalSolve.h"
#include "Driver.h"
#include "Handle.h"
#include "Reports.h"
#include "internal/Scalar.h"

#include "runtime/nrt.h"

#include <algorithm>
#include <complex>

namespace skyrinse::spds {
namespace {

constexpr int kEnquiryVersion = 16;
constexpr int kEnquiryParameters = 23;
constexpr int kEnquiryCapacity = 300000;
constexpr int kDiagonalFailure = -7;

int grantThreads(int n) {
    int threads = nrt_get_max_threads();
    // Small systems do not repay a team: about fifty equations a thread.
    if (nrt_get_dynamic() && static_cast<long long>(threads) * 50 > n) threads = n / 50;
    return threads < 2 ? 1 : threads;
}

bool singlePrecisionFor(void* const pt[64], int phase, const int* iparm) {
    int d = phase / 10;
    if (d > 9) d /= 10;
    const Handle* h = handleOf(pt);
    if (d != 1 && h) return h->singlePrecision;
    return iparm[27] == 1;
}

// Complex values follow the type the handle was analysed with; an analysis
// takes the call's type.
bool complexValuesFor(void* const pt[64], int phase, int mtype) {
    int d = phase / 10;
    if (d > 9) d /= 10;
    const Handle* h = handleOf(pt);
    if (d != 1 && h && h->mtype != 0) return complexMatrixType(h->mtype);
    return complexMatrixType(mtype);
}

// Every row holds exactly its diagonal entry. Other patterns of n entries
// (a permutation matrix, a matrix with an empty row) go to the driver.
bool diagonalPattern(int n, const int* ia, const int* ja) {
    if (!ia || !ja || ia[0] != 1 || ia[n] - 1 != n) return false;
    for (int i = 1; i <= n; ++i)
        if (ia[i] - ia[i - 1] != 1 || ja[i - 1] != i) return false;
    return true;
}

int entry(const CallArgs& args) {
    const int phase = *args.phase;
    int* iparm = args.iparm;
    if (phase == -2) {
        iparm[0] = kEnquiryParameters;
        return kEnquiryVersion;
    }
    if (phase == -3) return kEnquiryCapacity;

    const int n = *args.n;
    const int threads = grantThreads(n);
    const bool single = singlePrecisionFor(args.pt, phase, iparm);

    if (phase >= 1 && n >= 1 && diagonalPattern(n, args.ia, args.ja)) {
        const int m = *args.mtype;
        const int asked = iparm[0] != 1 ? iparm[11] : 0;
        const bool conjugated =
            complexMatrixType(m) && (m == 4 || m == -4 ? asked == 2 : asked == 1);
        iparm[11] = -1;
        const int r =
            single ? diagonalPath(*args.mtype, phase, n, static_cast<const float*>(args.a), args.ia,
                                  args.ja, *args.nrhs, iparm, static_cast<float*>(args.b),
                                  static_cast<float*>(args.x), conjugated)
                   : diagonalPath(*args.mtype, phase, n, static_cast<const double*>(args.a),
                                  args.ia, args.ja, *args.nrhs, iparm, static_cast<double*>(args.b),
                                  static_cast<double*>(args.x), conjugated);
        if (*args.msglvl > 0) diagonalStatistics(phase);
        return r == 0 ? 0 : kDiagonalFailure;
    }
    // A diagonal matrix marks iparm[11]; the phases on the same handle
    // that follow pass the diagonal matrix again and take the path above.
    // Another matrix after it is not skipped (its x would stay unwritten
    // with error 0): the mark is cleared and the call runs as any other.
    if (iparm[11] == -1) {
        if (phase >= 1)
            iparm[11] = 0;
        else if (!handleOf(args.pt))
            return 0;
    }
    iparm[2] = threads;
    if (complexValuesFor(args.pt, phase, *args.mtype))
        return single ? runDriver<std::complex<float>>(args, threads)
                      : runDriver<std::complex<double>>(args, threads);
    return single ? runDriver<float>(args, threads) : runDriver<double>(args, threads);
}

const char* errorText(int error) {
    switch (error) {
    case 0:
        return "success";
    case -1:
        return "sequence_ido,parameters";
    case -2:
        return "insufficient_memory";
    case -3:
        return "reordering_phase";
    case -4:
        return "numerical_factorization";
    case -5:
        return "internal_error,unclass.";
    case -6:
        return "prereordering_mtype11,13";
    case -7:
        return "internal_error,unclass.";
    case -8:
        return "32-bit overflow problem.";
    case -9:
        return "not enough mem. for OOC";
    case -10:
        return "open OOC tmp files";
    case -11:
        return "read/write OOC data file";
    case -12:
        return "incorrect input matrix";
    default:
        return "unknown error";
    }
}

} // namespace
} // namespace skyrinse::spds

extern "C" void spds(void* pt[64], const int* maxfct, const int* mnum, const int* mtype,
                     const int* phase, const int* n, const void* a, const int* ia, const int* ja,
                     int* perm, const int* nrhs, int* iparm, const int* msglvl, void* b, void* x,
                     int* error) {
    if (!error) return;
    if (!pt || !maxfct || !mnum || !mtype || !phase || !n || !nrhs || !iparm || !msglvl) {
        *error = -1;
        return;
    }
    const skyrinse::spds::CallArgs args{pt, maxfct, mnum, mtype, phase,  n, a, ia,
                                        ja, perm,   nrhs, iparm, msglvl, b, x};
    try {
        *error = skyrinse::spds::entry(args);
    } catch (...) {
        *error = -5;
    }
}

extern "C" int spds_get_analysis_info(void* const pt[64], spds_analysis_info* info) {
    if (!pt || !info) return -1;
    const skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt);
    if (!h || !h->hasAnalysis) return -1;
    const skyrinse::spds::SymbolicResult& s = h->symbolic;
    *info = spds_analysis_info{};
    info->n = h->n;
    info->nnz = h->nnz;
    info->mtype = h->mtype;
    info->threads = h->threads;
    info->partitions = h->partitions;
    info->domains = h->ordering_.ndomains;
    info->supernodes = s.nsuper;
    info->largest_supernode = s.largestSupernode;
    info->largest_fundamental = s.largestFundamental;
    info->panel_width = s.maxsup;
    info->largest_column = s.largestColumn;
    info->nnz_l = s.lnzSize;
    info->nnz_u = h->symmetricStorage ? 0 : s.unzSize;
    info->nnz_l_columns = s.colcountSum;
    info->relaxed_zeros = s.relaxedZeros;
    info->lindx_size = s.lindxSize;
    info->tmpsiz = s.tmpsiz;
    info->memory_peak_kb = static_cast<int>(std::min<long long>(h->analysisPeakKb, 2147483647));
    info->memory_permanent_kb =
        static_cast<int>(std::min<long long>(h->analysisPermanentKb, 2147483647));
    info->memory_numeric_kb = static_cast<int>(std::min<long long>(h->numericKb, 2147483647));
    info->time_graph = h->timers[skyrinse::spds::kTimeGraph];
    info->time_ordering = h->timers[skyrinse::spds::kTimeOrdering];
    info->time_sfinit = h->timers[skyrinse::spds::kTimeSfinit];
    info->time_symbolic =
        h->timers[skyrinse::spds::kTimeSymbolic] - h->timers[skyrinse::spds::kTimeSfinit];
    info->time_update_lists = h->timers[skyrinse::spds::kTimeUpdateLists];
    return 0;
}

extern "C" const char* spds_error_text(int error) {
    return skyrinse::spds::errorText(error);
}

extern "C" int spds_get_solve_info(void* const pt[64], spds_solve_info* info) {
    if (!pt || !info) return -1;
    const skyrinse::spds::Handle* h = skyrinse::spds::handleOf(pt);
    if (!h) return -1;
    info->refinement_steps = h->refinementSteps;
    info->backward_error = h->backwardError;
    info->wide_backward_error = h->wideBackwardError;
    return 0;
}
